// The download of the burner image with a ROM loader that answers anything and transfers that end
// in any way. The image counts as started exactly when each message was acknowledged, no message is
// sent more than ten times, and whoever waits for the device is told once what became of it.
#include <string>
#include <vector>

#include "fuzzedusb.h"
#include "fuzzing.h"
#include "leapingclock.h"
#include "support/temporarydirectory.h"
#include "vorlan/burn/burnadmin.h"
#include "vorlan/burn/fw_download.h"
#include "vorlan/burn/usb_protocol.h"

using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t kReplySize = 10;
constexpr auto kRomWait = 100ms;

// The ROM loader. It does well unless the script has it do otherwise.
struct Rom {
    Script& script;
    std::uint8_t restOfTime;

    static Bytes answer(void* device, std::uint8_t endpoint, std::uint32_t wanted) {
        require(endpoint == EP_ADDR_CMD_RESP_IN && wanted == kReplySize, "reply of the ROM");
        Rom& rom = *static_cast<Rom*>(device);
        Bytes reply(kReplySize, 0xFF);
        reply[8] = 0;
        switch (rom.script.next(rom.restOfTime) % 4) {
            case 0:
                break;
            case 1:
                reply[8] = rom.script.next(5);
                break;
            case 2:
                reply[8] = rom.script.next(0xF0) | 0xF0;
                break;
            default:
                return rom.script.take(kReplySize);
        }
        return reply;
    }
};

struct Listener final : UsbListener {
    void onPlug(SesHandle) override { reports.emplace_back("plug"); }
    void onBurnerReady(SesHandle session) override {
        require(session->usbHandle == nullptr && session->ovlPool == nullptr,
                "the burner image is opened anew");
        reports.emplace_back("ready");
    }
    void onRemove(SesHandle) override { reports.emplace_back("remove"); }
    void onError(SesHandle, std::uint32_t code, const std::string& message) override {
        require(code != 0, "an error has a code");
        reports.push_back(message);
    }

    std::vector<std::string> reports;
};

// Goes along the transfers, message by message.
class Expectation {
  public:
    Expectation(const std::vector<Transfer>& transfers, bool hasSlot)
        : transfers_(transfers), hasSlot_(hasSlot) {}

    bool isAtEnd() const { return at_ == transfers_.size(); }
    std::chrono::milliseconds end() const { return now_ + pause_; }

    std::vector<std::string> reports;

    bool run(const Bytes& image, const std::string& path) {
        if (image.empty()) {
            reports.push_back("Empty file! path=" + path);
            return false;
        }
        pause_ = kRomWait;
        const auto size = static_cast<std::uint32_t>(image.size());
        if (!send(5, 0, {size, (size + 2047) / 2048, 2048, 0}, {}))
            return false;
        for (std::size_t at = 0; at < image.size(); at += 2048) {
            const auto first = image.begin() + static_cast<std::ptrdiff_t>(at);
            const auto count = std::min<std::size_t>(2048, image.size() - at);
            const Bytes block(first, first + static_cast<std::ptrdiff_t>(count));
            std::uint32_t checksum = 0xEF;
            for (const std::uint8_t byte : block)
                checksum ^= byte;
            if (!send(7, checksum,
                      {static_cast<std::uint32_t>(count), static_cast<std::uint32_t>(at / 2048), 0,
                       0},
                      block))
                return false;
        }
        if (!send(6, 0, {0, 0}, {}))
            return false;
        pause_ += 90ms;  // the image starts
        reports.emplace_back("ready");
        return true;
    }

  private:
    const Transfer& next(std::uint8_t endpoint) {
        require(at_ < transfers_.size(), "no step is left out");
        const Transfer& transfer = transfers_[at_++];
        require(transfer.endpoint == endpoint, "steps in their order");
        require(transfer.begin == now_ + pause_, "pause before the step");
        now_ = transfer.end;
        pause_ = 0ms;
        return transfer;
    }

