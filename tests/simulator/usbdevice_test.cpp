#include "simulator/virtualusbdevice.h"

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

}  // namespace
}  // namespace simulator
