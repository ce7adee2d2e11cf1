#include "simulator/kernelusb/mockusbdevice.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr std::chrono::seconds kPatience{20};

// One transfer has to stay one URB, or counts could not be told exactly.
constexpr std::uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
    USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

using Data = std::shared_ptr<UMockdevIoctlData>;

// What the pointer at `offset` points to, in the host's memory.
Data resolve(UMockdevIoctlData* data, std::size_t offset, std::size_t size) {
    Data target(umockdev_ioctl_data_resolve(data, offset, size, nullptr), [](auto* object) {
        if (object != nullptr)
            g_object_unref(object);
    });
    if (target == nullptr)
        throw std::runtime_error("the host's memory cannot be read");
    return target;
}

template <typename Value>
Value valueAt(const UMockdevIoctlData* data) {
    Value value;
    std::memcpy(&value, data->data, sizeof value);
    return value;
}

template <typename Value>
void store(const Data& data, std::size_t offset, Value value) {
    umockdev_ioctl_data_update(data.get(), offset, reinterpret_cast<guint8*>(&value), sizeof value);
}

// The memory that a call's argument points to.
Data argument(UMockdevIoctlClient* client, std::size_t size) {
    return resolve(umockdev_ioctl_client_get_arg(client), 0, size);
}

template <typename Value>
Value argument(UMockdevIoctlClient* client) {
    return valueAt<Value>(argument(client, sizeof(Value)).get());
}

bool isIn(std::uint8_t endpoint) {
    return (endpoint & 0x80) != 0;
}

}  // namespace

MockUsbDevice::MockUsbDevice(std::string sysfsName, int address, std::string node)
    : sysfsName_(std::move(sysfsName)),
      address_(address),
      node_(std::move(node)),
      handler_(umockdev_ioctl_base_new()) {
    g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(&MockUsbDevice::onIoctl), this);
    g_signal_connect(handler_, "client-vanished", G_CALLBACK(&MockUsbDevice::onVanished), this);
    // A FIFO, since the host polls for room to write: that can be turned on and off here. It has
    // one page, so that a single byte fills it.
    fifo_ = ::mkfifo(node_.c_str(), 0666) == 0
                ? ::open(node_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)
                : -1;
    if (fifo_ < 0 || ::fcntl(fifo_, F_SETPIPE_SZ, 4096) < 0)
        throw std::system_error(errno, std::generic_category(), node_);
    showFinished();
}

MockUsbDevice::~MockUsbDevice() {
    g_signal_handlers_disconnect_by_data(handler_, this);
    g_object_unref(handler_);
    ::close(fifo_);
}

void MockUsbDevice::setReceiver(Receiver receiver) {
    const std::lock_guard guard(mutex_);
    receiver_ = std::move(receiver);
}

void MockUsbDevice::send(std::uint8_t endpoint, const Bytes& bytes) {
    const std::lock_guard guard(mutex_);
    queue(endpoint, bytes);
    showFinished();
}

void MockUsbDevice::sendOnCancel(std::uint8_t endpoint, const Bytes& bytes) {
    const std::lock_guard guard(mutex_);
    onCancel_.emplace(endpoint, bytes);
}

void MockUsbDevice::stall(std::uint8_t endpoint) {
    const std::lock_guard guard(mutex_);
    halted_.insert(endpoint);
    for (Urb& urb : urbs_) {
        if (!urb.finished && urb.endpoint == endpoint)
            finish(urb, -EPIPE);
    }
    showFinished();
}

void MockUsbDevice::bindDriver(const std::string& name) {
    const std::lock_guard guard(mutex_);
    driver_ = name;
}

std::string MockUsbDevice::boundDriver() {
    const std::lock_guard guard(mutex_);
    return driver_;
}

MockUsbDevice::Counts MockUsbDevice::counts() {
    const std::lock_guard guard(mutex_);
    return counts_;
}

bool MockUsbDevice::awaitPending(std::uint8_t endpoint, std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
        return static_cast<std::size_t>(
                   std::count_if(urbs_.begin(), urbs_.end(), [&](const Urb& urb) {
                       return !urb.finished && urb.endpoint == endpoint;
                   })) == count;
    });
}

void MockUsbDevice::unplug() {
    const std::lock_guard guard(mutex_);
    gone_ = true;
    for (Urb& urb : urbs_) {
        if (!urb.finished)
            finish(urb, -ESHUTDOWN);
    }
    showFinished();
    ::unlink(node_.c_str());
}

int MockUsbDevice::onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    MockUsbDevice& device = *static_cast<MockUsbDevice*>(self);
    Receiver receiver;
    std::optional<std::pair<std::uint8_t, Bytes>> received;
    int result = 0;
    {
        const std::lock_guard guard(device.mutex_);
        result = device.answer(client);
        receiver = device.receiver_;
        received = std::exchange(device.received_, std::nullopt);
    }
    umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? -result : 0);
    if (received && receiver)
        receiver(received->first, received->second);
    return 1;
}

