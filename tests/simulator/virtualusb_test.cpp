#include "simulator/virtualusbdevice.h"

#include <array>
#include <atomic>

#include "simulator/crc64.h"
#include "wirehost.h"

namespace simulator {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class UsbDevice : public UsbTest {};

TEST_F(UsbDevice, TakesABurnerImageAndThenAWholeWrite) {
    UsbDeviceOptions options;
    options.recordsTransfers = true;
    start(options);
    const ByteVector burner = pattern(2049);
    EXPECT_EQ(host->rom(memBegin(2049)), 0);
    EXPECT_EQ(host->rom(memData({burner.begin(), burner.begin() + 2048}, 0)), 0);
    EXPECT_EQ(host->rom(memData({burner.back()}, 1)), 0);
    EXPECT_EQ(device->stage(), UsbStage::RomLoader);
    EXPECT_EQ(host->rom(memEnd()), 0);
    EXPECT_EQ(device->stage(), UsbStage::Burner);
    EXPECT_EQ(device->downloadedBurner(), burner);
    reopen(true);

    const ByteVector image = pattern(5000, 7);
    EXPECT_EQ(host->command({0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "0/4");
    EXPECT_EQ(host->command(crcRecord(crc64(0, image))), "0/6");
    EXPECT_EQ(host->command({8, 0, 0, 2, 0, 0, 0x10, 0, 0x88, 0x13, 0, 0, 0, 0, 0, 0}), "2/1");
    EXPECT_EQ(host->chunk({image.begin(), image.begin() + 4096}), "2/1");
    EXPECT_EQ(host->chunk({image.begin() + 4096, image.end()}), "2/1");
    EXPECT_EQ(host->command({0, 0, 0, 0x0A, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "0/1");

    EXPECT_TRUE(device->flash().holds(0x100000, image));
    EXPECT_FALSE(device->flash().holds(0x100001, image));
    EXPECT_THAT(device->flash().writtenRanges(), ElementsAre(Flash::Range{0x100000, 5000}));
    EXPECT_EQ(device->count(FaultPoint::MemData), 2U);
    EXPECT_EQ(device->count(FaultPoint::Chunk), 2U);
    EXPECT_EQ(device->unreadBytes(kCommandIn), 0U);
    const std::vector<UsbTransfer> transfers = device->transfers();
    ASSERT_EQ(transfers.size(), 8U + 12U);
    EXPECT_EQ(transfers[0].endpoint, kDataOut);
    EXPECT_EQ(transfers[0].bytes, memBegin(2049));
    EXPECT_EQ(transfers[19].endpoint, kCommandIn);
    EXPECT_EQ(transfers[19].bytes.size(), 16U);
    EXPECT_THAT(device->errors(), IsEmpty());
}

// What one breach looks like: what is right before it, and the message that is wrong.
struct Breach {
    std::vector<ByteVector> before;
    std::uint8_t endpoint;
    ByteVector message;
    const char* told;
};

ByteVector changed(ByteVector bytes, std::size_t offset, std::uint8_t value) {
    bytes.at(offset) = value;
    return bytes;
}

ByteVector longer(ByteVector bytes) {
    bytes.push_back(0);
    return bytes;
}

TEST_F(UsbDevice, RecordsEachFaultInAMessageToTheRomLoader) {
    const ByteVector begin = memBegin(2049);
    const ByteVector full = memData(pattern(2048), 0);
    const ByteVector last = memData(pattern(1), 1);
    const std::vector<Breach> breaches = {
        {{}, kDataOut, changed(begin, 0, 1), "MEM_BEGIN has byte 0 set"},
        {{}, kDataOut, longer(begin), "MEM_BEGIN has a wrong size"},
        {{}, kDataOut, changed(begin, 2, 17), "MEM_BEGIN has a wrong length field"},
        {{}, kDataOut, changed(begin, 4, 1), "MEM_BEGIN has a checksum"},
        {{}, kDataOut, memBegin(0), "MEM_BEGIN has a total length of 0"},
        {{}, kDataOut, changed(begin, 12, 1), "MEM_BEGIN has a wrong number of blocks"},
        {{}, kDataOut, changed(begin, 17, 4), "MEM_BEGIN has a wrong block size"},
        {{}, kDataOut, changed(begin, 23, 1), "MEM_BEGIN has its reserved bytes set"},
        {{begin}, kDataOut, memBegin(2050), "MEM_BEGIN during a download"},
        {{begin}, kDataOut, begin, "a message again that was answered with 0"},
        {{}, kDataOut, full, "MEM_DATA outside a download"},
        {{begin}, kDataOut, longer(full), "MEM_DATA has a wrong size"},
        {{begin}, kDataOut, changed(full, 2, 0), "MEM_DATA has a wrong length field"},
        {{begin}, kDataOut, memData(pattern(2047), 0), "MEM_DATA has a wrong payload length"},
        {{begin}, kDataOut, memData(pattern(2048), 1), "MEM_DATA has a wrong sequence number"},
        {{begin}, kDataOut, changed(full, 23, 1), "MEM_DATA has its reserved bytes set"},
        {{begin}, kDataOut, changed(full, 5, 1), "MEM_DATA has a wrong checksum"},
        {{begin, full}, kDataOut, memEnd(), "MEM_END before the whole image"},
        {{begin, full, last}, kDataOut, longer(memEnd()), "MEM_END has a wrong size"},
        {{begin, full, last}, kDataOut, changed(memEnd(), 7, 1), "MEM_END has a checksum"},
        {{begin, full, last},
         kDataOut,
         changed(memEnd(), 15, 1),
         "MEM_END has its reserved bytes set"},
        {{}, kDataOut, {0, 5, 0}, "a message of 3 bytes"},
        {{}, kDataOut, changed(begin, 1, 4), "unknown command 4"},
        {{}, kCommandOut, record(kSync, 0), "a command record in the ROM stage"},
    };
    for (const Breach& breach : breaches) {
        start();
        for (const ByteVector& message : breach.before)
            ASSERT_EQ(host->rom(message), 0) << breach.told;
        ASSERT_THAT(device->errors(), IsEmpty());
        host->send(breach.endpoint, breach.message);
        EXPECT_THAT(device->errors(), ElementsAre(HasSubstr(breach.told)));
        if (breach.endpoint == kDataOut) {
            EXPECT_NE(host->receive(kCommandIn, 10).at(8), 0) << breach.told;
        }
    }
}

TEST_F(UsbDevice, RecordsEachFaultInACommandRecord) {
    const ByteVector crc = crcRecord(1);
    const ByteVector write = record(kFlashWrite, 8, 0, 10);
    const ByteVector result = record(kGetResult, 0);
    const std::vector<Breach> breaches = {
        {{}, kCommandOut, longer(record(kSync, 0)), "a command record of 17 bytes"},
        {{}, kCommandOut, record(0, 0), "a command code that is never sent"},
        {{}, kCommandOut, record(8, 0), "a command code that is never sent"},
        {{}, kCommandOut, record(kSync, 8), "SYNC has unknown flags"},
        {{}, kCommandOut, record(kSync, 0, 1), "SYNC has an address or size"},
        {{}, kCommandOut, changed(record(kSync, 0), 15, 1), "SYNC has its reserved bytes set"},
        {{}, kCommandOut, changed(crc, 12, 1), "SET_CRC64 has its reserved bytes set"},
        {{}, kCommandOut, changed(crc, 1, 1), "SET_CRC64 has unknown flags"},
        {{crc}, kCommandOut, record(kFlashWrite, 9, 0, 1), "FLASH_WRITE has unknown flags"},
        {{crc}, kCommandOut, changed(write, 13, 1), "FLASH_WRITE has its reserved bytes set"},
        {{}, kCommandOut, write, "a command that needs SET_CRC64 before it"},
        {{crc, write}, kCommandOut, crc, "SET_CRC64 while a command runs"},
        {{crc, write}, kCommandOut, record(kEraseOnly, 8, 0, 1), "a command while another runs"},
        {{}, kCommandOut, result, "GET_RESULT without a command"},
        {{}, kCommandOut, record(kGetResult, 8), "GET_RESULT has unknown flags"},
        {{crc, write}, kCommandOut, result, "GET_RESULT in the data phase"},
        {{record(kEraseOnly, 8, 0, 1), result}, kCommandOut, result, "again after the result"},
        {{}, kDataOut, {1}, "data outside the data phase"},
        {{crc, write}, kDataOut, pattern(9), "a chunk of a wrong size"},
        {{crc, record(kFlashWrite, 8, 0, 5000)}, kDataOut, pattern(2048), "a wrong size"},
    };
    for (const Breach& breach : breaches) {
        startBurner();
        for (const ByteVector& message : breach.before)
            host->command(message);
        ASSERT_THAT(device->errors(), IsEmpty()) << breach.told;
        host->send(breach.endpoint, breach.message);
        EXPECT_THAT(device->errors(), ElementsAre(HasSubstr(breach.told)));
    }
}

TEST_F(UsbDevice, RecordsWhatComesOutOfTurn) {
    start();
    device->addFault({FaultPoint::MemData, Fault::romStatus(0xF0)});
    host->send(kDataOut, memBegin(3000));
    host->send(kDataOut, memBegin(3000));  // an attempt again, as no answer was read
    EXPECT_THAT(device->errors(), IsEmpty());
    host->send(kDataOut, memData(pattern(2048), 0));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("before the last one was answered")));
    host->receive(kCommandIn, 10);
    host->receive(kCommandIn, 10);
    EXPECT_EQ(host->receive(kCommandIn, 10).at(8), 0xF0);
    host->send(kDataOut, memData(pattern(2048), 0));
    EXPECT_THAT(device->errors(), ElementsAre(testing::_, HasSubstr("after a fatal status")));

    startBurner();
    host->send(kCommandOut, record(kSync, 0));
    host->send(kCommandOut, record(kSync, 0));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("a command before the last answer")));

    startBurner();
    host->command(record(kFlashWrite, 0, 0, 5000));
    host->send(kDataOut, pattern(4096));
    host->send(kDataOut, pattern(904));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("a chunk before the last answer")));

    startBurner();
    host->send(kCommandOut, record(kSync, 0));
    host->receive(kCommandIn, 10);
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("was read with a length of 10")));
}

