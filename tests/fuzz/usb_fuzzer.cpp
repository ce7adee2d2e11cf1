// The burn of a USB device, from its ROM loader to its number, with any trouble that the strict
// virtual device can be told to make, anywhere. Every handle is closed in the end, and no image
// counts as burned that is not in the flash.
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fuzzing.h"
#include "simulator/clock/leapingclock.h"
#include "simulator/usb/virtualusbbus.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/fw_download.h"
#include "vorlan/burn/libusbktable.h"

namespace {

using simulator::UsbFault;
using simulator::UsbFaultPoint;

constexpr std::uint32_t kSnAddress = 0x7FF004;

UsbFault nextFault(Script& script) {
    const std::uint8_t kind = script.next() % 15;
    const std::uint8_t value = script.next();
    const std::chrono::milliseconds time(value * 20);
    switch (kind) {
        case 0:
            return UsbFault::swallow();
        case 1:
            return UsbFault::romStatus(value | 1);  // not that all is well
        case 2:
            return UsbFault::response(value, script.next());
        case 3: {
            const Bytes text = script.take(value);
            return UsbFault::error(std::string(text.begin(), text.end()), script.next());
        }
        case 4:
            return UsbFault::stall();
        case 5:
            return UsbFault::shortWrite(value);
        case 6:
            return UsbFault::refuseWrite(value);
        case 7:
            return UsbFault::unplug(value);
        case 8:
            return UsbFault::silence();
        case 9:
            return UsbFault::shortAnswer(value % 10);
        case 10:
            return UsbFault::cutAnswer(value % 10, std::chrono::milliseconds(script.next() * 20));
        case 11:
            return UsbFault::lateAnswer(time);
        case 12:
            return UsbFault::wrongCmdorg(value);
        case 13:
            return UsbFault::stallAnswer();
        default:
            return UsbFault::corrupt(value);
    }
}

// Each stage has answers of its own.
bool fits(const UsbFault& fault, UsbFaultPoint point) {
    const bool inRom = point < UsbFaultPoint::kFlashWrite;
    return inRom ? fault.kind != UsbFault::Kind::kResponse && fault.kind != UsbFault::Kind::kError
                 : fault.kind != UsbFault::Kind::kRomStatus;
}

// Listens to the ROM stage and to the burn.
class Listener final : public UsbListener, public BurnListener {
  public:
    void onPlug(SesHandle) override {}
    void onBurnerReady(SesHandle session) override {
        require(session->usbHandle == nullptr && session->ovlPool == nullptr,
                "the burner image is opened anew");
        ++ready;
    }
    void onRemove(SesHandle) override {}
    void onError(SesHandle, std::uint32_t code, const std::string& /*message*/) override {
        require(code != 0, "an error has a code");
        ++errors;
    }
    void onBurnStart(BurnAgent*) override {}
    void onBurnProgress(BurnAgent*, const std::string&, unsigned percent) override {
        require(percent <= 100, "percents");
    }
    void onItemProgress(BurnAgent*, const BurnItem*, unsigned percent) override {
        require(percent <= 100, "percents");
    }
    void onBurnDone(BurnAgent*) override { ++done; }
    void onBurnError(BurnAgent*, int, const std::string&) override { ++errors; }

    int ready = 0;
    int done = 0;
    int errors = 0;
};

struct Image {
    std::string path;
    Bytes bytes;
};

Image makeImage(const TemporaryDirectory& directory, std::size_t size) {
    Image image;
    for (std::size_t i = 0; i < size; ++i)
        image.bytes.push_back(static_cast<std::uint8_t>(i * 7 + i / 251));
    image.path =
        directory.write(std::to_string(size), std::string(image.bytes.begin(), image.bytes.end()));
    return image;
}

// As BurnAdmin opens a device that has arrived.
void openSession(BURN_SESSION& session) {
    const LibusbkTable& usb = libusbkTable();
    libusbk::DeviceList* list = nullptr;
    const libusbk::DeviceEntry* entry = nullptr;
    const libusbk::DevicePattern pattern{};
    require(usb.LstK_InitEx(&list, 0, &pattern) &&
                usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry) &&
                usb.UsbK_Init(&session.usbHandle, entry) &&
                usb.OvlK_Init(&session.ovlPool, session.usbHandle, 1, 0) && usb.LstK_Free(list),
            "the device is there");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TemporaryDirectory directory;
    static const Image burner = makeImage(directory, 4097);
    static const std::array<Image, 4> images{makeImage(directory, 1), makeImage(directory, 0),
                                             makeImage(directory, 4096),
                                             makeImage(directory, 8193)};
    static simulator::VirtualUsbBus bus;
    static Listener listener;
    static const LibusbkBinding binding;
    silenceOutput();
    leapingclock::reset();
    listener = {};

    Script script(data, size);
    const auto device = std::make_shared<simulator::VirtualUsbDevice>();
    bool honest = true;  // a device that lies can make anybody believe anything
    bool prompt = true;  // the ROM's answers do not tell to what they belong
    for (std::uint8_t count = script.next() % 5; count > 0; --count) {
        const auto point = static_cast<UsbFaultPoint>(script.next() % simulator::kUsbFaultPoints);
        const UsbFault fault = nextFault(script);
        honest = honest && fault.kind != UsbFault::Kind::kResponse;
        prompt = prompt && fault.kind != UsbFault::Kind::kLateAnswer &&
                 fault.kind != UsbFault::Kind::kCutAnswer;
        const std::uint8_t skip = script.next();
        const std::uint8_t times = script.next();
        if (fits(fault, point))
            device->addFault({point, fault, skip % 8U, times % 16U});
    }
    bus.deferTransfers(script.next() % 2 != 0);
    std::vector<BurnItem> items;
    std::vector<const Image*> chosen;
    for (std::uint8_t count = script.next() % 4; count > 0; --count) {
        chosen.push_back(&images.at(script.next() % images.size()));
        items.push_back(
            {text::widen(chosen.back()->path), static_cast<std::uint32_t>(chosen.size()) << 16});
    }
    const Bytes number = script.take(script.next() % 16);

    BURN_SESSION session;
    session.device_id = bus.plug("0-1", device);
    openSession(session);
    const bool started = FwDownloadProc(&session, {burner.path, 100, listener}) == 0;
    require(listener.ready == (started ? 1 : 0), "who waits is told once");
    if (started) {
        require(!prompt || device->downloadedBurner() == burner.bytes, "the burner image is in");
        BurnAgent agent(session.device_id);
        agent.set_sn(std::string(number.begin(), number.end()), kSnAddress);
        agent.run(items, &listener, CMD_CODE_FLASH_WRITE);
        require(agent.is_done() == (listener.done == 1), "done is told");
        bool there = number.empty() || device->flash().holds(kSnAddress, number);
        for (std::size_t i = 0; i < items.size(); ++i)
            there = there && device->flash().holds(items[i].addr, chosen[i]->bytes);
        require(!agent.is_done() || !honest || there, "what counts as burned is in the flash");
    }
    bus.unplug("0-1");
    require(bus.openHandles() == 0, "all is closed");
    return 0;
}
