#include "fuzzedusb.h"

#include <algorithm>
#include <utility>

#include "leapingclock.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usb_protocol.h"

namespace {

FuzzedUsb* usb = nullptr;

// The objects of the table are addresses that nobody looks behind.
std::array<char, 8> objects{};

template <typename Object>
Object* object(std::size_t index) {
    return reinterpret_cast<Object*>(objects.data() + index);
}

constexpr std::size_t kHandle = 0;
constexpr std::size_t kPool = 1;
constexpr std::size_t kList = 2;
constexpr std::size_t kMonitor = 3;
constexpr std::size_t kSlots = 4;

bool isIn(std::uint8_t endpoint) {
    return (endpoint & 0x80) != 0;
}

// What becomes of a transfer; those from kTimeOut on fail.
enum Fate : std::uint8_t {
    kAtOnce,
    kAfterAWait,
    kShort,
    kTimeOut,
    kTimeOutWithAPart,
    kFailAtOnce,
    kFailAfterAWait,
    kInterruptAfterAWait,
    kFates
};

}  // namespace

// The operations, each for the one object there is.
struct FuzzedUsbTable {
    static std::uint32_t LibK_LastError() { return usb->lastError_; }
    static bool LibK_Startup() { return true; }
    static void LibK_Shutdown() {}
    static bool LibK_IsDriverInstalled() { return true; }
    static bool HotK_Init(libusbk::Monitor** monitor, const libusbk::MonitorParameters*) {
        *monitor = object<libusbk::Monitor>(kMonitor);
        return true;
    }
    static bool HotK_Free(libusbk::Monitor*) { return true; }
    static bool LstK_InitEx(libusbk::DeviceList** list, std::uint32_t,
                            const libusbk::DevicePattern*) {
        if (!usb->mayOpen())
            return false;
        ++usb->lists_;
        *list = object<libusbk::DeviceList>(kList);
        return true;
    }
    static bool LstK_FindByVidPid(libusbk::DeviceList*, std::uint16_t vendorId,
                                  std::uint16_t productId, const libusbk::DeviceEntry** entry) {
        require(usb->lists_ == 1 && vendorId == 0x1234 && productId == 0x5678, "search");
        usb->entry_.driverId = usb->driverId;
        *entry = &usb->entry_;
        return usb->mayOpen();
    }
    static bool LstK_Free(libusbk::DeviceList*) {
        require(usb->lists_-- == 1, "a list is freed once");
        return true;
    }
    static bool UsbK_Init(libusbk::UsbHandle** handle, const libusbk::DeviceEntry*) {
        if (!usb->mayOpen())
            return false;
        *handle = usb->open();
        return true;
    }
    static bool UsbK_Free(libusbk::UsbHandle*) {
        require(usb->handles_-- == 1, "a handle is freed once");
        for (const FuzzedUsb::Slot& slot : usb->slots_)
            require(!slot.pending, "nothing is under way when a handle is freed");
        return true;
    }
    static bool UsbK_ClaimInterface(libusbk::UsbHandle*, std::uint8_t number, bool isIndex) {
        require(number == 0 && !isIndex && !usb->claimed_, "interface 0, by number");
        usb->claimed_ = usb->mayOpen();
        return usb->claimed_;
    }
    static bool UsbK_ReleaseInterface(libusbk::UsbHandle*, std::uint8_t, bool) {
        require(usb->claimed_, "only what is claimed is released");
        usb->claimed_ = false;
        return true;
    }
    static bool UsbK_ReadPipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                              std::uint8_t* buffer, std::uint32_t length,
                              std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
        return usb->transfer(handle, endpoint, buffer, nullptr, length, transferred, slot);
    }
    static bool UsbK_WritePipe(libusbk::UsbHandle* handle, std::uint8_t endpoint,
                               const std::uint8_t* buffer, std::uint32_t length,
                               std::uint32_t* transferred, libusbk::OverlappedSlot* slot) {
        return usb->transfer(handle, endpoint, nullptr, buffer, length, transferred, slot);
    }
    static bool UsbK_ResetPipe(libusbk::UsbHandle*, std::uint8_t) {
        return usb->fail(libusbk::kSemaphoreTimeout);
    }
    static bool UsbK_FlushPipe(libusbk::UsbHandle*, std::uint8_t) {
        return usb->fail(libusbk::kGeneralFailure);
    }
    static bool UsbK_Interrupt(libusbk::UsbHandle*) { return true; }
    static bool OvlK_Init(libusbk::OverlappedPool** pool, libusbk::UsbHandle* handle,
                          std::int32_t count, std::uint32_t) {
        if (!usb->mayOpen())
            return false;
        *pool = usb->makePool(handle, count);
        return true;
    }
    static bool OvlK_Free(libusbk::OverlappedPool*) {
        require(usb->pools_-- == 1, "a pool is freed once");
        return true;
    }
    static bool OvlK_Acquire(libusbk::OverlappedSlot** slot, libusbk::OverlappedPool*) {
        require(usb->pools_ == 1, "slots come from a pool");
        if (!usb->mayOpen())
            return false;
        for (std::size_t i = 0; i < usb->slots_.size(); ++i) {
            if (usb->slots_[i].acquired)
                continue;
            usb->slots_[i].acquired = true;
            *slot = object<libusbk::OverlappedSlot>(kSlots + i);
            return true;
        }
        require(false, "four slots are enough");
        return false;
    }
    static bool OvlK_Release(libusbk::OverlappedSlot* slot) {
        usb->slotOf(slot).acquired = false;
        return true;
    }
    static bool OvlK_ReUse(libusbk::OverlappedSlot* slot) {
        require(!usb->slotOf(slot).pending, "a slot serves one transfer at a time");
        usb->slotOf(slot).ready = true;
        return true;
    }
    static bool OvlK_WaitOrCancel(libusbk::OverlappedSlot* slot, std::uint32_t timeoutMs,
                                  std::uint32_t* transferred) {
        return usb->wait(usb->slotOf(slot), timeoutMs, transferred);
    }

    static LibusbkTable make() {
        LibusbkTable table{};
#define FUZZED_OPERATION(name) table.name = name;
        LIBUSBK_OPERATIONS(FUZZED_OPERATION)
#undef FUZZED_OPERATION
        return table;
    }
};