TEST_F(UsbDevice, RecordsACrcThatIsNotThatOfTheData) {
    startBurner();
    const ByteVector data = pattern(10);
    host->command(crcRecord(crc64(0, data) ^ 1));
    host->command(record(kFlashWrite, 8, 0, 10));
    EXPECT_EQ(host->chunk(data), "2/1");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "1/1");
    EXPECT_EQ(host->description(), "crc64 mismatch");
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("the CRC-64 is not that of the data")));
}

TEST_F(UsbDevice, FaultsStrikeWhereAndAsOftenAsTheirRuleSays) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::response(kRetry), 1, 2});
    device->addFault({FaultPoint::Sync, Fault::response(9), 0, 1});
    device->addFault({FaultPoint::GetResult, Fault::response(kReady), 0, FaultRule::kAlways});
    std::vector<std::string> answers(5);
    for (std::string& answer : answers)
        answer = host->command(record(kSync, 0));
    // The second rule takes the first message, since the first one lets it pass.
    EXPECT_THAT(answers, ElementsAre("9/4", "4/4", "4/4", "0/4", "0/4"));
    EXPECT_EQ(device->count(FaultPoint::Sync), 5U);

    host->command(record(kEraseOnly, 8, 0, 1));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(host->command(record(kGetResult, 0)), "2/3");
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbDevice, FaultsOfATransferShowThereAndNothingIsProgrammed) {
    startBurner();
    host->command(record(kFlashWrite, 0, 0x40, 10));
    const std::pair<Fault, std::optional<std::uint32_t>> faults[] = {
        {Fault::shortWrite(4), 4},
        {Fault::swallow(), 10},
        {Fault::refuseWrite(3), std::nullopt},
        {Fault::unplug(4), std::nullopt}};
    for (const auto& [fault, moved] : faults) {
        device->addFault({FaultPoint::Chunk, fault});
        EXPECT_EQ(host->send(kDataOut, pattern(10)), moved);
    }
    EXPECT_FALSE(bus.isPlugged(kPort));
    EXPECT_THAT(device->flash().writtenRanges(), IsEmpty());
    EXPECT_THAT(device->errors(), IsEmpty());
}

