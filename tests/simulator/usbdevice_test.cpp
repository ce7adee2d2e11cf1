#include "simulator/virtualusbdevice.h"

#include <thread>

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
        {{begin, full}, kDataOut, memData(pattern(2), 1), "MEM_DATA has a wrong payload length"},
        {{begin}, kDataOut, memData(pattern(2048), 1), "MEM_DATA has a wrong sequence number"},
        {{begin, full}, kDataOut, memData(pattern(1), 0), "MEM_DATA has a wrong sequence number"},
        {{begin}, kDataOut, changed(full, 23, 1), "MEM_DATA has its reserved bytes set"},
        {{begin}, kDataOut, changed(full, 5, 1), "MEM_DATA has a wrong checksum"},
        {{begin}, kDataOut, changed(full, 24, 99), "MEM_DATA has a wrong checksum"},
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
        host.reset();
        start();
        for (const ByteVector& message : breach.before)
            ASSERT_EQ(host->rom(message), 0) << breach.told;
        ASSERT_THAT(device->errors(), IsEmpty());
        host->send(breach.endpoint, breach.message);
        EXPECT_THAT(device->errors(), ElementsAre(HasSubstr(breach.told)));
        if (breach.endpoint == kDataOut) {
            EXPECT_NE(host->receive(kCommandIn, 10).bytes.at(8), 0) << breach.told;
        }
    }
}

TEST_F(UsbDevice, KnowsWhenARomMessageMayComeAgain) {
    start();
    host->send(kDataOut, memBegin(2));  // its answer is not read
    EXPECT_EQ(host->rom(memBegin(2)), 0);
    EXPECT_EQ(host->receive(kCommandIn, 10).count, 10U);  // that of the second
    device->addFault({FaultPoint::MemData, Fault::romStatus(5)});
    EXPECT_EQ(host->rom(memData({1, 2}, 0)), 5);
    EXPECT_EQ(host->rom(memData({1, 2}, 0)), 0);
    EXPECT_THAT(device->errors(), IsEmpty());
    EXPECT_EQ(device->downloadedBurner(), (ByteVector{1, 2}));

    host->send(kDataOut, memEnd());
    host->send(kDataOut, changed(memEnd(), 15, 0));
    EXPECT_THAT(device->errors(), IsEmpty());

    // Another message cannot take the place of one without its answer, nor follow a fatal status.
    host.reset();
    start();
    device->addFault({FaultPoint::MemData, Fault::romStatus(0xF0)});
    host->send(kDataOut, memBegin(3000));
    host->send(kDataOut, memData(pattern(2048), 0));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("before the last one was answered")));
    host->receive(kCommandIn, 10);
    EXPECT_EQ(host->receive(kCommandIn, 10).bytes.at(8), 0xF0);
    host->send(kDataOut, memData(pattern(2048), 0));
    EXPECT_THAT(device->errors(), ElementsAre(testing::_, HasSubstr("after a fatal status")));
}