FuzzedUsb::FuzzedUsb(Script& script, std::uint8_t restOfTime, Answer answer, void* device)
    : script_(script), restOfTime_(restOfTime), answer_(answer), device_(device) {
    require(usb == nullptr, "one at a time");
    usb = this;
}

FuzzedUsb::~FuzzedUsb() {
    usb = nullptr;
}

void FuzzedUsb::install() {
    static const LibusbkTable table = FuzzedUsbTable::make();
    static const bool installed = (substituteLibusbk(&table), true);
    (void)installed;
    static const LibusbkBinding binding;
}

libusbk::UsbHandle* FuzzedUsb::open() {
    require(handles_++ == 0, "one handle at a time");
    return object<libusbk::UsbHandle>(kHandle);
}

libusbk::OverlappedPool* FuzzedUsb::makePool(libusbk::UsbHandle* handle, std::int32_t count) {
    require(handle == object<libusbk::UsbHandle>(kHandle) && handles_ == 1 && pools_++ == 0 &&
                count <= static_cast<std::int32_t>(slots_.size()),
            "a pool belongs to a handle");
    return object<libusbk::OverlappedPool>(kPool);
}

bool FuzzedUsb::isAtRest() const {
    for (const Slot& slot : slots_)
        if (slot.acquired || slot.pending)
            return false;
    return handles_ == 0 && pools_ == 0 && lists_ == 0 && !claimed_;
}

bool FuzzedUsb::mayOpen() {
    constexpr std::uint32_t kCodes[] = {libusbk::kInvalidFunction, libusbk::kAccessDenied,
                                        libusbk::kNoMoreItems, libusbk::kDeviceNotConnected};
    return openSteps-- > 0 || fail(kCodes[script_.next() % std::size(kCodes)]);
}

bool FuzzedUsb::fail(std::uint32_t code) {
    lastError_ = code;
    return false;
}

FuzzedUsb::Slot& FuzzedUsb::slotOf(libusbk::OverlappedSlot* slot) {
    const auto index =
        static_cast<std::size_t>(reinterpret_cast<const char*>(slot) - objects.data()) - kSlots;
    require(index < slots_.size() && slots_[index].acquired, "a slot that is acquired");
    return slots_[index];
}

bool FuzzedUsb::goesOn(std::uint8_t endpoint, std::uint32_t length) const {
    return !transfers.empty() && transfers.back().cutShort &&
           endpoint == transfers.back().endpoint &&
           length == transfers.back().wanted - transfers.back().moved;
}

