#include "simulator/fault.h"

#include <chrono>

#include "wirehost.h"

namespace simulator {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class UsbFault : public UsbTest {
  protected:
    // A burner image that takes a write of 10 bytes, with the fault to come.
    void startWrite(FaultRule rule) {
        startBurner();
        device->addFault(std::move(rule));
        ASSERT_EQ(host->command(record(kFlashWrite, 0, 0x40, 10)), "2/1");
    }

    const ByteVector sync = record(kSync, 0);
    const ByteVector result = record(kGetResult, 0);
    const ByteVector data = pattern(10);
};

TEST_F(UsbFault, StrikesWhereAndAsOftenAsTheRuleSays) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::response(kRetry), 1, 2});
    device->addFault({FaultPoint::Sync, Fault::response(9), 0, 1});
    device->addFault({FaultPoint::GetResult, Fault::response(kReady), 0, FaultRule::kAlways});
    std::vector<std::string> answers(5);
    for (std::string& answer : answers)
        answer = host->command(sync);
    // The second rule takes the first message, since the first one lets it pass.
    EXPECT_THAT(answers, ElementsAre("9/4", "4/4", "4/4", "0/4", "0/4"));
    EXPECT_EQ(device->count(FaultPoint::Sync), 5U);

    host->command(record(kEraseOnly, 8, 0, 1));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(host->command(result), "2/3");
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbFault, SpoilsTheAnswer) {
    const struct {
        Fault fault;
        std::uint32_t code;
        std::uint32_t count;
    } cases[] = {
        {Fault::silence(), libusbk::kCancelled, 0},
        {Fault::shortAnswer(7), libusbk::kNoError, 7},
        {Fault::shortAnswer(0), libusbk::kNoError, 0},
        {Fault::cutAnswer(8, milliseconds(60'000)), libusbk::kCancelled, 8},
        {Fault::lateAnswer(milliseconds(60'000)), libusbk::kCancelled, 0},
        {Fault::noise("??"), libusbk::kNoError, 2},
        {Fault::stallAnswer(), libusbk::kGeneralFailure, 0},
    };
    for (const auto& c : cases) {
        startBurner();
        device->addFault({FaultPoint::Sync, c.fault});
        host->send(kCommandOut, sync);
        const Moved answer = host->receive(kCommandIn, 16, 20);
        EXPECT_EQ(answer.code, c.code);
        EXPECT_EQ(answer.count, c.count);
        EXPECT_THAT(device->errors(), IsEmpty());
    }
    startWrite({FaultPoint::Chunk, Fault::error("too short", std::uint8_t{40})});
    EXPECT_EQ(host->chunk(data), "1/1");
    EXPECT_EQ(host->last.bytes[5], 40);
    EXPECT_EQ(host->description(), "too short");
}

TEST_F(UsbFault, SpoilsTheTransferOfAMessage) {
    startWrite({FaultPoint::Chunk, Fault::stall()});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(host->send(kDataOut, data).code, libusbk::kGeneralFailure);
    EXPECT_TRUE(host->usb.UsbK_ResetPipe(host->handle, kDataOut));
    device->addFault({FaultPoint::Chunk, Fault::shortWrite(4)});
    const Moved cut = host->send(kDataOut, data);
    EXPECT_EQ(cut.code, libusbk::kNoError);
    EXPECT_EQ(cut.count, 4U);
    device->addFault({FaultPoint::Chunk, Fault::refuseWrite(3)});
    const Moved refused = host->send(kDataOut, data, 1);
    EXPECT_EQ(refused.code, libusbk::kCancelled);
    EXPECT_EQ(refused.count, 3U);
    device->addFault({FaultPoint::Chunk, Fault::swallow()});
    EXPECT_EQ(host->send(kDataOut, data).code, libusbk::kNoError);
    EXPECT_EQ(host->receive(kDataIn, 16, 1).code, libusbk::kCancelled);
    // None of these has got to the burner image.
    EXPECT_THAT(device->flash().writtenRanges(), IsEmpty());
    EXPECT_EQ(host->chunk(data), "2/1");
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbFault, UnplugsInTheMiddleOfAMessageOrAnAnswer) {
    startWrite({FaultPoint::Chunk, Fault::unplug(4)});
    const Moved message = host->send(kDataOut, data);
    EXPECT_EQ(message.code, libusbk::kDeviceNotConnected);
    EXPECT_EQ(message.count, 4U);
    EXPECT_FALSE(bus.isPlugged(kPort));
    EXPECT_THAT(device->flash().writtenRanges(), IsEmpty());

    startWrite({FaultPoint::Chunk, Fault::unplugInAnswer(5)});
    EXPECT_EQ(host->send(kDataOut, data).code, libusbk::kNoError);
    const Moved answer = host->receive(kDataIn, 16);
    EXPECT_EQ(answer.code, libusbk::kDeviceNotConnected);
    EXPECT_EQ(answer.count, 5U);
    EXPECT_TRUE(device->flash().holds(0x40, data));
    EXPECT_FALSE(bus.isPlugged(kPort));
}

}  // namespace
}  // namespace simulator
