// A whole serial burn with a device that carries a request out or not, and answers anything. What
// is behind the answers is the strict virtual device: it knows each request that no host may send,
// and what its flash holds in the end. No image may count as burned that is not there.
#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "fuzzing.h"
#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/serial/serialflashproxy.h"
#include "simulator/serial/serialromloader.h"
#include "simulator/serial/serialwire.h"
#include "simulator/serial/slipreader.h"
#include "support/temporarydirectory.h"
#include "vorlan/uart/flash_loader.h"
#include "vorlan/uart/ram_loader.h"

namespace {

using simulator::SerialAnswer;
using simulator::SerialRequest;

// The device and the port in front of it. It does well unless the script has it do otherwise.
class Peer final : public platform::SerialDevice {
  public:
    Peer(Script& script, std::uint8_t restOfTime, UartContext& context)
        : script_(script), restOfTime_(restOfTime), context_(context) {
        rom_.powerOn();
    }

    const std::string& path() const override { return path_; }
    std::uint32_t offeredRate() const override { return hostRate_; }
    bool fetchSettings() override { return true; }
    bool setLine(const platform::SerialLine& line) override {
        hostRate_ = line.baudrate;
        return true;
    }
    bool setTimeouts(const platform::SerialTimeouts&) override { return true; }

    int write(const std::uint8_t* bytes, int size) override {
        using Event = simulator::SlipReader::Event;
        if (!reader_.inFrame()) {
            require(++requests_ < 5000, "a burn ends");
            answer_.clear();
            readFails_ = false;
            action_ = static_cast<Action>(script_.next(restOfTime_) % kActions);
            if (action_ != kAcknowledge)
                turn_ = {.inStep = false, .mayRestart = true, .corruptOffset = {}};
            if (action_ == kFailToWrite) {
                errno = EIO;
                return -1;
            }
            if (action_ == kTakeHalf)
                return size / 2;
        }
        bool whole = false;
        for (int i = 0; i < size; ++i) {
            require(!whole, "a request is one sound frame");
            whole = reader_.take(bytes[i]) == Event::kFrame;
        }
        // The end of a block may come by itself.
        require(whole || size > 1, "a request is whole with its last byte");
        if (!whole)
            return size;
        const Bytes& frame = reader_.frame();
        simulator::Refusal refusal = simulator::Refusal::kNone;
        const std::optional<SerialRequest> request =
            simulator::parseRequest(frame, packetErrors_, refusal);
        require(request && packetErrors_.texts().empty(), "a request keeps the rules of packets");

        if (action_ == kStopAndAcknowledge)
            context_.stop = true;
        if (hostRate_ == rate_ && action_ != kKeepSilent)
            answer(*request, frame, action_);
        return size;
    }

    int readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) override {
        require(wanted == kRxBufferSize, "reads ask for 64 bytes");
        require(!std::exchange(endsEarly_, false), "a read comes to its end before the next");
        if (readFails_) {
            errno = EIO;
            return -1;
        }
        Bytes line = std::exchange(early_, {});
        line.insert(line.end(), answer_.begin(), answer_.end());
        early_ = std::exchange(late_, {});
        if (line.size() > kRxBufferSize) {
            early_.insert(early_.begin(), line.begin() + kRxBufferSize, line.end());
            line.resize(kRxBufferSize);
        }
        // Byte by byte; what is behind the end is dropped before the next answer.
        for (std::size_t i = 0; i < line.size(); ++i) {
            buffer[i] = line[i];
            const int count = static_cast<int>(i) + 1;
            endsEarly_ = isWhole(buffer, count);
            if (endsEarly_)
                return count;
        }
        return static_cast<int>(line.size());
    }

    void finishRead() override { endsEarly_ = false; }

    // Whether what the host was told can be relied on: a made-up answer may be a good one.
    bool isHonest() const { return honest_; }
    // Whether every request was answered at once and well.
    bool isSound() const { return turn_.inStep; }
    bool hasLoaded(const Bytes& image) const { return rom_.image() == image; }
    bool holds(std::uint32_t offset, const Bytes& image) const {
        return flash_.holds(offset, image);
    }

  private:
    enum Action : std::uint8_t {
        kAcknowledge,
        kKeepSilent,
        kRefuse,
        kSayAnything,
        kAcknowledgeBehindNoise,
        kAcknowledgeInPieces,
        kAcknowledgeTwice,
        kLoseTheAnswer,
        kFailToRead,
        kFailToWrite,
        kTakeHalf,
        kStopAndAcknowledge,
        kCorrupt,
        kActions
    };

    void answer(const SerialRequest& request, const Bytes& frame, Action action) {
        SerialAnswer result;
        if (action == kSayAnything) {
            answer_ = script_.take(script_.next() % (kRxBufferSize + 1));
            honest_ = false;
            return;
        }
        if (action == kRefuse)
            result.refusal = simulator::Refusal::kBadPacket;
        else
            result = carryOut(request, frame, action == kCorrupt);
        const Bytes good = simulator::slipFrame(simulator::answerPacket(request.command, result));
        const auto cut = good.begin() + script_.next() % std::ssize(good);
        switch (action) {
            case kAcknowledgeBehindNoise:
                answer_ = script_.take(script_.next() % 16);
                answer_.insert(answer_.end(), good.begin(), good.end());
                honest_ = false;
                break;
            case kAcknowledgeInPieces:
                answer_.assign(good.begin(), cut);
                late_.assign(cut, good.end());
                break;
            case kAcknowledgeTwice:
                answer_ = late_ = good;
                break;
            case kLoseTheAnswer:
                break;
            case kFailToRead:
                readFails_ = true;
                break;
            default:
                answer_ = good;
        }
    }

