// A whole USB burn with a device that answers anything and transfers that end in any way. What went
// over the wire is held against the commands as they are meant to be: every record, chunk and read
// has its reason, its pause and its place, and a burn counts as done exactly when the device has
// confirmed each image and the number.
#include <cmath>
#include <string>
#include <vector>

#include "fuzzedusb.h"
#include "fuzzing.h"
#include "leapingclock.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"
#include "vorlan/burn/burnagent.h"

using namespace std::chrono_literals;

namespace {

Bytes recordOf(std::uint32_t flags, std::uint8_t code, std::uint64_t low, std::uint32_t high) {
    Bytes record;
    const std::uint32_t first = std::uint32_t{code} << 25 | flags;
    for (int shift = 0; shift < 32; shift += 8)
        record.push_back(static_cast<std::uint8_t>(first >> shift));
    for (int shift = 0; shift < 64; shift += 8)
        record.push_back(static_cast<std::uint8_t>(low >> shift));
    for (int shift = 0; shift < 32; shift += 8)
        record.push_back(static_cast<std::uint8_t>(high >> shift));
    return record;
}

std::uint64_t bitwiseCrc64(const Bytes& bytes) {
    std::uint64_t crc = 0;
    for (const std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x95AC9329AC4BC9B5 : 0);
    }
    return crc;
}

std::uint8_t codeOf(const Bytes& record) {
    return record.at(3) >> 1;
}

// The burner image on the device. It does well unless the script has it do otherwise.
class Device {
  public:
    Device(Script& script, std::uint8_t restOfTime) : script_(script), restOfTime_(restOfTime) {}

    const std::vector<Transfer>* transfers = nullptr;

    static Bytes answer(void* device, std::uint8_t endpoint, std::uint32_t wanted) {
        return static_cast<Device*>(device)->answerTo(endpoint, wanted);
    }

  private:
    enum Action : std::uint8_t {
        kDoWell,
        kSayRetry,
        kSayOngoing,
        kSayReady,
        kSaySuccess,
        kNameNoCommand,
        kNameOtherCommand,
        kFail,
        kSayAnything,
        kActions
    };

    Bytes answerTo(std::uint8_t endpoint, std::uint32_t wanted) {
        if (wanted != kRecordSize)
            return script_.take(wanted);  // a description
        const std::uint8_t command = endpoint == EP_ADDR_DATA_RESP_IN
                                         ? std::uint8_t{CMD_CODE_FLASH_WRITE}
                                         : lastCommand(true);
        std::uint8_t response = command == CMD_CODE_FLASH_WRITE ? RESP_CODE_READY
                                : command == CMD_CODE_VERIFY_ONLY || command == CMD_CODE_ERASE_ONLY
                                    ? RESP_CODE_ONGOING
                                    : RESP_CODE_SUCCESS;
        std::uint8_t origin = command == CMD_CODE_GET_RESULT ? lastCommand(false) : command;
        std::uint8_t length = 0;
        switch (script_.next(restOfTime_) % kActions) {
            case kSayRetry:
                response = RESP_CODE_RETRY;
                break;
            case kSayOngoing:
                response = RESP_CODE_ONGOING;
                break;
            case kSayReady:
                response = RESP_CODE_READY;
                break;
            case kSaySuccess:
                response = RESP_CODE_SUCCESS;
                break;
            case kNameNoCommand:
                origin = 0;
                break;
            case kNameOtherCommand:
                origin = script_.next(7);
                break;
            case kFail:
                response = RESP_CODE_ERROR;
                length = script_.next();
                break;
            case kSayAnything:
                return script_.take(kRecordSize);
            default:
                break;
        }
        Bytes record(kRecordSize, 0xA5);
        record[3] = static_cast<std::uint8_t>(response << 1 | 1);
        record[4] = origin;
        record[5] = length;
        return record;
    }

    // The code of the last command; those that only ask do not count unless `anyKind`.
    std::uint8_t lastCommand(bool anyKind) const {
        for (auto it = transfers->rbegin(); it != transfers->rend(); ++it) {
            if (it->endpoint != EP_ADDR_CMD_RESP_OUT)
                continue;
            const std::uint8_t code = codeOf(it->bytes);
            if (anyKind || (code != CMD_CODE_SYNC && code != CMD_CODE_GET_RESULT))
                return code;
        }
        return 0;
    }