// The bus's own rules, which a real library would not survive the breach of.
class UsbBus : public UsbTest {
  protected:
    libusbk::Monitor* watch(libusbk::HotPlugCallback callback) {
        libusbk::MonitorParameters parameters{};
        parameters.callback = callback;
        libusbk::Monitor* monitor = nullptr;
        EXPECT_TRUE(usb.HotK_Init(&monitor, &parameters));
        return monitor;
    }
    bool read(std::uint8_t endpoint, libusbk::OverlappedSlot* slot) {
        return usb.UsbK_ReadPipe(host->handle, endpoint, buffer.data(), 16, &count, slot);
    }

    const LibusbkTable& usb = libusbkTable();
    std::array<std::uint8_t, 16> buffer{};
    std::uint32_t count = 0;
};

TEST_F(UsbBus, RecordsAMonitorThatIsEndedWithinItsOwnCallback) {
    static std::atomic<bool> called;
    libusbk::Monitor* const monitor =
        watch([](libusbk::Monitor* own, const libusbk::DeviceEntry*, std::int32_t) {
            EXPECT_FALSE(libusbkTable().HotK_Free(own));
            called = true;
            called.notify_all();
        });
    start();
    called.wait(false);
    EXPECT_TRUE(usb.HotK_Free(monitor));
    expectedMisuse = {"HotK_Free: called within the monitor's own callback"};
}

