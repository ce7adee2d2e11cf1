#include "simulator/fault.h"

#include <chrono>
#include <functional>
#include <optional>

#include "simulator/crc64.h"
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
        host.reset();
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

TEST_F(UsbFault, ShapesTheAnswer) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::silence()});
    host->send(kCommandOut, sync);
    EXPECT_EQ(host->receive(kCommandIn, 16, 1).code, libusbk::kCancelled);

    device->addFault({FaultPoint::Sync, Fault::shortAnswer(7)});
    device->addFault({FaultPoint::Sync, Fault::shortAnswer(0)});
    for (const std::uint32_t size : {7U, 0U}) {
        host->send(kCommandOut, sync);
        const Moved answer = host->receive(kCommandIn, 16);
        EXPECT_EQ(answer.code, libusbk::kNoError);
        EXPECT_EQ(answer.count, size);
    }

    device->addFault({FaultPoint::Sync, Fault::wrongCmdorg(2)});
    EXPECT_EQ(host->command(sync), "0/2");
    device->addFault({FaultPoint::Sync, Fault::response(kSuccess, 0)});
    EXPECT_EQ(host->command(sync), "0/0");

    device->addFault({FaultPoint::Sync, Fault::stallAnswer()});
    host->send(kCommandOut, sync);
    EXPECT_EQ(host->receive(kCommandIn, 16).code, libusbk::kGeneralFailure);
    EXPECT_EQ(device->unreadBytes(kCommandIn), 0U);
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbFault, AStalledEndpointStaysHaltedUntilItIsReset) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::stall()});
    EXPECT_EQ(host->send(kCommandOut, sync).code, libusbk::kGeneralFailure);
    EXPECT_TRUE(host->usb.UsbK_FlushPipe(host->handle, kCommandOut));
    EXPECT_TRUE(host->usb.UsbK_ResetPipe(host->handle, kCommandIn));
    reopen(true);
    EXPECT_EQ(host->send(kCommandOut, sync).code, libusbk::kGeneralFailure);
    EXPECT_EQ(device->count(FaultPoint::Sync), 1U);  // the later message got nowhere
    EXPECT_TRUE(host->usb.UsbK_ResetPipe(host->handle, kCommandOut));
    EXPECT_EQ(host->command(sync), "0/4");

    // What answers a message while its endpoint is halted waits there.
    device->addFault({FaultPoint::Sync, Fault::stallAnswer()});
    host->send(kCommandOut, sync);
    EXPECT_EQ(host->receive(kCommandIn, 16).code, libusbk::kGeneralFailure);
    host->send(kCommandOut, sync);
    EXPECT_EQ(host->receive(kCommandIn, 16).code, libusbk::kGeneralFailure);
    EXPECT_FALSE(host->usb.UsbK_FlushPipe(host->handle, kCommandIn));
    EXPECT_EQ(host->usb.LibK_LastError(), libusbk::kGeneralFailure);
    EXPECT_TRUE(host->usb.UsbK_ResetPipe(host->handle, kCommandIn));
    EXPECT_EQ(host->response(kCommandIn), "0/4");
    EXPECT_THAT(device->resets(), ElementsAre(kCommandIn, kCommandOut, kCommandIn));

    // A device that was plugged in again is as good as new.
    device->addFault({FaultPoint::Sync, Fault::stall()});
    host->send(kCommandOut, sync);
    bus.plug(kPort, device);
    reopen(true);
    EXPECT_EQ(host->command(sync), "0/4");
    EXPECT_THAT(device->resets(), IsEmpty());
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbFault, DelaysCutsAndCrowdsTheAnswer) {
    startBurner();
    device->addFault({FaultPoint::Sync, Fault::lateAnswer(milliseconds(30))});
    const auto sentAt = Clock::now();
    host->send(kCommandOut, sync);
    EXPECT_EQ(host->response(kCommandIn, 1), "");
    host->send(kCommandOut, sync);  // the host has given the first up
    EXPECT_EQ(host->response(kCommandIn), "0/4");
    EXPECT_GE(Clock::now() - sentAt, milliseconds(30));
    EXPECT_EQ(device->unreadBytes(kCommandIn), 16U);
    EXPECT_TRUE(host->usb.UsbK_FlushPipe(host->handle, kCommandIn));
    EXPECT_EQ(device->unreadBytes(kCommandIn), 0U);

    device->addFault({FaultPoint::Sync, Fault::noise("??")});
    EXPECT_EQ(host->command(sync), "");
    EXPECT_EQ(host->last.bytes, (ByteVector{'?', '?'}));
    EXPECT_EQ(host->response(kCommandIn), "0/4");

    // Eight bytes come, and the wait for the others runs out of time.
    device->addFault({FaultPoint::Sync, Fault::cutAnswer(8, milliseconds(60))});
    host->send(kCommandOut, sync);
    const Moved half = host->receive(kCommandIn, 16, 5);
    EXPECT_EQ(half.code, libusbk::kCancelled);
    EXPECT_EQ(half.count, 8U);
    const Moved rest = host->receive(kCommandIn, 8);
    EXPECT_EQ(rest.code, libusbk::kNoError);
    EXPECT_EQ(rest.count, 8U);
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(UsbFault, GivesDescriptionsOfAnyLengthTrueOrNot) {
    struct Case {
        std::string text;
        std::optional<std::uint8_t> length;
        std::uint32_t told;
        std::uint32_t comes;
    };
    const std::vector<Case> cases = {
        {"flash is worn out", {}, 17, 17},     {"", {}, 0, 0},
        {std::string(128, 'x'), {}, 128, 128}, {std::string(300, 'x'), {}, 255, 255},
        {"unread", std::uint8_t{0}, 0, 0},     {"too short", std::uint8_t{40}, 40, 9},
    };
    for (const Case& c : cases) {
        startWrite({FaultPoint::Chunk, Fault::error(c.text, c.length)});
        EXPECT_EQ(host->chunk(data), "1/1");
        EXPECT_EQ(host->last.bytes[5], c.told);
        EXPECT_EQ(device->unreadBytes(kCommandIn), c.comes);
        if (c.told > 0) {
            EXPECT_EQ(host->description(), c.text.substr(0, c.comes));
        }
        EXPECT_THAT(device->flash().writtenRanges(), IsEmpty());
        EXPECT_THAT(device->errors(), IsEmpty());
    }

    startWrite({FaultPoint::GetResult, Fault::error("no")});
    device->addFault({FaultPoint::Description, Fault::silence()});
    host->chunk(data);
    EXPECT_EQ(host->command(result), "1/1");
    EXPECT_EQ(host->receive(kCommandIn, 2, 1).code, libusbk::kCancelled);
    EXPECT_EQ(host->command(result), "1/1");  // the command has failed for good
}

TEST_F(UsbFault, SpoilsTheTransferOfAMessage) {
    startWrite({FaultPoint::Chunk, Fault::stall()});
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

TEST_F(UsbFault, CorruptsWhatIsProgrammedAndTheDeviceFindsIt) {
    startBurner();
    device->addFault({FaultPoint::Chunk, Fault::corrupt(3)});
    host->command(crcRecord(crc64(0, data)));
    host->command(record(kFlashWrite, 8, 0x40, 10));
    EXPECT_EQ(host->chunk(data), "2/1");
    ByteVector wrong = data;
    wrong[3] ^= 1;
    EXPECT_TRUE(device->flash().holds(0x40, wrong));
    EXPECT_EQ(host->command(result), "1/1");
    EXPECT_EQ(host->description(), "crc64 mismatch");
    EXPECT_THAT(device->errors(), IsEmpty());  // the host did no wrong
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

// A whole burn, small, that goes on until a transfer fails. Returns the code of that.
std::uint32_t burnUntilItFails(WireHost& rom, const std::function<WireHost*()>& openBurner) {
    const ByteVector data = pattern(20);
    struct Step {
        std::uint8_t out;
        ByteVector message;
        std::uint8_t in;
        std::uint32_t answer;
    };
    const auto run = [](WireHost& host, const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            const Moved sent = host.send(step.out, step.message);
            const Moved got = host.receive(step.in, step.answer);
            if (sent.code != libusbk::kNoError)
                return sent.code;
            if (got.code != libusbk::kNoError)
                return got.code;
        }
        return std::uint32_t{libusbk::kNoError};
    };
    const std::uint32_t code = run(rom, {{kDataOut, memBegin(3), kCommandIn, 10},
                                         {kDataOut, memData({1, 2, 3}, 0), kCommandIn, 10},
                                         {kDataOut, memEnd(), kCommandIn, 10}});
    if (code != libusbk::kNoError)
        return code;
    WireHost* const burner = openBurner();
    if (burner == nullptr)
        return libusbk::kDeviceNotConnected;
    return run(*burner, {{kCommandOut, record(kSync, 0), kCommandIn, 16},
                         {kCommandOut, crcRecord(crc64(0, data)), kCommandIn, 16},
                         {kCommandOut, record(kFlashWrite, 8, 0, 20), kCommandIn, 16},
                         {kDataOut, data, kDataIn, 16},
                         {kCommandOut, record(kGetResult, 0), kCommandIn, 16}});
}

TEST_F(UsbFault, UnplugsAtAnyByteOfAWholeBurn) {
    std::uint64_t total = 0;
    for (std::uint64_t at = 0; at == 0 || at <= total; ++at) {
        host.reset();
        start();
        // The first round runs through and counts.
        if (at > 0)
            device->unplugAtByte(at - 1);
        const std::uint32_t code = burnUntilItFails(*host, [&]() -> WireHost* {
            host.reset();
            if (!bus.isPlugged(kPort))
                return nullptr;
            host = std::make_unique<WireHost>(deviceId, true);
            return host.get();
        });
        if (at == 0) {
            total = device->traffic();
            EXPECT_GT(total, 200U);
            EXPECT_EQ(code, libusbk::kNoError);
            continue;
        }
        EXPECT_EQ(code, libusbk::kDeviceNotConnected) << at;
        EXPECT_EQ(device->traffic(), at - 1);
        EXPECT_FALSE(bus.isPlugged(kPort));
        EXPECT_THAT(device->errors(), IsEmpty());
    }
}

}  // namespace
}  // namespace simulator