    Script& script_;
    std::uint8_t restOfTime_;
};

struct Image {
    std::string path;
    Bytes bytes;
    std::uint64_t crc = 0;
    bool exists = true;
};

struct Listener final : BurnListener {
    void onBurnStart(BurnAgent*) override { reports.emplace_back("start"); }
    void onBurnProgress(BurnAgent*, const std::string& name, unsigned percent) override {
        reports.push_back(name + " " + std::to_string(percent));
    }
    void onItemProgress(BurnAgent*, const BurnItem* item, unsigned percent) override {
        reports.push_back(text::narrow(item->file) + " " + std::to_string(percent));
    }
    void onBurnDone(BurnAgent*) override { reports.emplace_back("done"); }
    void onBurnError(BurnAgent*, int code, const std::string& message) override {
        reports.push_back("error " + std::to_string(code) + " " + message);
    }

    std::vector<std::string> reports;
};

// Goes along the transfers, command by command, and says what the burn had to make of them.
class Expectation {
  public:
    explicit Expectation(const std::vector<Transfer>& transfers) : transfers_(transfers) {}

    bool isAtEnd() const { return at_ == transfers_.size(); }

    std::vector<std::string> reports;

    bool run(const std::vector<const Image*>& images, std::uint32_t address, const std::string& sn,
             std::uint32_t snAddress, unsigned mode) {
        if (!sync(10)) {
            reports.emplace_back("error -2 Failed to sync device!");
            return false;
        }
        pause_ += 1ms;
        reports.emplace_back("start");
        for (const Image* const image : images) {
            if (!image->exists) {
                reports.push_back("error -3 Open file failed! path=" + image->path);
                return false;
            }
            const bool done = mode == 1   ? write(image->bytes, image->crc, address, image->path)
                              : mode == 3 ? scan(CMD_CODE_ERASE_ONLY, *image, address)
                                          : verify(*image, address);
            if (!done)
                return false;
        }
        const Bytes number(sn.begin(), sn.end());
        if (!sn.empty() && !write(number, bitwiseCrc64(number), snAddress, "SN=" + sn))
            return false;
        reports.emplace_back("done");
        return true;
    }

  private:
    enum class Answer { kYes, kNo, kAgain };

    const Transfer& next(std::uint8_t endpoint) {
        require(at_ < transfers_.size(), "no step is left out");
        const Transfer& transfer = transfers_[at_++];
        require(transfer.endpoint == endpoint, "steps in their order");
        require(transfer.begin == now_ + pause_, "pause before the step");
        require(!transfer.cutShort, "a read that is cut short goes on for the rest");
        now_ = transfer.end;
        pause_ = 0ms;
        return transfer;
    }

    bool send(const Bytes& record) {
        const Transfer& transfer = next(EP_ADDR_CMD_RESP_OUT);
        require(transfer.bytes == record, "record of the command");
        return transfer.code == 0 && transfer.isWhole();
    }

    const Transfer& readRecord(std::uint8_t endpoint) {
        const Transfer& transfer = next(endpoint);
        require(transfer.wanted == 16, "an answer has 16 bytes");
        return transfer;
    }

    // A failure's description is taken off the wire.
    void takeDescription(const Bytes& record) {
        if (record[5] != 0)
            require(next(EP_ADDR_CMD_RESP_IN).wanted == record[5], "length of the description");
    }

    bool sync(int tries) {
        for (int i = 0; i < tries; ++i) {
            if (!send(recordOf(0, CMD_CODE_SYNC, 0, 0))) {
                pause_ += 10ms;
                continue;
            }
            const Transfer& answer = readRecord(EP_ADDR_CMD_RESP_IN);
            if (!answer.isWhole() || codeOf(answer.bytes) == RESP_CODE_RETRY) {
                pause_ += 10ms;
                continue;
            }
            const std::uint8_t origin = answer.bytes[4];
            if (codeOf(answer.bytes) == RESP_CODE_SUCCESS &&
                (origin == CMD_CODE_SYNC || origin == 0))
                return true;
            if (codeOf(answer.bytes) == RESP_CODE_ERROR) {
                takeDescription(answer.bytes);
                return false;
            }
        }
        return false;
    }