void MockUsbDevice::onVanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    MockUsbDevice& device = *static_cast<MockUsbDevice*>(self);
    const std::lock_guard guard(device.mutex_);
    if (device.claimant_ == client)
        device.claimant_ = nullptr;
    std::erase_if(device.urbs_, [&](const Urb& urb) { return urb.client == client; });
    device.showFinished();
}

int MockUsbDevice::answer(UMockdevIoctlClient* client) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    if (request == USBDEVFS_REAPURBNDELAY)
        return reap(client);
    if (request == USBDEVFS_GET_CAPABILITIES) {
        store(argument(client, sizeof kCapabilities), 0, kCapabilities);
        return 0;
    }
    if (gone_)
        return -ENODEV;
    switch (request) {
        case USBDEVFS_SUBMITURB:
            return submit(client);
        case USBDEVFS_DISCARDURB:
            return discard(client);
        case USBDEVFS_CLAIMINTERFACE:
            return claim(client);
        case USBDEVFS_RELEASEINTERFACE:
            return release(client);
        case USBDEVFS_GETDRIVER:
            return askDriver(client);
        case USBDEVFS_IOCTL:
            return commandDriver(client);
        case USBDEVFS_CLEAR_HALT:
            return clearHalt(client);
        default:
            return -ENOTTY;
    }
}

int MockUsbDevice::submit(UMockdevIoctlClient* client) {
    if (claimant_ != client)
        return -EINVAL;  // more strict than the kernel, which grumbles and claims by itself
    const Data record = argument(client, sizeof(usbdevfs_urb));
    const auto request = valueAt<usbdevfs_urb>(record.get());
    const auto length = static_cast<std::size_t>(request.buffer_length);
    const Data buffer =
        length > 0 ? resolve(record.get(), offsetof(usbdevfs_urb, buffer), length) : nullptr;
    Urb& urb =
        urbs_.emplace_back(Urb{client, record, buffer, request.type == USBDEVFS_URB_TYPE_CONTROL,
                               request.endpoint, length, Bytes(), 0, false});
    if (urb.request)
        answerRequest(urb);
    else if (halted_.count(urb.endpoint) != 0)
        finish(urb, -EPIPE);
    else if (isIn(urb.endpoint))
        moveIn(urb.endpoint);
    else
        moveOut(urb);
    if (!urb.request && urb.finished && urb.status == 0 && !isIn(urb.endpoint))
        received_.emplace(urb.endpoint, urb.moved);
    showFinished();
    return 0;
}

int MockUsbDevice::reap(UMockdevIoctlClient* client) {
    const auto urb = std::find_if(urbs_.begin(), urbs_.end(), [&](const Urb& other) {
        return other.client == client && other.finished;
    });
    if (urb == urbs_.end())
        return gone_ ? -ENODEV : -EAGAIN;
    if (isIn(urb->endpoint) && !urb->moved.empty())
        umockdev_ioctl_data_update(urb->buffer.get(), 0, urb->moved.data(),
                                   static_cast<gint>(urb->moved.size()));
    store(urb->record, offsetof(usbdevfs_urb, status), urb->status);
    store(urb->record, offsetof(usbdevfs_urb, actual_length), static_cast<int>(urb->moved.size()));
    umockdev_ioctl_data_set_ptr(argument(client, sizeof(void*)).get(), 0, urb->record.get());
    urbs_.erase(urb);
    showFinished();
    return 0;
}

int MockUsbDevice::discard(UMockdevIoctlClient* client) {
    const auto address = valueAt<gulong>(umockdev_ioctl_client_get_arg(client));
    for (Urb& urb : urbs_) {
        if (urb.client != client || urb.record->client_addr != address || urb.finished)
            continue;
        const auto late = onCancel_.extract(urb.endpoint);
        if (late)
            queue(urb.endpoint, late.mapped());
        const bool cancelled = !urb.finished;
        if (cancelled)
            finish(urb, -ENOENT);
        showFinished();
        return cancelled ? 0 : -EINVAL;
    }
    return -EINVAL;
}

int MockUsbDevice::claim(UMockdevIoctlClient* client) {
    if (argument<unsigned int>(client) != 0)
        return -ENOENT;
    if (!driver_.empty() || (claimant_ != nullptr && claimant_ != client))
        return -EBUSY;
    claimant_ = client;
    ++counts_.claims;
    return 0;
}

int MockUsbDevice::release(UMockdevIoctlClient* client) {
    if (argument<unsigned int>(client) != 0 || claimant_ != client)
        return -EINVAL;
    claimant_ = nullptr;
    return 0;
}

