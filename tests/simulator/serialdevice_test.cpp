#include "simulator/virtualserialdevice.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "serialhost.h"
#include "support/temporarydirectory.h"

namespace simulator {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t kFast = 3000000;

class SerialDevice : public testing::Test {
  protected:
    void start(const SerialDeviceOptions& options = {}) {
        host.reset();
        device = std::make_unique<VirtualSerialDevice>(directory.path() / "ttyUSB0", options);
        device->plugIn();
        host = std::make_unique<SerialHost>(device->portPath());
    }
    void startInSync(SerialDeviceOptions options = {}) {
        options.start = SerialStart::ProxyInSync;
        start(options);
    }
    void downloadProxy(const ByteVector& image) {
        ASSERT_EQ(host->ask(syncRequest()), "ok");
        ASSERT_EQ(host->ask(begin(kUartRamBegin, static_cast<std::uint32_t>(image.size()), 0)),
                  "ok");
        sendBlocks(kUartRamData, image, kRamBlockSize);
        ASSERT_EQ(host->ask(words(kUartRamEnd, {0, 0})), "ok");
    }
    void burn(const ByteVector& image, std::uint32_t offset) {
        const auto size = static_cast<std::uint32_t>(image.size());
        ASSERT_EQ(host->ask(begin(kUartFlashBegin, size, offset)), "ok");
        sendBlocks(kUartFlashData, image, kFlashBlockSize);
        ASSERT_EQ(host->ask(words(kUartMd5, {kFlashWindow + offset, size, 0, 0})), "ok");
        ASSERT_EQ(host->ask(words(kUartFlashEnd, {2})), "ok");
    }
    void sendBlocks(std::uint8_t command, const ByteVector& image, std::size_t unit) {
        for (std::size_t at = 0; at < image.size(); at += unit) {
            const std::size_t end = std::min(at + unit, image.size());
            const ByteVector piece(image.begin() + static_cast<std::ptrdiff_t>(at),
                                   image.begin() + static_cast<std::ptrdiff_t>(end));
            ASSERT_EQ(host->ask(block(command, static_cast<std::uint32_t>(at / unit), piece)),
                      "ok");
        }
    }