    // One of the commands that are tried three times. `origins` of the answer count.
    bool begin(const Bytes& record, std::uint8_t awaited, const std::vector<int>& origins) {
        for (int i = 0; i < 3; ++i) {
            if (!send(record))
                return false;
            const Transfer& answer = readRecord(EP_ADDR_CMD_RESP_IN);
            if (!answer.isWhole()) {
                pause_ += 10ms;
                continue;
            }
            if (!origins.empty() &&
                std::find(origins.begin(), origins.end(), answer.bytes[4]) == origins.end())
                continue;
            const std::uint8_t code = codeOf(answer.bytes);
            if (code == awaited)
                return true;
            if (code == RESP_CODE_ERROR) {
                takeDescription(answer.bytes);
                return false;
            }
            if (code == RESP_CODE_RETRY)
                pause_ += 10ms;
        }
        return false;
    }

    bool result(std::uint8_t command, std::uint32_t timeout) {
        for (std::uint32_t i = 0; i < (timeout + 100) / 100; ++i) {
            if (!send(recordOf(0, CMD_CODE_GET_RESULT, 0, 0)))
                return false;
            const Transfer& answer = readRecord(EP_ADDR_CMD_RESP_IN);
            if (answer.isWhole() && (answer.bytes[4] == command || answer.bytes[4] == 0)) {
                const std::uint8_t code = codeOf(answer.bytes);
                if (code == RESP_CODE_SUCCESS)
                    return true;
                if (code == RESP_CODE_ERROR) {
                    takeDescription(answer.bytes);
                    return false;
                }
            }
            pause_ += 100ms;
        }
        return false;
    }

    static std::uint32_t startedMiB(std::size_t size) {
        return static_cast<std::uint32_t>((size + 0xFFFFF) >> 20);
    }

    static std::uint64_t area(std::uint32_t address, std::size_t size) {
        return address | std::uint64_t{size} << 32;
    }

    bool announceCrc(std::uint64_t crc) {
        return begin(recordOf(8, CMD_CODE_SET_CRC64, crc, 0), RESP_CODE_SUCCESS,
                     {CMD_CODE_SET_CRC64});
    }

    bool write(const Bytes& bytes, std::uint64_t crc, std::uint32_t address,
               const std::string& name) {
        const auto report = [&](unsigned percent) {
            reports.push_back(name + " " + std::to_string(percent));
        };
        if (!announceCrc(crc) ||
            !begin(recordOf(8, CMD_CODE_FLASH_WRITE, area(address, bytes.size()), 0),
                   RESP_CODE_READY, {}))
            return false;
        pause_ += 10ms;
        report(0);
        unsigned data = 0;
        float credit = 0;
        unsigned last = 0;
        const auto reportIfDue = [&] {
            const float value = static_cast<float>(data) + credit;
            if (value - static_cast<float>(last) <= 0.5F)
                return;
            last = static_cast<unsigned>(std::lround(value));
            report(last);
        };
        const std::uint32_t maxWait = startedMiB(bytes.size()) * 15;
        for (std::size_t sent = 0; sent < bytes.size();) {
            const std::size_t count = std::min<std::size_t>(4096, bytes.size() - sent);
            const Transfer& chunk = next(EP_ADDR_DATA_RESP_OUT);
            require(chunk.bytes.size() == count &&
                        std::equal(chunk.bytes.begin(), chunk.bytes.end(),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(sent)),
                    "chunk of the image");
            if (chunk.code != 0 || !chunk.isWhole())
                return false;
            const auto start = std::chrono::floor<std::chrono::seconds>(now_);
            const Transfer* answer = nullptr;
            for (;;) {
                answer = &readRecord(EP_ADDR_DATA_RESP_IN);
                if (answer->isWhole())
                    break;
                const auto elapsed = std::chrono::floor<std::chrono::seconds>(now_) - start;
                if (answer->code != libusbk::kCancelled || elapsed.count() > maxWait || !sync(3))
                    return false;
                credit = std::min(credit + 0.5F, 50.0F);
                reportIfDue();
                pause_ += 20ms;
            }
            if (codeOf(answer->bytes) == RESP_CODE_ERROR)
                takeDescription(answer->bytes);
            if (codeOf(answer->bytes) != RESP_CODE_READY)
                return false;
            sent += count;
            data = static_cast<unsigned>((sent * 45 + bytes.size() / 2) / bytes.size());
            reportIfDue();
        }
        if (!result(CMD_CODE_FLASH_WRITE, maxWait * 2000))
            return false;
        report(100);
        return true;
    }

