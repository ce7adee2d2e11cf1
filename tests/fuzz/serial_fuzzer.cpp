// A whole serial burn with a device that answers anything at any time. What went over the wire is
// held against the steps of the two stages as they are meant to be: every frame sent has its
// reason, none is sent once too often, and no image counts as burned that the device has not
// acknowledged block by block and, where asked for, by its digest.
#include <md5.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzzing.h"
#include "slipmodel.h"
#include "support/temporarydirectory.h"
#include "vorlan/uart/protocol/connect_flash/flash_loader.h"
#include "vorlan/uart/protocol/connect_ram/ram_loader.h"

namespace fs = std::filesystem;

namespace {

Md5Digest digestOf(const Bytes& bytes) {
    Md5Digest digest;
    MD5_CTX state;
    MD5Init(&state);
    MD5Update(&state, bytes.data(), bytes.size());
    MD5Final(digest.data(), &state);
    return digest;
}

std::uint32_t wordAt(const Bytes& bytes, std::size_t offset) {
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < 4; ++i)
        word |= std::uint32_t{bytes.at(offset + i)} << (8 * i);
    return word;
}

void append(Bytes& to, const Bytes& bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// An image on the disk and what is known of it.
struct Image {
    Image(const TemporaryDirectory& directory, const std::string& name, std::size_t size)
        : path((directory.path() / name).string()) {
        for (std::size_t i = 0; i < size; ++i)
            bytes.push_back(static_cast<std::uint8_t>(i * 7 + i / 251));
        writeContent(path, std::string(bytes.begin(), bytes.end()));
        digest = digestOf(bytes);
    }

    std::string path;
    Bytes bytes;
    Md5Digest digest{};
};

// What the host must have made of an answer.
enum class Outcome { kNone, kRefused, kAcknowledged };

struct Exchange {
    std::uint8_t command = 0;
    Bytes data;
    std::uint32_t rate = 0;
    std::chrono::milliseconds silentRead{0};  // how long the read may last
    Outcome outcome = Outcome::kNone;
    Md5Digest digest{};  // in the frame received last
};

// The device, and the port in front of it.
class Peer final : public platform::SerialDevice {
  public:
    Peer(Script& script, std::uint8_t restOfTime) : script_(script), restOfTime_(restOfTime) {}

    const std::string& path() const override { return path_; }
    std::uint32_t offeredRate() const override { return rate_; }
    bool fetchSettings() override { return true; }
    bool setLine(const platform::SerialLine& line) override {
        rate_ = line.baudrate;
        return true;
    }
    bool setTimeouts(const platform::SerialTimeouts& timeouts) override {
        silentRead_ = timeouts.readConstant + kRxBufferSize * timeouts.readPerByte;
        return true;
    }

    int write(const std::uint8_t* bytes, int size) override {
        beforeWrite();
        takeRequest(Bytes(bytes, bytes + size));
        answer_.clear();
        readFails_ = false;
        const std::uint8_t command = exchanges.back().command;
        Bytes frame = slipFrame(acknowledgement(command));
        switch (script_.next(restOfTime_) % kActions) {
            case kRefuse: {
                Bytes refusal = acknowledgement(command);
                refusal[script_.next(9) % refusal.size()] ^= 1;
                answer_ = slipFrame(refusal);
                break;
            }
            case kKeepSilent:
                break;
            case kSayAnything:
                answer_ = script_.take(script_.next() % (kRxBufferSize + 1));
                break;
            case kAcknowledgeBehindNoise:
                answer_ = script_.take(script_.next() % 16);
                append(answer_, frame);
                break;
            case kAcknowledgeInPieces: {
                const auto cut = static_cast<std::ptrdiff_t>(script_.next() % frame.size());
                answer_.assign(frame.begin(), frame.begin() + cut);
                late_.assign(frame.begin() + cut, frame.end());
                break;
            }
            case kAcknowledgeTwice:
                answer_ = frame;
                late_ = frame;
                break;
            case kFailToRead:
                readFails_ = true;
                break;
            case kFailToWrite:
                errno = EIO;
                return -1;
            case kTakeNothing:
                return 0;
            case kTakeHalf:
                return size / 2;
            case kStopAndAcknowledge:
                stop();
                answer_ = frame;
                break;
            case kLieAboutDigest: {
                Bytes lie = acknowledgement(command);
                lie.back() ^= 1;
                answer_ = slipFrame(lie);
                break;
            }
            default:
                answer_ = frame;
        }
        return size;
    }

    int read(std::uint8_t* buffer, int wanted) override {
        require(wanted == kRxBufferSize, "reads ask for 64 bytes");
        if (readFails_) {
            errno = EIO;
            return -1;
        }
        Bytes line = std::exchange(early_, {});
        append(line, answer_);
        early_ = std::exchange(late_, {});
        if (line.size() > kRxBufferSize) {
            early_.insert(early_.begin(), line.begin() + kRxBufferSize, line.end());
            line.resize(kRxBufferSize);
        }
        std::copy(line.begin(), line.end(), buffer);
        Exchange& exchange = exchanges.back();
        if (model_.read(line) == SlipModel::Result::kComplete)
            exchange.outcome =
                model_.acknowledges(exchange.command) ? Outcome::kAcknowledged : Outcome::kRefused;
        std::copy_n(model_.buffer().begin() + 10, kMd5Size, exchange.digest.begin());
        return static_cast<int>(line.size());
    }

    std::function<void()> beforeWrite = [] {};
    std::function<void()> stop = [] {};
    Md5Digest digest{};  // of what its flash holds
    std::vector<Exchange> exchanges;

  private:
    const std::string path_ = "peer";
    enum Action : std::uint8_t {
        kAcknowledge,
        kKeepSilent,
        kRefuse,
        kSayAnything,
        kAcknowledgeBehindNoise,
        kAcknowledgeInPieces,
        kAcknowledgeTwice,
        kFailToRead,
        kFailToWrite,
        kTakeNothing,
        kTakeHalf,
        kStopAndAcknowledge,
        kLieAboutDigest,
        kActions
    };

    void takeRequest(const Bytes& frame) {
        const std::optional<Bytes> packet = slipUnframe(frame);
        require(packet && packet->size() >= 8 && (*packet)[0] == 0, "a request is a sound frame");
        Exchange exchange;
        exchange.command = (*packet)[1];
        exchange.data.assign(packet->begin() + 8, packet->end());
        exchange.rate = rate_;
        exchange.silentRead = silentRead_;
        require(wordAt(*packet, 0) >> 16 == exchange.data.size(), "length in the header");
        std::uint32_t check = 0;
        if (exchange.command == UART_RAM_DATA || exchange.command == UART_FLASH_DATA) {
            require(exchange.data.size() > 16, "a block has bytes");
            check = 0xEF;
            for (std::size_t i = 16; i < exchange.data.size(); ++i)
                check ^= exchange.data[i];
        }
        require(wordAt(*packet, 4) == check, "check byte");
        exchanges.push_back(std::move(exchange));
    }

    Bytes acknowledgement(std::uint8_t command) const {
        Bytes packet{1, command, 2, 0, 0, 0, 0, 0, 0, 0};
        if (command == UART_MD5)
            packet.insert(packet.end(), digest.begin(), digest.end());
        return packet;
    }

    Script& script_;
    std::uint8_t restOfTime_;  // what it does when the script is at its end
    std::uint32_t rate_ = 0;
    std::chrono::milliseconds silentRead_{0};
    Bytes answer_;  // to the request
    Bytes early_;   // comes before it
    Bytes late_;    // comes with the next one
    bool readFails_ = false;
    SlipModel model_;
};

// What the operator was told.
struct Told {
    std::vector<int> percents;
    std::vector<std::pair<int, std::wstring>> errors;
    bool operator==(const Told&) const = default;
};
Told* told = nullptr;  // by the burn under way

// Goes along what was sent, step by step, and says what the stages had to make of it.
class Expectation {
  public:
    Expectation(const std::vector<Exchange>& exchanges, const std::size_t& stoppedIn)
        : exchanges_(exchanges), stoppedIn_(stoppedIn) {}

    bool isAtEnd() const { return at_ == exchanges_.size(); }

    int ramDownload(const Bytes& image) {
        if (image.empty())
            return kUartNoAnswer;
        const auto blocks = static_cast<std::uint32_t>((image.size() + 2047) / 2048);
        const auto size = static_cast<std::uint32_t>(image.size());
        Bytes sync{0x07, 0x07, 0x12, 0x20};
        sync.resize(36, 0x55);
        bool done = ramStep(UART_SYNC, sync, true);
        ramRetries_ = done ? 0 : ramRetries_;
        done = done && ramStep(UART_RAM_BEGIN, words({size, blocks, 2048, 0}), true);
        ramRetries_ = done ? 0 : ramRetries_;
        for (std::uint32_t i = 0; done && i < blocks; ++i) {
            done = !isStopped() && ramStep(UART_RAM_DATA, block(image, i, 2048, 0), false);
            if (!done)
                break;
            told.percents.push_back(percent(i + 1, blocks));
            ramRetries_ = 0;
        }
        done = done && ramStep(UART_RAM_END, words({0, 0}), true);
        ramRetries_ = done ? 0 : ramRetries_;
        return done ? kUartOk : kUartNoAnswer;
    }

    int handshake() {
        for (;;) {
            for (const std::uint32_t rate : {115200U, 1024000U, 1536000U, 3000000U}) {
                if (isStopped())
                    return kUartNoAnswer;
                rate_ = rate;
                silentRead_ = 740;
                const Outcome outcome = next(UART_SYNC).outcome;
                silentRead_ = 1640;
                if (outcome == Outcome::kAcknowledged)
                    return kUartOk;
            }
            if (givesUp(flashRetries_))
                return kUartNoAnswer;
        }
    }

    int changeRate(std::uint32_t rate) {
        for (;;) {
            const Exchange& exchange = next(UART_CHANGE_BAUDRATE);
            require(exchange.data == words({rate, rate_}), "rates");
            if (exchange.outcome == Outcome::kAcknowledged) {
                rate_ = rate;
                return kUartOk;
            }
            if (givesUp(flashRetries_))
                return resultOf(exchange.outcome);
        }
    }

    int flashDownload(const Bytes& image, const Md5Digest& digest, std::uint32_t address,
                      bool md5Check) {
        if (address < 0x80000000 || address >= 0x80800000)
            return kUartNoAnswer;
        const std::uint32_t offset = address - 0x80000000;
        if (image.empty() || image.size() > 0x800000 - offset) {
            told.errors.emplace_back(kUartFileError, L"");
            return kUartFileError;
        }
        const auto size = static_cast<std::uint32_t>(image.size());
        const std::uint32_t blocks = (size + 4095) / 4096;
        flashRetries_ = 0;
        int result = flashStep(UART_FLASH_BEGIN, words({size, blocks, 4096, offset}), kUartRefused,
                               L"BEGIN COMMAND FORMAT ERROR");
        if (result != kUartOk)
            return result;
        for (std::uint32_t i = 0; i < blocks; ++i) {
            flashRetries_ = 0;
            result = blockStep(image, i);
            if (result != kUartOk)
                return result;
            told.percents.push_back(percent(i + 1, blocks));
        }
        flashRetries_ = 0;
        if (md5Check) {
            silentRead_ = 10640;
            result = flashStep(UART_MD5, words({address, size, 0, 0}), kUartNoAnswer,
                               L"MD5 FORMAT ERROR");
            if (result != kUartOk)
                return result;
            silentRead_ = 1640;
            if (exchanges_[at_ - 1].digest != digest) {
                told.errors.emplace_back(kUartMd5Mismatch, L"MD5 CHECK ERROR");
                return kUartMd5Mismatch;
            }
        }
        result = flashStep(UART_FLASH_END, words({2}), kUartRefused, L"END COMMAND FORMAT ERROR");
        if (result == kUartOk)
            flashRetries_ = 0;
        return result;
    }

    int md5Check(const Image& image, std::uint32_t address) {
        if (image.bytes.empty()) {
            told.errors.emplace_back(kUartFileError, L"");
            return kUartFileError;
        }
        silentRead_ = 10640;
        for (;;) {
            const Exchange& exchange = next(UART_MD5);
            require(exchange.data ==
                        words({address, static_cast<std::uint32_t>(image.bytes.size()), 0, 0}),
                    "area of the digest");
            if (exchange.outcome == Outcome::kAcknowledged) {
                silentRead_ = 1640;
                return exchange.digest == image.digest ? kUartOk : kUartMd5Mismatch;
            }
            if (givesUp(flashRetries_))
                return resultOf(exchange.outcome);
        }
    }

    Told told;

  private:
    static Bytes words(std::initializer_list<std::uint32_t> values) {
        Bytes bytes;
        for (const std::uint32_t value : values)
            for (int shift = 0; shift < 32; shift += 8)
                bytes.push_back(static_cast<std::uint8_t>(value >> shift));
        return bytes;
    }

    static Bytes block(const Bytes& image, std::uint32_t sequence, std::uint32_t blockSize,
                       std::uint32_t marker) {
        const std::size_t begin = std::size_t{sequence} * blockSize;
        const std::size_t length = std::min<std::size_t>(blockSize, image.size() - begin);
        Bytes data = words({static_cast<std::uint32_t>(length), sequence, marker, marker});
        const auto first = image.begin() + static_cast<std::ptrdiff_t>(begin);
        data.insert(data.end(), first, first + static_cast<std::ptrdiff_t>(length));
        return data;
    }

    // Exact for the few blocks that there are.
    static int percent(std::uint32_t done, std::uint32_t blocks) {
        return static_cast<int>(static_cast<float>(done) / static_cast<float>(blocks) * 100.0F);
    }

    static int resultOf(Outcome outcome) {
        return outcome == Outcome::kRefused ? kUartRefused : kUartNoAnswer;
    }

    static bool givesUp(int& retries) {
        if (++retries < 7)
            return false;
        retries = 0;
        return true;
    }

    bool isStopped() const { return stoppedIn_ < at_; }

    const Exchange& next(std::uint8_t command) {
        require(at_ < exchanges_.size(), "no step is left out");
        const Exchange& exchange = exchanges_[at_++];
        require(exchange.command == command, "steps in their order");
        require(rate_ == 0 || exchange.rate == rate_, "rate of the step");
        require(silentRead_ == 0 || exchange.silentRead == std::chrono::milliseconds(silentRead_),
                "limit of the read");
        return exchange;
    }

    bool ramStep(std::uint8_t command, const Bytes& data, bool heedsStop) {
        while (!heedsStop || !isStopped()) {
            const Exchange& exchange = next(command);
            require(exchange.data == data, "request to the ROM");
            if (exchange.outcome == Outcome::kAcknowledged)
                return true;
            if (exchange.outcome == Outcome::kNone || givesUp(ramRetries_))
                return false;
        }
        return false;
    }

    int flashStep(std::uint8_t command, const Bytes& data, int refusedCode,
                  const wchar_t* refusedText) {
        for (;;) {
            if (isStopped())
                return kUartNoAnswer;
            const Exchange& exchange = next(command);
            require(exchange.data == data, "request to the flash proxy");
            if (exchange.outcome == Outcome::kAcknowledged)
                return kUartOk;
            if (givesUp(flashRetries_))
                return giveUp(exchange.outcome, refusedCode, refusedText);
        }
    }

    int blockStep(const Bytes& image, std::uint32_t sequence) {
        for (;;) {
            if (isStopped())
                return kUartNoAnswer;
            const Exchange& exchange = next(UART_FLASH_DATA);
            require(exchange.data == block(image, sequence, 4096, resent_ ? 0x55555555 : 0),
                    "block to the flash proxy");
            resent_ = exchange.outcome != Outcome::kAcknowledged;
            if (!resent_)
                return kUartOk;
            if (givesUp(flashRetries_))
                return giveUp(exchange.outcome, kUartRefused, L"DATA COMMAND FORMAT ERROR");
        }
    }

    int giveUp(Outcome outcome, int refusedCode, const wchar_t* refusedText) {
        const bool refused = outcome == Outcome::kRefused;
        told.errors.emplace_back(refused ? refusedCode : kUartNoAnswer,
                                 refused ? refusedText : L"RECEIVE OVERTIME......");
        return resultOf(outcome);
    }

    const std::vector<Exchange>& exchanges_;
    const std::size_t& stoppedIn_;  // the exchange in which the operator asked for the end
    std::size_t at_ = 0;
    int ramRetries_ = 0;
    int flashRetries_ = 0;
    bool resent_ = false;
    std::uint32_t rate_ = 0;        // 0: any
    std::uint32_t silentRead_ = 0;  // ms; 0: any
};

// Makes a folder the current one until it is gone.
class CurrentDirectory {
  public:
    explicit CurrentDirectory(const fs::path& path) : previous_(fs::current_path()) {
        fs::current_path(path);
    }
    ~CurrentDirectory() { fs::current_path(previous_); }
    CurrentDirectory(const CurrentDirectory&) = delete;
    CurrentDirectory& operator=(const CurrentDirectory&) = delete;

  private:
    fs::path previous_;
};

void onProgress(UartContext* /*context*/, const std::wstring& /*name*/, int percent) {
    told->percents.push_back(percent);
}

void onError(UartContext* /*context*/, int code, const std::wstring& description) {
    // Texts about a file hold its path.
    told->errors.emplace_back(code, code == kUartFileError ? L"" : description);
}

// One device from its ROM loader to its serial number, as a run burns it.
class Burn {
  public:
    Burn(Script& script, std::uint8_t restOfTime)
        : context_(uart_context_create()),
          peer_(new Peer(script, restOfTime)),
          expected_(peer_->exchanges, stoppedIn_) {
        context_->port.reset(peer_);
        context_->onProgress = onProgress;
        context_->onError = onError;
        peer_->stop = [this] {
            stoppedIn_ = std::min(stoppedIn_, peer_->exchanges.size() - 1);
            context_->stop = true;
        };
        told = &told_;
    }

    bool loadRam(const fs::path& program, const Bytes& image) {
        std::optional<CurrentDirectory> there(program);
        peer_->beforeWrite = [&] { there.reset(); };  // the image is open by then
        const int result = ram_loader_download(context_.get());
        peer_->beforeWrite = [] {};
        return check(result, expected_.ramDownload(image));
    }

    bool raiseRate() {
        int result = flash_loader_handshake(context_.get());
        if (!check(result, expected_.handshake()))
            return false;
        result = flash_loader_change_baudrate(context_.get(), 3000000);
        return check(result, expected_.changeRate(3000000));
    }

    void write(const Image& image, std::uint32_t address, bool md5Check) {
        peer_->digest = image.digest;
        const int result =
            flash_loader_download_file(context_.get(), image.path.c_str(), address, 2, md5Check);
        check(result, expected_.flashDownload(image.bytes, image.digest, address, md5Check));
    }

    void write(const Bytes& number, std::uint32_t address, bool md5Check) {
        peer_->digest = digestOf(number);
        const int result = flash_loader_download_buffer(context_.get(), number.data(),
                                                        static_cast<std::uint32_t>(number.size()),
                                                        address, 2, md5Check, L"SN");
        check(result, expected_.flashDownload(number, peer_->digest, address, md5Check));
    }

    void compare(const Image& image, std::uint32_t address) {
        peer_->digest = image.digest;
        const int result = flash_loader_md5_check(context_.get(), image.path.c_str(), address);
        check(result, expected_.md5Check(image, address));
    }

  private:
    bool check(int result, int expected) {
        require(expected_.isAtEnd(), "nothing is sent without a reason");
        require(result == expected, "result of the stage");
        require(told_ == expected_.told, "reports to the operator");
        require(context_->ramImage.stream == nullptr && context_->flashImage.stream == nullptr,
                "images are closed");
        return result == kUartOk;
    }

    std::unique_ptr<UartContext> context_;
    Peer* peer_;  // the context's port
    std::size_t stoppedIn_ = std::numeric_limits<std::size_t>::max();
    Expectation expected_;
    Told told_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TemporaryDirectory directory;
    silenceOutput();
    static const std::array<Image, 4> ramImages{
        Image(directory, "0/ramloader/flash_proxy.img", 1),
        Image(directory, "1/ramloader/flash_proxy.img", 0),
        Image(directory, "2/ramloader/flash_proxy.img", 4096),
        Image(directory, "3/ramloader/flash_proxy.img", 2049)};
    static const std::array<Image, 4> images{
        Image(directory, "one", 1), Image(directory, "empty", 0), Image(directory, "exact", 4096),
        Image(directory, "long", 8193)};
    constexpr std::uint32_t kAddresses[] = {0x80000000, 0x80010000, 0x7FFFFFFF, 0x80800000,
                                            0x807FFFFF, 0x807FF000, 0xFFFFFFFF, 0};

    Script script(data, size);
    const std::uint8_t restOfTime = script.next();
    const std::uint8_t choice = script.next();
    const std::uint8_t place = script.next();
    Burn burn(script, restOfTime);
    const std::size_t ramImage = choice & 3;
    bool loaded = false;
    for (int attempt = 0; attempt < 3 && !loaded; ++attempt)
        loaded =
            burn.loadRam(directory.path() / std::to_string(ramImage), ramImages.at(ramImage).bytes);
    if (!loaded || !burn.raiseRate())
        return 0;
    const bool md5Check = (choice & 16) != 0;
    burn.write(images.at((choice >> 2) & 3), kAddresses[place & 7], md5Check);
    if ((choice & 32) != 0)
        burn.compare(images.at(choice >> 6), kAddresses[place & 7]);
    burn.write(script.take(place >> 4), kAddresses[(place >> 3) & 1], md5Check);
    return 0;
}