    // A request that comes again is answered again.
    SerialAnswer carryOut(const SerialRequest& request, const Bytes& frame, bool corrupts) {
        if (!last_.empty() && simulator::sameRequest(frame, last_) &&
            lastAnswer_.refusal == simulator::Refusal::kNone)
            return lastAnswer_;
        SerialAnswer result;
        if (inRom_)
            result.refusal = rom_.take(request, turn_);
        else
            result = proxy_.take(request, turn_, hostRate_);
        // A host that was misled cannot know where the device is.
        require(!turn_.inStep || errors_.texts().empty(), "each request has its place");
        last_ = frame;
        lastAnswer_ = result;
        if (result.refusal == simulator::Refusal::kNone) {
            if (request.command == UART_RAM_END)
                inRom_ = false;
            if (request.command == UART_CHANGE_BAUDRATE)
                rate_ = request.word(0);
            if (request.command == UART_FLASH_BEGIN)
                offset_ = request.word(3);
            if (request.command == UART_FLASH_DATA && corrupts)
                flash_.program(offset_ + request.word(1) * simulator::kFlashBlockSize,
                               Bytes{static_cast<std::uint8_t>(~request.block()[0])});
        }
        return result;
    }

    const std::string path_ = "peer";
    Script& script_;
    const std::uint8_t restOfTime_;  // what it does when the script is at its end
    UartContext& context_;
    std::uint32_t hostRate_ = simulator::kFirstRate;  // as the port was opened
    std::uint32_t rate_ = simulator::kFirstRate;
    int requests_ = 0;
    simulator::SlipReader reader_;
    Action action_ = kAcknowledge;
    bool endsEarly_ = false;  // the last read
    Bytes answer_;            // to the request
    Bytes early_;             // comes before it
    Bytes late_;              // comes with the next one
    bool readFails_ = false;
    bool honest_ = true;
    bool inRom_ = true;
    std::uint32_t offset_ = 0;  // of the image under way
    simulator::SerialTurn turn_;
    simulator::ErrorList packetErrors_;
    simulator::ErrorList errors_;
    simulator::Flash flash_;
    simulator::SerialRomLoader rom_{errors_};
    simulator::SerialFlashProxy proxy_{errors_, flash_, false};
    Bytes last_;
    SerialAnswer lastAnswer_;
};

struct Image {
    std::string path;
    Bytes bytes;
};

Image makeImage(const TemporaryDirectory& directory, const std::string& name, std::size_t size) {
    Image image{(directory.path() / name).string(), {}};
    for (std::size_t i = 0; i < size; ++i)
        image.bytes.push_back(static_cast<std::uint8_t>(i * 7 + i / 251 + size));
    writeContent(image.path, std::string(image.bytes.begin(), image.bytes.end()));
    return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TemporaryDirectory directory;
    static const Image proxy = makeImage(directory, "ramloader/flash_proxy.img", 4097);
    static const std::filesystem::path here = std::filesystem::current_path();
    static const std::array<Image, 4> images{
        makeImage(directory, "one", 1), makeImage(directory, "empty", 0),
        makeImage(directory, "exact", 4096), makeImage(directory, "long", 8193)};
    constexpr std::uint32_t kOffsets[] = {0, 0x10000, 0x7FFFFF, 0x7FF000, 0x800000, 0xFFFFFFFF};
    silenceOutput();

    Script script(data, size);
    const std::uint8_t restOfTime = script.next();
    const std::uint8_t choice = script.next();
    const auto context = uart_context_create();
    Peer* const peer = new Peer(script, restOfTime, *context);
    context->port.reset(peer);
    std::filesystem::current_path(directory.path());  // beside which the proxy lies
    const int loaded = ram_loader_download(context.get());
    std::filesystem::current_path(here);
    if (loaded != kUartOk)
        return 0;
    require(!peer->isSound() || peer->hasLoaded(proxy.bytes), "the proxy is in the RAM");
    if (flash_loader_handshake(context.get()) != kUartOk ||
        flash_loader_change_baudrate(context.get(), 3000000) != kUartOk)
        return 0;
    const auto isThere = [&](int result, std::uint32_t offset, const Bytes& bytes) {
        require(result != kUartOk || !peer->isHonest() ||
                    (!bytes.empty() && peer->holds(offset, bytes)),
                "what counts as burned is in the flash");
        require(result == kUartOk || !peer->isSound() || bytes.empty() ||
                    offset + std::uint64_t{bytes.size()} > simulator::kFlashWindowSize,
                "what a sound device takes counts as burned");
    };
    const Image& image = images.at(choice % images.size());
    const std::uint32_t offset = kOffsets[(choice / 4) % std::size(kOffsets)];
    isThere(flash_loader_download_file(context.get(), image.path.c_str(), kFlashWindow + offset, 2,
                                       true),
            offset, image.bytes);
    const Bytes number = script.take(script.next() % 16);
    isThere(flash_loader_download_buffer(context.get(), number.data(),
                                         static_cast<std::uint32_t>(number.size()),
                                         kFlashWindow + 0x7FF004, 2, true, L"SN"),
            0x7FF004, number);
    require(context->ram.image.stream == nullptr && context->flash.image.stream == nullptr,
            "images are closed");
    return 0;
}
