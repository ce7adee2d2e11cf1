// What stands behind the opaque pointers that the virtual bus hands out.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <vector>

#include "platform/libusbk.h"
#include "simulator/usb/usbconnection.h"

namespace simulator {

// The bus keeps those that were freed for a while, so that the use of one is seen and told.
struct MonitorObject {
    libusbk::DevicePattern pattern;
    libusbk::HotPlugCallback callback;
    void* user = nullptr;             // for the callback
    std::set<std::int32_t> reported;  // addresses of devices whose arrival it has been told
    bool live = true;
};

struct ListObject {
    std::vector<libusbk::DeviceEntry> entries;
    bool live = true;
};

struct HandleObject {
    std::shared_ptr<UsbConnection> connection;
    UsbOpening opening;
    std::atomic<bool> live = true;
};

struct PoolObject;

struct SlotObject {
    PoolObject* pool = nullptr;
    UsbTransferSlot transfer;
    std::atomic<bool> taken = false;
};

struct PoolObject {
    HandleObject* handle;
    std::deque<SlotObject> members;
    bool live = true;
};

template <typename Object>
struct OpaqueOf;
template <>
struct OpaqueOf<MonitorObject> {
    using Type = libusbk::Monitor;
};
template <>
struct OpaqueOf<ListObject> {
    using Type = libusbk::DeviceList;
};
template <>
struct OpaqueOf<HandleObject> {
    using Type = libusbk::UsbHandle;
};
template <>
struct OpaqueOf<PoolObject> {
    using Type = libusbk::OverlappedPool;
};
template <>
struct OpaqueOf<SlotObject> {
    using Type = libusbk::OverlappedSlot;
};

template <typename Object>
typename OpaqueOf<Object>::Type* opaque(Object* object) {
    return reinterpret_cast<typename OpaqueOf<Object>::Type*>(object);
}

template <typename Object>
Object* objectOf(typename OpaqueOf<Object>::Type* pointer) {
    return reinterpret_cast<Object*>(pointer);
}

}  // namespace simulator