void FuzzedUsb::beginTransfer(std::uint8_t endpoint, const std::uint8_t* out,
                              std::uint32_t length) {
    if (continues_)
        return;
    Transfer transfer;
    transfer.endpoint = endpoint;
    transfer.wanted = length;
    transfer.begin = leapingclock::now();
    if (out != nullptr)
        transfer.bytes.assign(out, out + length);
    transfers.push_back(std::move(transfer));
}

void FuzzedUsb::endTransfer(const Bytes& read, std::uint32_t moved, std::uint32_t code) {
    Transfer& transfer = transfers.back();
    transfer.bytes.insert(transfer.bytes.end(), read.begin(), read.end());
    transfer.moved += moved;
    transfer.code = code;
    transfer.cutShort =
        isIn(transfer.endpoint) && code == libusbk::kCancelled && moved > 0 && !transfer.isWhole();
    transfer.end = leapingclock::now();
}

// The end of the answer before, if the engine asks for just that, or a new one.
Bytes FuzzedUsb::nextRead(std::uint8_t endpoint, std::uint32_t length) {
    Bytes bytes = continues_ ? std::exchange(rest_, {}) : answer_(device_, endpoint, length);
    if (bytes.size() > length)
        bytes.resize(length);
    return bytes;
}

bool FuzzedUsb::transfer(libusbk::UsbHandle* handle, std::uint8_t endpoint, std::uint8_t* in,
                         const std::uint8_t* out, std::uint32_t length, std::uint32_t* transferred,
                         libusbk::OverlappedSlot* slot) {
    require(handle == object<libusbk::UsbHandle>(kHandle) && handles_ == 1 && length > 0 &&
                isIn(endpoint) == (in != nullptr),
            "transfers go to an open handle");
    Fate fate = static_cast<Fate>(script_.next(restOfTime_) % kFates);
    if (slot == nullptr && fate >= kTimeOut)
        fate = kFailAtOnce;
    if (slot == nullptr && fate == kAfterAWait)
        fate = kAtOnce;

    continues_ = goesOn(endpoint, length);
    const Bytes answer = in != nullptr ? nextRead(endpoint, length) : Bytes();
    std::uint32_t moved = in != nullptr ? static_cast<std::uint32_t>(answer.size()) : length;
    beginTransfer(endpoint, out, length);
    rest_.clear();
    if (fate == kShort || fate == kTimeOutWithAPart)
        moved = script_.next(1) % (moved + 1);
    else if (fate >= kTimeOut)
        moved = 0;
    Bytes read(answer.begin(), answer.begin() + (in != nullptr ? moved : 0));
    if (fate == kTimeOutWithAPart)
        rest_.assign(answer.begin() + (in != nullptr ? moved : 0), answer.end());

    if (fate == kFailAtOnce) {
        endTransfer({}, 0, slot != nullptr ? libusbk::kGeneralFailure : libusbk::kSemaphoreTimeout);
        return fail(transfers.back().code);
    }
    if (fate == kAtOnce || fate == kShort) {
        std::copy(read.begin(), read.end(), in);
        *transferred = moved;
        endTransfer(read, moved, 0);
        return true;
    }
    Slot& pending = slotOf(slot);
    require(pending.ready && !pending.pending, "a slot is made ready for each transfer");
    pending.ready = false;
    pending.pending = true;
    pending.buffer = in;
    pending.read = std::move(read);
    pending.moved = moved;
    pending.code = fate == kAfterAWait            ? libusbk::kNoError
                   : fate == kFailAfterAWait      ? libusbk::kGeneralFailure
                   : fate == kInterruptAfterAWait ? libusbk::kOperationAborted
                                                  : libusbk::kCancelled;
    return fail(libusbk::kIoPending);
}

bool FuzzedUsb::wait(Slot& slot, std::uint32_t timeoutMs, std::uint32_t* transferred) {
    require(slot.pending, "only what was started is waited for");
    slot.pending = false;
    std::copy(slot.read.begin(), slot.read.end(), slot.buffer);
    *transferred = slot.moved;
    const std::uint32_t limit =
        transfers.back().endpoint == EP_ADDR_CMD_RESP_OUT ? kCommandTimeoutMs : kTransferTimeoutMs;
    require(timeoutMs == limit, "limit of the transfer");
    if (slot.code == libusbk::kCancelled)
        leapingclock::advance(std::chrono::milliseconds(timeoutMs));
    endTransfer(slot.read, slot.moved, slot.code);
    return slot.code == libusbk::kNoError || fail(slot.code);
}