    TemporaryDirectory directory;
    std::atomic<int> departures = 0;
    std::unique_ptr<VirtualSerialDevice> device;
    std::unique_ptr<SerialHost> host;
};

TEST_F(SerialDevice, TakesAWholeRun) {
    start({.romStartUp = milliseconds(200), .proxyStartUp = milliseconds(200)});
    const ByteVector proxy = pattern(5000);
    const ByteVector image = pattern(10000);
    const ByteVector number = {'a', 'b', 'c'};
    EXPECT_EQ(host->ask(syncRequest(), 250), "silent");  // the ROM loader starts late
    downloadProxy(proxy);
    EXPECT_EQ(device->downloadedProxy(), proxy);

    EXPECT_EQ(host->ask(syncRequest(), 0), "silent");  // and so does the proxy
    while (device->stage() != SerialStage::Proxy)
        std::this_thread::yield();
    ASSERT_EQ(host->ask(syncRequest()), "ok");
    ASSERT_EQ(host->ask(words(kUartChangeBaudrate, {kFast, kFirstRate})), "ok");
    host->set(kFast, 0);
    burn(image, 0x10000);
    burn(number, 0x7FFFFD);

    EXPECT_EQ(device->rate(), kFast);
    EXPECT_TRUE(device->flash().holds(0x10000, image));
    EXPECT_TRUE(device->flash().holds(0x7FFFFD, number));
    EXPECT_THAT(device->flash().writtenRanges(),
                ElementsAre(Flash::Range{0x10000, 10000}, Flash::Range{0x7FFFFD, 3}));
    EXPECT_EQ(device->count(SerialFaultPoint::FlashData), 4U);
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(SerialDevice, AnswersInFramesAndKnowsTheDigest) {
    start();
    host->write("\xC0" + std::string("\0\x08\x24\0\0\0\0\0\x07\x07\x12\x20", 12) +
                std::string(32, '\x55') + "\xC0");
    EXPECT_THAT(host->readRaw(2000),
                ElementsAre(0xC0, 1, 8, 2, 0, 0xA5, 0xDB, 0xDC, 0xDB, 0xDD, 0x5A, 0, 0, 0xC0));

    startInSync();
    burn({'a', 'b', 'c'}, 0);
    host->ask(words(kUartMd5, {kFlashWindow, 3, 0, 0}));
    EXPECT_EQ(ByteVector(host->last.begin() + 10, host->last.end()),
              (ByteVector{0x90, 0x01, 0x50, 0x98, 0x3C, 0xD2, 0x4F, 0xB0, 0xD6, 0x96, 0x3F, 0x7D,
                          0x28, 0xE1, 0x7F, 0x72}));
    EXPECT_THAT(device->errors(), IsEmpty());
}

struct Breach {
    const char* text;  // in the one error that is recorded first
    std::function<void(SerialHost&)> act;
    SerialStart start = SerialStart::ProxyInSync;
};

std::vector<Breach> breaches() {
    constexpr auto kRom = SerialStart::RomLoader;
    const ByteVector three{1, 2, 3};
    const auto with = [](ByteVector packet, std::size_t offset, std::uint8_t byte) {
        packet[offset] = byte;
        return packet;
    };
    const auto beginFlash = [](SerialHost& host) { host.ask(begin(kUartFlashBegin, 3, 0)); };
    const auto writeFlash = [=](SerialHost& host) {
        beginFlash(host);
        host.ask(block(kUartFlashData, 0, three));
    };
    const auto beginRam = [](SerialHost& host) {
        host.ask(syncRequest());
        host.ask(begin(kUartRamBegin, 3, 0));
    };
    // What comes behind `first`.
    const auto then = [](auto first, const ByteVector& packet) {
        return [=](SerialHost& host) {
            first(host);
            host.ask(packet);
        };
    };
    const auto only = [](const ByteVector& packet) {
        return [=](SerialHost& host) { host.ask(packet, 200); };
    };
    return {
        {"wrong DIR", only(with(syncRequest(), 0, 1)), kRom},
        {"wrong SIZE", only(with(syncRequest(), 2, 35)), kRom},
        {"wrong CHECK", only(with(syncRequest(), 4, 1)), kRom},
        {"wrong pattern", only(with(syncRequest(), 43, 0x54)), kRom},
        {"is unknown", only(words(9, {0})), kRom},
        {"a packet of 7 bytes", only(ByteVector(7)), kRom},
        {"a packet of 0 bytes", only({}), kRom},
        {"wrong length", only(words(kUartRamEnd, {0})), kRom},
        {"not for it", only(begin(kUartFlashBegin, 3, 0)), kRom},
        {"SYNC or a block is due", only(begin(kUartRamBegin, 3, 0)), kRom},
        {"total size of 0", only(words(kUartRamBegin, {0, 0x200000, 2048, 0})), kRom},
        {"number of blocks", only(words(kUartRamBegin, {2048, 2, 2048, 0})), kRom},
        {"block size", only(words(kUartRamBegin, {3, 1, 4096, 0})), kRom},
        {"wrong address", only(begin(kUartRamBegin, 3, 0x100)), kRom},
        {"in the middle of a download", then(beginRam, syncRequest()), kRom},
        {"wrong CHECK", then(beginRam, with(block(kUartRamData, 0, three), 4, 0)), kRom},
        {"length in its block header", then(beginRam, with(block(kUartRamData, 0, three), 8, 4)),
         kRom},
        {"wrong block length", then(beginRam, block(kUartRamData, 0, {1, 2})), kRom},
        {"sequence", then(beginRam, block(kUartRamData, 1, three)), kRom},
        {"marked as resent", then(beginRam, block(kUartRamData, 0, three, kResendMark)), kRom},
        {"before the whole image", then(beginRam, words(kUartRamEnd, {0, 0})), kRom},
        {"a word set", then(beginRam, words(kUartRamEnd, {0, 1})), kRom},

        {"before SYNC", only(words(kUartChangeBaudrate, {kFast, kFirstRate})), SerialStart::Proxy},
        {"when in sync", only(syncRequest())},
        {"not for it", only(begin(kUartRamBegin, 3, 0))},
        {"wrong current rate", only(words(kUartChangeBaudrate, {kFast, 9600}))},
        {"behind a FLASH_BEGIN", then(writeFlash, words(kUartChangeBaudrate, {kFast, kFirstRate}))},
        {"number of blocks", only(words(kUartFlashBegin, {4097, 1, 4096, 0}))},
        {"past the flash", only(begin(kUartFlashBegin, 3, 0x7FFFFE))},
        {"in the middle of a download", then(writeFlash, begin(kUartFlashBegin, 3, 0))},
        {"outside a download", only(block(kUartFlashData, 0, three))},
        {"is marked as resent", then(beginFlash, block(kUartFlashData, 0, three, kResendMark))},
        {"wrong marks", then(beginFlash, with(block(kUartFlashData, 0, three), 20, 0x55))},
        {"sequence", then(writeFlash, block(kUartFlashData, 0, {4}))},
        {"though it was acknowledged", then(writeFlash, block(kUartFlashData, 0, three))},
        {"MD5 before the whole", then(beginFlash, words(kUartMd5, {kFlashWindow, 3, 0, 0}))},
        {"past the flash", then(writeFlash, words(kUartMd5, {0, 3, 0, 0}))},
        {"not of the image", then(writeFlash, words(kUartMd5, {kFlashWindow, 2, 0, 0}))},
        {"reserved word", then(writeFlash, words(kUartMd5, {kFlashWindow, 3, 0, 1}))},
        {"END before the whole", then(beginFlash, words(kUartFlashEnd, {2}))},
        {"END before MD5", then(writeFlash, words(kUartFlashEnd, {2}))},
        {"wrong action", then(writeFlash, words(kUartFlashEnd, {1}))},

        {"outside a frame", [](SerialHost& host) { host.write("xyz"); }},
        {"bad escape", [](SerialHost& host) { host.write("\xC0\x01\xDB\x02"); }},
        {"too long", [](SerialHost& host) { host.write("\xC0" + std::string(4121, 'x')); }},
        {"before the last one was answered",
         [=](SerialHost& host) {
             ByteVector two = slipFrame(begin(kUartFlashBegin, 3, 0));
             const ByteVector second = slipFrame(block(kUartFlashData, 0, three));
             two.insert(two.end(), second.begin(), second.end());
             host.write(two);
         }},
        {"one stop bit",
         [](SerialHost& host) {
             host.set(kFirstRate, CSTOPB);
             host.ask(begin(kUartFlashBegin, 3, 0));
         }},
    };
}

TEST_F(SerialDevice, RecordsEachBreach) {
    for (const Breach& breach : breaches()) {
        SCOPED_TRACE(breach.text);
        start({.start = breach.start});
        breach.act(*host);
        const auto limit = Clock::now() + std::chrono::seconds(5);
        while (device->errors().empty() && Clock::now() < limit)
            std::this_thread::yield();
        ASSERT_FALSE(device->errors().empty());
        EXPECT_THAT(device->errors().front(), HasSubstr(breach.text));
    }
}

// The host may send again what failed, and begin anew where it gives up, but no more than that.
TEST_F(SerialDevice, TakesRepeatsOfWhatFailed) {
    startInSync();
    const ByteVector data{1, 2, 3};
    const ByteVector first = block(kUartFlashData, 0, data);
    const ByteVector resent = block(kUartFlashData, 0, data, kResendMark);
    device->addFault({SerialFaultPoint::FlashBegin, SerialFault::earlierAnswer()});
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "another's answer");
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    device->addFault({SerialFaultPoint::FlashData, SerialFault::refuse(0, 1)});
    device->addFault({SerialFaultPoint::FlashData, SerialFault::silence()});
    EXPECT_EQ(host->ask(first), "refused");
    EXPECT_EQ(host->ask(resent, 400), "silent");
    EXPECT_EQ(host->ask(resent), "ok");

    // The host gives a whole image up; its next block may carry the mark still.
    device->addFault({SerialFaultPoint::Md5, SerialFault::wrongDigest()});
    EXPECT_EQ(host->ask(words(kUartMd5, {kFlashWindow, 3, 0, 0})), "ok");
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    device->addFault({SerialFaultPoint::FlashData, SerialFault::refuse(1, 0)});
    EXPECT_EQ(host->ask(first), "refused");
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    device->addFault({SerialFaultPoint::FlashData, SerialFault::corrupt(2)});
    EXPECT_EQ(host->ask(resent), "ok");
    EXPECT_TRUE(device->flash().holds(0, ByteVector{1, 2, 2}));
    EXPECT_EQ(host->ask(words(kUartMd5, {kFlashWindow, 3, 0, 0})), "ok");
    EXPECT_THAT(device->errors(), IsEmpty());

    EXPECT_EQ(host->ask(words(kUartFlashEnd, {2})), "refused");
    EXPECT_THAT(device->errors(), ElementsAre(HasSubstr("behind a wrong digest")));

    // A new host on the port has to begin with SYNC.
    host.reset();
    host = std::make_unique<SerialHost>(device->portPath());
    EXPECT_EQ(host->ask(syncRequest()), "ok");
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    device->addFault({SerialFaultPoint::FlashData, SerialFault::refuse(1, 0)});
    EXPECT_EQ(host->ask(first), "refused");
    EXPECT_EQ(host->ask(words(kUartFlashEnd, {2})), "refused");
    EXPECT_EQ(device->errors().at(1), "FLASH_END before FLASH_DATA was acknowledged");
}

// A host speaks at once where another has just left: the device may see both at the same moment.
TEST_F(SerialDevice, HearsEachHostThatFollowsAnother) {
    startInSync();
    for (int i = 0; i < 300; ++i) {
        host->ask(begin(kUartFlashBegin, 3, 0));
        host.reset();
        host = std::make_unique<SerialHost>(device->portPath());
        ASSERT_EQ(host->ask(syncRequest()), "ok") << "host " << i;
    }
    EXPECT_THAT(device->errors(), IsEmpty());
}

TEST_F(SerialDevice, ShapesItsAnswers) {
    const std::string frame = "\xC0\x01\x08\x02" + std::string(1, '\0') +
                              "\xA5\xDB\xDC\xDB\xDD\x5A" + std::string(2, '\0') + "\xC0";
    const auto longFrame = [&](std::size_t size) {
        return frame.substr(0, 13) + std::string(size - 10, '\xA5') + "\xC0";
    };
    const std::vector<std::pair<SerialFault, std::string>> shapes = {
        {SerialFault::noise("ab", "\xC0z"), "ab" + frame + "\xC0z"},
        {SerialFault::longFrame(63), longFrame(63)},
        {SerialFault::longFrame(64), longFrame(64)},
        {SerialFault::emptyFrame(), "\xC0\xC0"},
        {SerialFault::badEscape(), "\xC0\x01\xDB\x01\x02\xC0"},
        {SerialFault::cutAnswer(5, milliseconds(200)), frame.substr(0, 5)},
        {SerialFault::swallow(), ""},
        {SerialFault::stall(), ""},
    };
    for (const auto& [fault, expected] : shapes) {
        start();
        device->addFault({SerialFaultPoint::RomSync, fault});
        host->send(syncRequest());
        const ByteVector answer = host->readRaw(expected.empty() ? 50 : 2000);
        EXPECT_EQ(std::string(answer.begin(), answer.end()), expected);
        if (fault.kind == SerialFault::Kind::CutAnswer) {
            const ByteVector rest = host->readRaw(2000);
            EXPECT_EQ(std::string(rest.begin(), rest.end()), frame.substr(5));
        }
        EXPECT_THAT(device->errors(), IsEmpty());
    }
    EXPECT_EQ(host->ask(syncRequest(), 50), "silent");  // it has stalled for good
}

TEST_F(SerialDevice, UnderstandsNothingAtAnotherRate) {
    start({.start = SerialStart::Proxy, .proxyRate = 1024000});
    device->addFault({SerialFaultPoint::WrongRate, SerialFault::rawAnswer("\xC0noise"), 1});
    EXPECT_EQ(host->ask(syncRequest(), 50), "silent");
    host->send(syncRequest());
    EXPECT_THAT(host->readRaw(2000), testing::SizeIs(6));
    host->set(1024000, 0);
    EXPECT_EQ(host->ask(syncRequest()), "ok");
    EXPECT_EQ(device->count(SerialFaultPoint::ProxySync), 1U);
    EXPECT_EQ(device->count(SerialFaultPoint::WrongRate), 2U);

    // An answer that comes when the host has gone to another rate is noise to the host.
    device->addFault(
        {SerialFaultPoint::ChangeBaudrate, SerialFault::lateAnswer(milliseconds(200))});
    host->send(words(kUartChangeBaudrate, {kFast, 1024000}));
    while (device->count(SerialFaultPoint::ChangeBaudrate) == 0)
        std::this_thread::yield();
    host->set(kFast, 0);
    const ByteVector answer = host->readRaw(2000);
    EXPECT_THAT(answer, testing::SizeIs(14));
    EXPECT_NE(answer.front(), 0xC0);
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    EXPECT_THAT(device->errors(), IsEmpty());

    const std::uint64_t before = device->traffic();
    host->write("\xC0\x01");
    while (device->traffic() != before + 2)
        std::this_thread::yield();
    host->set(kFirstRate, 0);
    host->write("\x02");
    while (device->count(SerialFaultPoint::WrongRate) == 2)
        std::this_thread::yield();
    EXPECT_THAT(device->errors(), ElementsAre("the rate was changed inside a frame"));
}

TEST_F(SerialDevice, KeepsThePaceOfItsRate) {
    startInSync({.paced = true, .proxyRate = kFast, .blockTime = milliseconds(2)});
    host->set(kFast, 0);
    constexpr std::uint32_t kBlocks = 20;
    constexpr std::uint32_t kSize = kBlocks * kFlashBlockSize;
    const ByteVector image(kSize, 0x11);
    const auto startedAt = Clock::now();
    ASSERT_EQ(host->ask(begin(kUartFlashBegin, kSize, 0)), "ok");
    sendBlocks(kUartFlashData, image, kFlashBlockSize);
    const std::chrono::duration<double> took = Clock::now() - startedAt;
    const double floor = static_cast<double>(device->traffic()) * 10 / kFast + kBlocks * 0.002;
    EXPECT_GE(took.count(), floor);
    EXPECT_LE(took.count(), floor * 2);

    // A host that writes on and on is held back.
    const std::uint64_t sent = device->traffic();
    const auto wroteAt = Clock::now();
    host->write(std::string(300'000, 'x'));
    while (device->traffic() < sent + 300'000)
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_GE(Clock::now() - wroteAt, milliseconds(900));  // less what may be under way
    EXPECT_THAT(device->errors(), ElementsAre("bytes outside a frame"));
}

TEST_F(SerialDevice, LeavesAtAnyByteAndComesBack) {
    startInSync({.onUnplug = [this] { ++departures; }});
    const std::uint64_t beginBytes = begin(kUartFlashBegin, 3, 0).size() + 2 + 14;
    device->unplugAtByte(beginBytes + 20);
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "ok");
    EXPECT_EQ(host->ask(block(kUartFlashData, 0, {1, 2, 3})), "hung up");
    const auto limit = Clock::now() + std::chrono::seconds(5);
    while (departures == 0 && Clock::now() < limit)
        std::this_thread::yield();
    EXPECT_EQ(departures, 1);
    EXPECT_EQ(device->traffic(), beginBytes + 20);
    EXPECT_FALSE(device->isPluggedIn());
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(device->portPath())));
    EXPECT_THAT(device->flash().writtenRanges(), IsEmpty());

    device->unplugAtByte(UINT64_MAX);
    device->plugIn();
    host = std::make_unique<SerialHost>(device->portPath());
    burn({1, 2, 3}, 0);
    device->addFault({SerialFaultPoint::FlashBegin, SerialFault::unplugInAnswer(4)});
    EXPECT_EQ(host->ask(begin(kUartFlashBegin, 3, 0)), "hung up");
    EXPECT_THAT(device->errors(), IsEmpty());
}

}  // namespace
}  // namespace simulator