TEST_F(UsbDevice, BeginsADownloadAnewForAHostThatOpensAnew) {
    start();
    EXPECT_EQ(host->rom(memBegin(4000)), 0);
    EXPECT_EQ(host->rom(memData(pattern(2048), 0)), 0);
    reopen(false);
    EXPECT_EQ(host->rom(memBegin(2)), 0);
    EXPECT_EQ(host->rom(memData({8, 9}, 0)), 0);
    EXPECT_EQ(host->rom(memEnd()), 0);
    EXPECT_EQ(device->stage(), UsbStage::Burner);
    EXPECT_EQ(device->downloadedBurner(), (ByteVector{8, 9}));
    // The burner does not know the message, and the host could not know that the burner runs.
    reopen(false);
    for (int i = 0; i < 2; ++i) {
        host->send(kDataOut, memBegin(2));
        EXPECT_EQ(host->receive(kCommandIn, 10, 1).code, libusbk::kCancelled);
    }
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbDevice, RecordsEachFaultInACommandRecord) {
    const ByteVector crc = crcRecord(1);
    const ByteVector write = record(kFlashWrite, 8, 0, 10);
    const ByteVector result = record(kGetResult, 0);
    const std::vector<Breach> breaches = {
        {{}, kCommandOut, longer(record(kSync, 0)), "a command record of 17 bytes"},
        {{}, kCommandOut, record(0, 0), "a command code that is never sent"},
        {{}, kCommandOut, record(7, 0), "a command code that is never sent"},
        {{}, kCommandOut, record(8, 0), "a command code that is never sent"},
        {{}, kCommandOut, record(kSync, 8), "SYNC has unknown flags"},
        {{}, kCommandOut, record(kSync, 0, 1), "SYNC has an address or size"},
        {{}, kCommandOut, changed(record(kSync, 0), 15, 1), "SYNC has its reserved bytes set"},
        {{}, kCommandOut, changed(crc, 12, 1), "SET_CRC64 has its reserved bytes set"},
        {{}, kCommandOut, changed(crc, 1, 1), "SET_CRC64 has unknown flags"},
        {{crc}, kCommandOut, record(kFlashWrite, 9, 0, 1), "FLASH_WRITE has unknown flags"},
        {{crc}, kCommandOut, changed(write, 3, 3), "FLASH_WRITE has unknown flags"},
        {{crc}, kCommandOut, changed(write, 13, 1), "FLASH_WRITE has its reserved bytes set"},
        {{}, kCommandOut, write, "a command that needs SET_CRC64 before it"},
        {{}, kCommandOut, record(kVerifyOnly, 0, 0, 1), "needs SET_CRC64 before it"},
        {{crc, write}, kCommandOut, crc, "SET_CRC64 while a command runs"},
        {{crc, write}, kCommandOut, record(kEraseOnly, 8, 0, 1), "a command while another runs"},
        {{crc, write}, kCommandOut, write, "a command while another runs"},
        {{}, kCommandOut, result, "GET_RESULT without a command"},
        {{}, kCommandOut, record(kGetResult, 8), "GET_RESULT has unknown flags"},
        {{crc, write}, kCommandOut, result, "GET_RESULT in the data phase"},
        {{record(kEraseOnly, 8, 0, 1), result}, kCommandOut, result, "again after the result"},
        {{}, kDataOut, {1}, "data outside the data phase"},
        {{crc, write}, kDataOut, pattern(9), "a chunk of a wrong size"},
        {{crc, write}, kDataOut, pattern(11), "a chunk of a wrong size"},
        {{crc, record(kFlashWrite, 8, 0, 5000)}, kDataOut, pattern(2048), "a wrong size"},
    };
    for (const Breach& breach : breaches) {
        host.reset();
        startBurner();
        for (const ByteVector& message : breach.before)
            host->command(message);
        ASSERT_THAT(device->errors(), IsEmpty()) << breach.told;
        host->send(breach.endpoint, breach.message);
        EXPECT_THAT(device->errors(), ElementsAre(HasSubstr(breach.told)));
    }
}

TEST_F(UsbDevice, ChecksTheOrderOfCommandsChunksAndAnswers) {
    startBurner();
    host->send(kCommandOut, record(kSync, 0));
    host->send(kCommandOut, record(kSync, 0));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("a command before the last answer")));

    host.reset();
    startBurner();
    host->command(record(kFlashWrite, 0, 0, 5000));
    host->send(kDataOut, pattern(4096));
    host->send(kDataOut, pattern(904));
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("a chunk before the last answer")));

    host.reset();
    startBurner();
    host->command(record(kSync, 0));
    host->send(kCommandOut, record(kSync, 0));
    host->receive(kCommandIn, 10);
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("was read with a length of 10")));
}

TEST_F(UsbDevice, ChecksTheDataAgainstTheCrcThatTheHostHasSet) {
    startBurner();
    const ByteVector data = pattern(10);
    EXPECT_EQ(host->command(crcRecord(crc64(0, data) ^ 1)), "0/6");
    EXPECT_EQ(host->command(record(kFlashWrite, 8, 0, 10)), "2/1");
    EXPECT_EQ(host->chunk(data), "2/1");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "1/1");
    EXPECT_EQ(host->description(), "crc64 mismatch");
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("the CRC-64 is not that of the data")));
}