int MockUsbDevice::askDriver(UMockdevIoctlClient* client) {
    const std::string name = claimant_ != nullptr ? "usbfs" : driver_;
    if (name.empty())
        return -ENODATA;
    const Data data = argument(client, sizeof(usbdevfs_getdriver));
    auto record = valueAt<usbdevfs_getdriver>(data.get());
    name.copy(record.driver, sizeof record.driver - 1);
    store(data, 0, record);
    return 0;
}

int MockUsbDevice::commandDriver(UMockdevIoctlClient* client) {
    const auto command = argument<usbdevfs_ioctl>(client);
    if (command.ifno != 0)
        return -EINVAL;
    switch (static_cast<unsigned int>(command.ioctl_code)) {
        case USBDEVFS_DISCONNECT:
            if (driver_.empty())
                return -ENODATA;
            detachedDriver_ = std::exchange(driver_, "");
            ++counts_.detaches;
            return 0;
        case USBDEVFS_CONNECT:
            if (!driver_.empty() || claimant_ != nullptr)
                return -EBUSY;
            driver_ = std::exchange(detachedDriver_, "");
            return driver_.empty() ? 0 : 1;
        default:
            return -ENOTTY;
    }
}

int MockUsbDevice::clearHalt(UMockdevIoctlClient* client) {
    if (claimant_ != client)
        return -EINVAL;
    ++counts_.kernelClears;
    // The kernel would have waited for 5 s.
    if (isMute)
        return -ETIMEDOUT;
    halted_.erase(static_cast<std::uint8_t>(argument<unsigned int>(client)));
    return 0;
}

void MockUsbDevice::answerRequest(Urb& urb) {
    if (isMute)
        return;
    constexpr std::array<std::uint8_t, 4> kClearHalt{0x02, 1, 0, 0};
    const Bytes setup(urb.buffer->data, urb.buffer->data + urb.length);
    if (setup.size() == 8 && std::equal(kClearHalt.begin(), kClearHalt.end(), setup.begin())) {
        halted_.erase(setup[4]);
        ++counts_.clearedHalts;
        finish(urb, 0);
    } else {
        finish(urb, -EPIPE);  // it knows no other request
    }
}

void MockUsbDevice::queue(std::uint8_t endpoint, const Bytes& bytes) {
    std::deque<Bytes>& packets = packets_[endpoint];
    std::size_t sent = 0;
    do {
        const std::size_t size = std::min(kPacketSize, bytes.size() - sent);
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(sent);
        packets.emplace_back(first, first + static_cast<std::ptrdiff_t>(size));
        sent += size;
    } while (sent < bytes.size());
    moveIn(endpoint);
}

// Packets fill the host's transfers in the order of both; one ends with a short packet or when it
// is full.
void MockUsbDevice::moveIn(std::uint8_t endpoint) {
    std::deque<Bytes>& queue = packets_[endpoint];
    for (Urb& urb : urbs_) {
        while (!urb.finished && urb.endpoint == endpoint && !queue.empty()) {
            Bytes packet = std::move(queue.front());
            queue.pop_front();
            const std::size_t left = urb.length - urb.moved.size();
            const std::size_t size = std::min(packet.size(), left);
            urb.moved.insert(urb.moved.end(), packet.begin(),
                             packet.begin() + static_cast<std::ptrdiff_t>(size));
            if (packet.size() > left)
                finish(urb, -EOVERFLOW);
            else if (packet.size() < kPacketSize || packet.size() == left)
                finish(urb, 0);
        }
    }
}

void MockUsbDevice::moveOut(Urb& urb) {
    std::size_t size = urb.length;
    if (room >= 0) {
        const int taken =
            std::min(static_cast<int>((size + kPacketSize - 1) / kPacketSize), room.load());
        size = std::min(size, static_cast<std::size_t>(taken) * kPacketSize);
        room -= taken;
    }
    if (urb.buffer != nullptr)
        urb.moved.assign(urb.buffer->data, urb.buffer->data + size);
    if (size == urb.length && !withholdsEnd)
        finish(urb, 0);
}

void MockUsbDevice::finish(Urb& urb, int status) {
    urb.status = status;
    urb.finished = true;
}

void MockUsbDevice::showFinished() {
    const bool finished =
        std::any_of(urbs_.begin(), urbs_.end(), [](const Urb& urb) { return urb.finished; });
    char byte = 0;
    if (finished == fifoFull_) {
        const ssize_t count = finished ? ::read(fifo_, &byte, 1) : ::write(fifo_, &byte, 1);
        if (count != 1)
            throw std::system_error(errno, std::generic_category(), node_);
        fifoFull_ = !finished;
    }
    changed_.notify_all();
}
