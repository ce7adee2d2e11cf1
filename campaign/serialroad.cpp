#include "campaign/serialroad.h"

#include <chrono>

using simulator::SerialFault;
using simulator::SerialFaultPoint;
using simulator::VirtualSerialDevice;

namespace campaign {
namespace {

std::string rollNoise(Dice& dice) {
    std::string bytes(dice.below(40), '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(dice.below(256));
    return bytes;
}

SerialFault rollFault(Dice& dice) {
    const auto byte = [&] { return static_cast<std::uint8_t>(dice.below(256)); };
    const auto time = [&] { return std::chrono::milliseconds(dice.between(1, 8000)); };
    switch (dice.below(15)) {
        case 0:
            return SerialFault::swallow();
        case 1:
        case 2:
            return SerialFault::refuse(byte(), static_cast<std::uint8_t>(dice.between(1, 255)));
        case 3:
            return dice.chance(50) ? SerialFault::stall() : SerialFault::stall(time());
        case 4:
            return SerialFault::rawAnswer(rollNoise(dice));
        case 5:
            return dice.chance(50) ? SerialFault::badEscape() : SerialFault::emptyFrame();
        case 6:
            return SerialFault::silence();
        case 7:
            return SerialFault::lateAnswer(time());
        case 8:
            return SerialFault::cutAnswer(dice.below(14), time());
        case 9:
            return SerialFault::noise(rollNoise(dice), rollNoise(dice));
        case 10:
            return SerialFault::longFrame(dice.below(3000));
        case 11:
            return SerialFault::earlierAnswer();
        case 12:
            return SerialFault::unplugInAnswer(dice.below(14));
        case 13:
            return dice.chance(50) ? SerialFault::unplug() : SerialFault::wrongDigest();
        default:
            return SerialFault::corrupt(dice.below(4096));
    }
}

}  // namespace

std::string SerialRoad::place(std::size_t socket) const {
    return "ttyUSB" + std::to_string(socket);
}

void SerialRoad::makeDevice(std::size_t socket, Dice& dice, bool troubled) {
    simulator::SerialDeviceOptions options;
    options.romStartUp = std::chrono::milliseconds(dice.below(300));
    options.proxyStartUp = std::chrono::milliseconds(dice.below(300));
    options.eraseTime = std::chrono::milliseconds(dice.below(50));
    options.blockTime = std::chrono::microseconds(dice.below(3000));
    options.digestTime = std::chrono::milliseconds(dice.below(50));
    devices_[socket] = std::make_shared<VirtualSerialDevice>(directory_ / place(socket), options);
    if (!troubled)
        return;
    for (std::uint32_t faults = dice.between(0, 3); faults > 0; --faults) {
        const auto where = static_cast<SerialFaultPoint>(dice.below(simulator::kSerialFaultPoints));
        const SerialFault what = where == SerialFaultPoint::kWrongRate
                                     ? SerialFault::rawAnswer(rollNoise(dice))
                                     : rollFault(dice);
        devices_[socket]->addFault(
            {.where = where,
             .what = what,
             .skip = dice.below(5),
             .times = dice.chance(10) ? simulator::SerialFaultRule::kAlways : dice.between(1, 9)});
    }
    if (dice.chance(25))
        devices_[socket]->unplugAtByte(dice.below(60'000));
}

void SerialRoad::plug(std::size_t socket) {
    devices_[socket]->plugIn();
    ports_.arrive(directory_ / place(socket));
}

void SerialRoad::unplug(std::size_t socket) {
    devices_[socket]->unplug();
    ports_.leave(directory_ / place(socket));
}

bool SerialRoad::isPlugged(std::size_t socket) const {
    return devices_[socket] && devices_[socket]->isPluggedIn();
}

std::shared_ptr<const simulator::Flash> SerialRoad::flash(std::size_t socket) const {
    return {devices_[socket], &devices_[socket]->flash()};
}

std::vector<std::string> SerialRoad::breaches(std::size_t socket) const {
    return devices_[socket] ? devices_[socket]->errors() : std::vector<std::string>();
}

}  // namespace campaign