    bool scan(CommandCode code, const Image& image, std::uint32_t address) {
        if (!begin(recordOf(8, code, area(address, image.bytes.size()), 0), RESP_CODE_ONGOING,
                   {code, 0}))
            return false;
        pause_ += 20ms;
        return result(code, startedMiB(image.bytes.size()) * 10000);
    }

    bool verify(const Image& image, std::uint32_t address) {
        return announceCrc(image.crc) && scan(CMD_CODE_VERIFY_ONLY, image, address);
    }

    const std::vector<Transfer>& transfers_;
    std::size_t at_ = 0;
    std::chrono::milliseconds now_{0};
    std::chrono::milliseconds pause_{0};  // before the next transfer
};

std::vector<Image> makeImages(const TemporaryDirectory& directory) {
    std::vector<Image> images;
    for (const std::size_t size : {0UL, 1UL, 4096UL, 4097UL, 10000UL}) {
        Image image;
        for (std::size_t i = 0; i < size; ++i)
            image.bytes.push_back(static_cast<std::uint8_t>(i * 7 + i / 251));
        image.path = directory.write(std::to_string(size),
                                     std::string(image.bytes.begin(), image.bytes.end()));
        image.crc = bitwiseCrc64(image.bytes);
        images.push_back(image);
    }
    images.push_back({(directory.path() / "missing").string(), {}, 0, false});
    return images;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TemporaryDirectory directory;
    static const std::vector<Image> allImages = makeImages(directory);
    silenceOutput();
    FuzzedUsb::install();
    constexpr std::uint32_t kAddress = 0x100000;
    constexpr std::uint32_t kSnAddress = 0x7FF004;
    constexpr std::uint8_t kOpenSteps = 9;  // calls that open something in a burn

    leapingclock::reset();
    Script script(data, size);
    Device device(script, script.next());
    FuzzedUsb usb(script, script.next(), Device::answer, &device);
    device.transfers = &usb.transfers;
    const std::uint8_t way = script.next();
    const unsigned mode = (way & 0x0C) != 0 ? CMD_CODE_FLASH_WRITE : (way & 3);
    usb.driverId = (way & 0x10) != 0 ? libusbk::kDriverIdLibusb : 0;
    const bool opens = (way & 0xE0) != 0;
    if (!opens)
        usb.openSteps = script.next() % kOpenSteps;
    std::vector<const Image*> images;
    std::vector<BurnItem> items;
    for (std::uint8_t count = script.next() % 4; count > 0; --count) {
        images.push_back(&allImages[script.next() % allImages.size()]);
        items.push_back({text::widen(images.back()->path), kAddress});
    }
    const Bytes number = script.take(script.next() % 16);
    const std::string sn(number.begin(), number.end());

    BurnAgent agent("USB\\VID_1234&PID_5678\\1");
    agent.set_sn(sn, kSnAddress);
    Listener listener;
    agent.run(items, &listener, mode);

    Expectation expected(usb.transfers);
    if (opens)
        require(agent.is_done() == expected.run(images, kAddress, sn, kSnAddress, mode),
                "done is what the device has confirmed");
    else
        expected.reports.emplace_back("error -1 Cannot open device!");
    require(expected.isAtEnd(), "nothing is sent without a reason");
    require(listener.reports == expected.reports, "reports");
    require(usb.isAtRest(), "all is closed");
    return 0;
}