TEST_F(UsbBus, RecordsTheMisuseOfTheInterface) {
    startBurner();
    EXPECT_FALSE(usb.UsbK_ClaimInterface(host->handle, 0, false));
    reopen(false);
    EXPECT_EQ(host->command(record(kSync, 0)), "0/4");
    expectedMisuse = {
        "UsbK_ClaimInterface: the handle has claimed the interface already",
        "a transfer with the burner image without a claim of the interface",
    };
}

TEST_F(UsbBus, RecordsTheMisuseOfSlots) {
    startBurner();
    const auto readAgain = [&] { return read(kCommandIn, host->inSlot); };
    EXPECT_FALSE(usb.OvlK_WaitOrCancel(host->inSlot, 0, &count));
    readAgain();
    EXPECT_FALSE(usb.OvlK_ReUse(host->inSlot));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kBusy);
    EXPECT_FALSE(readAgain());
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kInvalidParameter);
    usb.OvlK_WaitOrCancel(host->inSlot, 0, &count);
    EXPECT_FALSE(readAgain());  // no ReUse in between

    auto other = std::make_unique<WireHost>(deviceId, false);
    EXPECT_FALSE(read(kCommandIn, other->inSlot));
    other.reset();
    usb.OvlK_ReUse(host->outSlot);
    read(kDataIn, host->outSlot);
    EXPECT_TRUE(usb.OvlK_Release(host->outSlot));
    EXPECT_FALSE(usb.OvlK_Release(host->outSlot));
    EXPECT_TRUE(usb.OvlK_Acquire(&host->outSlot, host->pool));
    EXPECT_FALSE(usb.OvlK_Release(nullptr));

    usb.OvlK_ReUse(host->inSlot);
    EXPECT_FALSE(read(kDataOut, host->inSlot));
    EXPECT_FALSE(usb.UsbK_WritePipe(host->handle, kDataOut, buffer.data(), 0, &count, nullptr));
    EXPECT_FALSE(usb.UsbK_FlushPipe(host->handle, 0x01));
    expectedMisuse = {
        "OvlK_WaitOrCancel: no transfer was started",
        "OvlK_ReUse: a transfer is under way",
        "UsbK_ReadPipe: the slot was not made ready again",
        "UsbK_ReadPipe: the slot was not made ready again",
        "UsbK_ReadPipe: the slot belongs to another handle",
        "OvlK_Release: a transfer is under way",
        "OvlK_Release: no slot that was acquired",
        "OvlK_Release: no slot that was acquired",
        "UsbK_ReadPipe: no such pipe in this direction, or no buffer",
        "UsbK_WritePipe: a transfer of no bytes",
        "UsbK_FlushPipe: no such pipe",
    };
}

