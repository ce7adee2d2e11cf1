#include "campaign/usbroad.h"

#include <chrono>

using namespace std::chrono_literals;
using simulator::UsbFault;
using simulator::UsbFaultPoint;
using simulator::VirtualUsbDevice;

namespace campaign {
namespace {

UsbFault rollFault(Dice& dice) {
    const auto byte = [&] { return static_cast<std::uint8_t>(dice.below(256)); };
    const auto time = [&] { return std::chrono::milliseconds(dice.between(1, 12'000)); };
    switch (dice.below(16)) {
        case 0:
            return UsbFault::swallow();
        case 1:
            return UsbFault::romStatus(static_cast<std::uint8_t>(dice.between(1, 255)));
        case 2:
        case 3:  // among them RETRY and ONGOING
            return UsbFault::response(static_cast<std::uint8_t>(dice.between(1, 6)));
        case 4:
            return UsbFault::response(byte(), byte());
        case 5:
            return UsbFault::error(std::string(dice.below(300), 'e'));
        case 6:
            return UsbFault::error("shorter than it says", byte());
        case 7:
            return UsbFault::stall();
        case 8:
            return UsbFault::shortWrite(dice.below(600));
        case 9:
            return UsbFault::refuseWrite(dice.below(600));
        case 10:
            return UsbFault::silence();
        case 11:
            return UsbFault::shortAnswer(dice.below(12));
        case 12:
            return UsbFault::cutAnswer(dice.below(12), time());
        case 13:
            return UsbFault::lateAnswer(time());
        case 14:
            return dice.chance(50) ? UsbFault::wrongCmdorg(byte()) : UsbFault::stallAnswer();
        default:
            return dice.chance(50) ? UsbFault::corrupt(dice.below(2000))
                                   : UsbFault::unplug(dice.below(600));
    }
}

}  // namespace

std::string UsbRoad::port(std::size_t socket) {
    return "0000:00:14.0-" + std::to_string(socket / 8 + 1) + "." + std::to_string(socket % 8 + 1);
}

std::string UsbRoad::place(std::size_t socket) const {
    return "USB\\VID_1234&PID_5678\\" + port(socket);
}

void UsbRoad::makeDevice(std::size_t socket, Dice& dice, bool troubled) {
    simulator::UsbDeviceOptions options;
    options.romStartUp = std::chrono::milliseconds(dice.below(80));
    options.handOver = std::chrono::milliseconds(dice.below(80));
    options.eraseTime = std::chrono::milliseconds(dice.below(50));
    options.chunkTime = std::chrono::microseconds(dice.below(3000));
    options.resultTime = std::chrono::milliseconds(dice.below(200));
    devices_[socket] = std::make_shared<VirtualUsbDevice>(options);
    if (!troubled)
        return;
    for (std::uint32_t faults = dice.between(0, 3); faults > 0; --faults)
        devices_[socket]->addFault(
            {.where = static_cast<UsbFaultPoint>(dice.below(simulator::kUsbFaultPoints)),
             .what = rollFault(dice),
             .skip = dice.below(6),
             .times = dice.chance(10) ? simulator::UsbFaultRule::kAlways : dice.between(1, 12)});
    if (dice.chance(25))
        devices_[socket]->unplugAtByte(dice.below(60'000));
}

void UsbRoad::plug(std::size_t socket) {
    bus_.plug(port(socket), devices_[socket]);
}

void UsbRoad::unplug(std::size_t socket) {
    bus_.unplug(port(socket));
}

bool UsbRoad::isPlugged(std::size_t socket) const {
    return bus_.isPlugged(port(socket));
}

std::shared_ptr<const simulator::Flash> UsbRoad::flash(std::size_t socket) const {
    return {devices_[socket], &devices_[socket]->flash()};
}

std::vector<std::string> UsbRoad::breaches(std::size_t socket) const {
    return devices_[socket] ? devices_[socket]->errors() : std::vector<std::string>();
}

std::vector<std::string> UsbRoad::breaches() const {
    std::vector<std::string> breaches = bus_.errors();
    // A device whose answer to MEM_END gets lost is asked again when it is the burner image
    // already.
    std::erase(breaches, "a transfer with the burner image without a claim of the interface");
    if (bus_.openHandles() != 0)
        breaches.push_back(std::to_string(bus_.openHandles()) + " devices are still open");
    return breaches;
}

}  // namespace campaign