    bool send(std::uint8_t command, std::uint32_t checksum,
              std::initializer_list<std::uint32_t> words, const Bytes& payload) {
        Bytes message{0, command};
        const std::size_t length = words.size() * 4 + payload.size();
        message.push_back(static_cast<std::uint8_t>(length));
        message.push_back(static_cast<std::uint8_t>(length >> 8));
        const auto appendWord = [&](std::uint32_t word) {
            for (int shift = 0; shift < 32; shift += 8)
                message.push_back(static_cast<std::uint8_t>(word >> shift));
        };
        appendWord(checksum);
        for (const std::uint32_t word : words)
            appendWord(word);
        message.insert(message.end(), payload.begin(), payload.end());

        for (int retries = 0; retries < 10; ++retries) {
            const Transfer& request = next(EP_ADDR_DATA_RESP_OUT);
            require(request.bytes == message, "message to the ROM");
            // Every way from here to the next message leads through a pause.
            pause_ = 10ms;
            if (request.code != 0 || (!hasSlot_ && !request.isWhole()))
                continue;
            pause_ = 0ms;
            const Transfer& reply = next(EP_ADDR_CMD_RESP_IN);
            pause_ = 10ms;
            if (reply.code != 0 || !reply.isWhole())
                continue;
            const std::uint8_t status = reply.bytes[8];
            if (status == 0)
                return true;
            if (status >= 0xF0) {
                pause_ = 0ms;
                reports.push_back("Return Fatal Error! (retries = " + std::to_string(retries) +
                                  ")");
                return false;
            }
        }
        reports.emplace_back("Retry WritePipe has reaches max (10)!");
        return false;
    }

    const std::vector<Transfer>& transfers_;
    bool hasSlot_;
    std::size_t at_ = 0;
    std::chrono::milliseconds now_{0};
    std::chrono::milliseconds pause_{0};  // before the next transfer
};

struct Image {
    std::string path;
    Bytes bytes;
};

std::vector<Image> makeImages(const TemporaryDirectory& directory) {
    std::vector<Image> images;
    for (const std::size_t size : {1UL, 0UL, 2048UL, 2049UL, 5000UL}) {
        Image image;
        for (std::size_t i = 0; i < size; ++i)
            image.bytes.push_back(static_cast<std::uint8_t>(i * 7 + i / 251));
        image.path = directory.write(std::to_string(size),
                                     std::string(image.bytes.begin(), image.bytes.end()));
        images.push_back(image);
    }
    return images;
}

BurnAdmin& makeAdmin(Listener& listener) {
    FuzzedUsb::install();
    BurnAdmin* const admin = BurnAdmin::getInstance();
    admin->setRomWait(kRomWait.count());
    admin->startMonitor(&listener);
    return *admin;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    static const TemporaryDirectory directory;
    static const std::vector<Image> images = makeImages(directory);
    static Listener listener;
    static BurnAdmin& admin = makeAdmin(listener);

    leapingclock::reset();
    listener.reports.clear();
    Script script(data, size);
    Rom rom{script, script.next()};
    FuzzedUsb usb(script, script.next(), Rom::answer, &rom);
    const std::uint8_t way = script.next();
    const std::size_t choice = (way >> 2) % (images.size() + 1);
    const bool isMissing = choice == images.size();
    const std::string path =
        isMissing ? (directory.path() / "missing").string() : images[choice].path;

    BURN_SESSION session;
    session.device_id = "USB\\VID_1234&PID_5678\\1";
    session.usbHandle = usb.open();
    if ((way & 1) == 0)
        session.ovlPool = usb.makePool(session.usbHandle, 1);
    if ((way & 2) != 0)
        usb.openSteps = 0;
    admin.setBurnerPath(path);
    const unsigned result = FwDownloadProc(&session);

    Expectation expected(usb.transfers, (way & 3) == 0);
    const bool started = !isMissing && expected.run(images[choice].bytes, path);
    require(result == (started ? 0U : 1U), "started is what the ROM has acknowledged");
    require(expected.isAtEnd(), "nothing is sent without a reason");
    require(listener.reports == expected.reports, "reports");
    require(!started || leapingclock::now() == expected.end(), "time for the image to start");
    if (isMissing) {
        // The session keeps its handle until it is removed.
        require(session.usbHandle != nullptr, "the handle stays the session's");
        if (session.ovlPool != nullptr)
            libusbkTable().OvlK_Free(session.ovlPool);
        libusbkTable().UsbK_Free(session.usbHandle);
    }
    require(usb.isAtRest(), "all is closed");
    return 0;
}