TEST_F(UsbBus, RecordsWhatIsFreedTwiceTooEarlyOrNotAtAll) {
    start();
    WireHost& first = *host;
    read(kCommandIn, first.inSlot);
    read(kDataIn, first.outSlot);
    EXPECT_TRUE(usb.OvlK_Free(first.pool));
    EXPECT_TRUE(usb.OvlK_Init(&first.pool, first.handle, 2, 0));
    EXPECT_TRUE(usb.OvlK_Acquire(&first.inSlot, first.pool));
    EXPECT_TRUE(usb.OvlK_Acquire(&first.outSlot, first.pool));
    read(kCommandIn, first.inSlot);
    EXPECT_TRUE(usb.UsbK_Free(first.handle));
    EXPECT_FALSE(usb.OvlK_WaitOrCancel(first.inSlot, 0, &count));
    EXPECT_EQ(usb.LibK_LastError(), libusbk::kOperationAborted);
    // Pools may outlive their handle. The host frees the handle again, its pool properly.
    host.reset();

    libusbk::DeviceList* list = nullptr;
    libusbk::DeviceList* leaked = nullptr;
    const libusbk::DevicePattern pattern{};
    usb.LstK_InitEx(&list, 0, &pattern);
    usb.LstK_InitEx(&leaked, 0, &pattern);
    const libusbk::DeviceEntry* entry = nullptr;
    usb.LstK_FindByVidPid(leaked, 0x1234, 0x5678, &entry);
    libusbk::UsbHandle* handle = nullptr;
    libusbk::OverlappedPool* pool = nullptr;
    EXPECT_TRUE(usb.UsbK_Init(&handle, entry));
    EXPECT_TRUE(usb.OvlK_Init(&pool, handle, 1, 0));
    EXPECT_FALSE(usb.UsbK_ReleaseInterface(handle, 0, false));
    usb.LstK_Free(list);
    EXPECT_FALSE(usb.LstK_Free(list));
    EXPECT_FALSE(usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry));
    const auto ignore = [](libusbk::Monitor*, const libusbk::DeviceEntry*, std::int32_t) {};
    libusbk::Monitor* const monitor = watch(ignore);
    usb.HotK_Free(monitor);
    EXPECT_FALSE(usb.HotK_Free(monitor));
    watch(ignore);
    binding.reset();
    expectedMisuse = {
        "OvlK_Free: a transfer is under way",
        "OvlK_Free: a transfer is under way",
        "UsbK_Free: a transfer is under way",
        "UsbK_Free: no open handle",
        "UsbK_ReleaseInterface: the interface was not claimed",
        "LstK_Free: no such list",
        "LstK_FindByVidPid: no such list",
        "HotK_Free: no such monitor",
        "LibK_Shutdown: a monitor was not freed",
        "LibK_Shutdown: a device list was not freed",
        "LibK_Shutdown: a handle was not freed",
        "LibK_Shutdown: a pool was not freed",
    };
}

}  // namespace
}  // namespace simulator
