#include "demo/floor/serialsocket.h"

#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr std::uint64_t kLeavesAt = 300'000;  // bytes

struct Trouble {
    const char* name;
    std::vector<SerialFaultRule> rules = {};
    std::uint64_t leavesAt = UINT64_MAX;
};

SerialFaultRule always(SerialFaultPoint where, const SerialFault& what, std::uint32_t skip = 0) {
    return {.where = where, .what = what, .skip = skip, .times = SerialFaultRule::kAlways};
}

const std::vector<Trouble>& all() {
    using Point = SerialFaultPoint;
    static const std::vector<Trouble> troubles{
        {"无故障"},
        {"ROM不应答", {always(Point::kRomSync, SerialFault::silence())}},
        {"flash proxy不应答", {always(Point::kProxySync, SerialFault::silence())}},
        {"拒绝波特率", {always(Point::kChangeBaudrate, SerialFault::refuse(1, 0))}},
        {"拒绝开始", {always(Point::kFlashBegin, SerialFault::refuse(1, 0))}},
        {"拒绝数据", {always(Point::kFlashData, SerialFault::refuse(1, 0), 50)}},
        {"中途无应答", {always(Point::kFlashData, SerialFault::silence(), 50)}},
        {"拒绝校验", {always(Point::kMd5, SerialFault::badEscape())}},
        {"MD5不符", {always(Point::kMd5, SerialFault::wrongDigest())}},
        {"拒绝结束", {always(Point::kFlashEnd, SerialFault::refuse(1, 0))}},
        {"线路有噪声", {always(Point::kFlashData, SerialFault::noise("#~?", "\x55"), 20)}},
        {"中途断开", {}, kLeavesAt},
    };
    return troubles;
}

SerialDeviceOptions optionsFor(Pace pace) {
    SerialDeviceOptions options;
    options.paced = pace == Pace::kReal;
    if (pace == Pace::kReal) {
        options.romStartUp = 50ms;
        options.proxyStartUp = 200ms;
        options.eraseTime = 40ms;
        options.digestTime = 50ms;
    }
    return options;
}

}  // namespace

SerialSocket::SerialSocket(VirtualSerialPorts& ports, const std::filesystem::path& directory,
                           int number)
    : ports_(ports), port_(directory / ("ttyUSB" + std::to_string(number))) {}

QString SerialSocket::name() const {
    return QString::fromStdString(port_.filename().string());
}

QStringList SerialSocket::troubles() const {
    QStringList names;
    for (const Trouble& trouble : all())
        names.append(QString::fromUtf8(trouble.name));
    return names;
}

void SerialSocket::plug(int trouble, Pace pace) {
    unplug();
    device_ = std::make_shared<VirtualSerialDevice>(port_, optionsFor(pace));
    const Trouble& chosen = all()[static_cast<std::size_t>(trouble)];
    for (const SerialFaultRule& rule : chosen.rules)
        device_->addFault(rule);
    device_->unplugAtByte(chosen.leavesAt);
    device_->plugIn();
    ports_.arrive(port_);
    present_ = true;
}

void SerialSocket::unplug() {
    if (device_ != nullptr)
        device_->unplug();
    if (present_)
        ports_.leave(port_);
    present_ = false;
}

bool SerialSocket::isPlugged() const {
    return present_ && device_->isPluggedIn();
}

std::shared_ptr<const Flash> SerialSocket::flash() const {
    if (device_ == nullptr)
        return nullptr;
    return {device_, &device_->flash()};
}

}  // namespace simulator