TEST_F(UsbDevice, WritesWithoutFlagSmallAndEmptyImagesAndTellsAddressesOutOfRange) {
    startBurner();
    // Without the flag there is no CRC; 4097 bytes are two chunks, 0 bytes are none.
    const ByteVector data = pattern(4097);
    EXPECT_EQ(host->command(record(kFlashWrite, 0, 0x10, 4097)), "2/1");
    EXPECT_EQ(host->chunk({data.begin(), data.end() - 1}), "2/1");
    EXPECT_EQ(host->command(record(kSync, 0)), "0/4");  // disturbs nothing
    EXPECT_EQ(host->chunk({data.back()}), "2/1");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "0/1");
    EXPECT_TRUE(device->flash().holds(0x10, data));

    EXPECT_EQ(host->command(crcRecord(0)), "0/6");
    EXPECT_EQ(host->command(record(kFlashWrite, 8, 0x20, 0)), "2/1");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "0/1");
    EXPECT_TRUE(device->flash().holds(0x10, data));

    EXPECT_EQ(host->command(record(kFlashWrite, 0, UINT32_MAX, 2)), "1/1");
    EXPECT_EQ(host->description(), "address out of range");
    EXPECT_EQ(host->command(record(kFlashWrite, 0, UINT32_MAX, 1)), "2/1");
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbDevice, VerifiesAndErases) {
    startBurner();
    const ByteVector data = pattern(100);
    host->command(record(kFlashWrite, 0, 0x1000, 100));
    host->chunk(data);
    EXPECT_EQ(host->command(record(kGetResult, 0)), "0/1");

    EXPECT_EQ(host->command(crcRecord(crc64(0, data))), "0/6");
    EXPECT_EQ(host->command(record(kVerifyOnly, 8, 0x1000, 100)), "3/2");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "0/2");
    EXPECT_EQ(host->command(record(kEraseOnly, 8, 0x1000, 1)), "3/3");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "0/3");
    EXPECT_EQ(device->flash().read(0x1000, 2), (ByteVector{0xFF, data[1]}));
    EXPECT_EQ(host->command(crcRecord(crc64(0, data))), "0/6");
    EXPECT_EQ(host->command(record(kVerifyOnly, 8, 0x1000, 100)), "3/2");
    EXPECT_EQ(host->command(record(kGetResult, 0)), "1/2");
    EXPECT_EQ(host->description(), "crc64 mismatch");
    EXPECT_THAT(device->errors(), IsEmpty());

    host.reset();
    UsbDeviceOptions options;
    options.answersVerifyAndErase = false;
    startBurner(options);
    EXPECT_EQ(host->command(record(kEraseOnly, 8, 0, 1)), "1/3");
    EXPECT_EQ(host->description(), "not supported");
}

TEST_F(UsbDevice, TakesItsTime) {
    using std::chrono::milliseconds;
    UsbDeviceOptions options;
    options.romStartUp = milliseconds(30);
    options.handOver = milliseconds(30);
    options.eraseTime = milliseconds(30);
    options.chunkTime = milliseconds(30);
    options.resultTime = milliseconds(50);
    const auto beganAt = Clock::now();
    start(options);
    EXPECT_EQ(host->rom(memBegin(1)), 0);
    EXPECT_GE(Clock::now() - beganAt, milliseconds(30));
    EXPECT_EQ(host->rom(memData({1}, 0)), 0);
    EXPECT_EQ(host->rom(memEnd()), 0);
    const auto endedAt = Clock::now();
    reopen(true);
    EXPECT_EQ(host->command(record(kSync, 0)), "0/4");
    EXPECT_GE(Clock::now() - endedAt, milliseconds(25));

    const auto writtenAt = Clock::now();
    EXPECT_EQ(host->command(record(kFlashWrite, 0, 0, 1)), "2/1");
    EXPECT_GE(Clock::now() - writtenAt, milliseconds(30));
    host->send(kDataOut, {1});
    EXPECT_EQ(host->response(kDataIn, 1), "");
    EXPECT_EQ(host->last.code, libusbk::kCancelled);
    EXPECT_EQ(host->command(record(kSync, 0)), "0/4");  // is answered meanwhile
    EXPECT_EQ(host->response(kDataIn), "2/1");
    EXPECT_GE(Clock::now() - writtenAt, milliseconds(60));
    EXPECT_EQ(host->command(record(kGetResult, 0)), "3/1");
    while (host->command(record(kGetResult, 0)) == "3/1")
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_EQ(host->last.bytes[3] >> 1, kSuccess);
    EXPECT_GE(Clock::now() - writtenAt, milliseconds(110));
    EXPECT_THAT(device->errors(), IsEmpty());
}

}  // namespace
}  // namespace simulator
