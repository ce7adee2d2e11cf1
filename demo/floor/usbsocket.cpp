#include "demo/floor/usbsocket.h"

#include <functional>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr std::uint32_t kAccessDenied = 5;    // ERROR_ACCESS_DENIED
constexpr std::uint64_t kLeavesAt = 500'000;  // bytes

struct Trouble {
    const char* name;
    std::function<void(VirtualUsbDevice& device, VirtualUsbBus& bus)> make;
};

Trouble rule(const char* name, UsbFaultRule fault) {
    return {name, [fault = std::move(fault)](VirtualUsbDevice& device, VirtualUsbBus& /*bus*/) {
                device.addFault(fault);
            }};
}

const std::vector<Trouble>& all() {
    static const std::vector<Trouble> troubles{
        {"无故障", [](VirtualUsbDevice&, VirtualUsbBus&) {}},
        rule("ROM拒绝数据",
             {.where = UsbFaultPoint::kMemData, .what = UsbFault::romStatus(0xF1), .skip = 3}),
        rule("ROM不接收数据", {.where = UsbFaultPoint::kMemBegin,
                               .what = UsbFault::refuseWrite(),
                               .times = UsbFaultRule::kAlways}),
        // It is the next one to be opened that suffers.
        {"设备打不开", [](VirtualUsbDevice&,
                          VirtualUsbBus& bus) { bus.fail(UsbOperation::kClaim, kAccessDenied); }},
        rule("burner不应答", {.where = UsbFaultPoint::kSync,
                              .what = UsbFault::swallow(),
                              .times = UsbFaultRule::kAlways}),
        rule("flash编程失败", {.where = UsbFaultPoint::kChunk,
                               .what = UsbFault::error("flash program failed"),
                               .skip = 100}),
        rule("flash错一位",
             {.where = UsbFaultPoint::kChunk, .what = UsbFault::corrupt(10), .skip = 100}),
        rule("中途无应答", {.where = UsbFaultPoint::kChunk,
                            .what = UsbFault::swallow(),
                            .skip = 100,
                            .times = UsbFaultRule::kAlways}),
        {"中途断开",
         [](VirtualUsbDevice& device, VirtualUsbBus&) { device.unplugAtByte(kLeavesAt); }},
    };
    return troubles;
}

UsbDeviceOptions optionsFor(Pace pace) {
    if (pace == Pace::kFast)
        return {};
    return {.romStartUp = 50ms,
            .handOver = 50ms,
            .eraseTime = 40ms,
            .chunkTime = 15ms,
            .resultTime = 150ms};
}

}  // namespace

UsbSocket::UsbSocket(VirtualUsbBus& bus, int number)
    : bus_(bus), port_("0000:00:14.0-1." + std::to_string(number)) {}

QString UsbSocket::name() const {
    return QString::fromStdString("USB " + port_.substr(port_.rfind('.') + 1));
}

QStringList UsbSocket::troubles() const {
    QStringList names;
    for (const Trouble& trouble : all())
        names.append(QString::fromUtf8(trouble.name));
    return names;
}

void UsbSocket::plug(int trouble, Pace pace) {
    device_ = std::make_shared<VirtualUsbDevice>(optionsFor(pace));
    all()[static_cast<std::size_t>(trouble)].make(*device_, bus_);
    bus_.plug(port_, device_);
}

void UsbSocket::unplug() {
    bus_.unplug(port_);
}

bool UsbSocket::isPlugged() const {
    return bus_.isPlugged(port_);
}

std::shared_ptr<const Flash> UsbSocket::flash() const {
    if (device_ == nullptr)
        return nullptr;
    return {device_, &device_->flash()};
}

}  // namespace simulator
