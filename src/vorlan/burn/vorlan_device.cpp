#include "vorlan/burn/vorlan_device.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "platform/dynamiclibrary.h"
#include "utils/logutil.h"
#include "vorlan/burn/handleinterruption.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usb_protocol.h"

#define LOG_TAG "vorlan_device"

// One open device. Each endpoint owns its slot as long as the device is open.
struct VORLAN_DEVICE {
    libusbk::UsbHandle* usbHandle = nullptr;
    bool claimed = false;
    std::int32_t driverId = 0;
    libusbk::OverlappedPool* pool = nullptr;
    libusbk::OverlappedSlot* dataIn = nullptr;
    libusbk::OverlappedSlot* dataOut = nullptr;
    libusbk::OverlappedSlot* commandIn = nullptr;
    libusbk::OverlappedSlot* commandOut = nullptr;
    std::optional<HandleInterruption> interruption;
};

namespace {

constexpr std::int32_t kSlots = 4;

struct DeviceCloser {
    void operator()(VORLAN_DEVICE* device) const { vorlan_device_close(device); }
};
using DevicePtr = std::unique_ptr<VORLAN_DEVICE, DeviceCloser>;

struct ListFreer {
    void operator()(libusbk::DeviceList* list) const { libusbkTable().LstK_Free(list); }
};
using ListPtr = std::unique_ptr<libusbk::DeviceList, ListFreer>;

// Where "winusb.sys" refuses to open the device, tells its version, since some do not work.
void warnOfDriver() {
    using GetDriverVersionA = int (*)(const char* driver, std::uint32_t size, char* version);
    platform::DynamicLibrary helper;
    if (!helper.load("vln_helper")) {
        LOG_E("vorlan_burn_agent: open vln_helper.dll failed\n");
        return;
    }
    const auto getDriverVersion =
        reinterpret_cast<GetDriverVersionA>(helper.symbol("GetDriverVersionA"));
    if (getDriverVersion == nullptr) {
        LOG_E("vorlan_burn_agent: GetDriverVersionA not found in vln_helper.dll\n");
        return;
    }
    char version[256] = {};
    if (getDriverVersion("winusb.sys", sizeof version, version) != 0) {
        version[sizeof version - 1] = '\0';
        LOG_D(
            "Your usb kernel driver is winusb.sys, verion = %s, and it may be incompatible!\n"
            "Please re-install your usb driver, and STRONGLY recommend to select libusb0.sys!\n",
            version);
    }
}

ListPtr listDevicesWithId(const char* device_id) {
    const LibusbkTable& usb = libusbkTable();
    libusbk::DevicePattern pattern{};
    std::snprintf(pattern.deviceId, sizeof pattern.deviceId, "%s", device_id);
    std::snprintf(pattern.deviceInterfaceGuid, sizeof pattern.deviceInterfaceGuid, "*");
    std::snprintf(pattern.classGuid, sizeof pattern.classGuid, "*");
    libusbk::DeviceList* list = nullptr;
    if (!usb.LstK_InitEx(&list, 0, &pattern)) {
        LOG_E("An error occured getting the device list. errorCode = 0x%08x\n",
              usb.LibK_LastError());
        return nullptr;
    }
    return ListPtr(list);
}

// Opens the handle of the entry's device; false with the reason logged.
bool initHandle(const libusbk::DeviceEntry& entry, VORLAN_DEVICE& device) {
    const LibusbkTable& usb = libusbkTable();
    if (!usb.UsbK_Init(&device.usbHandle, &entry)) {
        device.usbHandle = nullptr;
        const std::uint32_t code = usb.LibK_LastError();
        LOG_E("Init vorlan device failed. ErrorCode = 0x%08x\n", code);
        if (code == libusbk::kInvalidFunction && entry.driverId == libusbk::kDriverIdWinUsb)
            warnOfDriver();
        return false;
    }
    device.driverId = entry.driverId;
    device.interruption.emplace(device.usbHandle);
    return true;
}

bool claimInterface(VORLAN_DEVICE& device) {
    const LibusbkTable& usb = libusbkTable();
    device.claimed = usb.UsbK_ClaimInterface(device.usbHandle, kVorlanInterface, false);
    if (device.claimed)
        return true;
    const std::uint32_t code = usb.LibK_LastError();
    if (code == libusbk::kNoMoreItems)
        std::printf("Interface number 0x%02x does not exists.\n", kVorlanInterface);
    else
        std::printf("UsbK_ClaimInterface failed. ErrorCode: 0x%08x\n", code);
    return false;
}

bool acquireSlots(VORLAN_DEVICE& device) {
    const LibusbkTable& usb = libusbkTable();
    if (!usb.OvlK_Init(&device.pool, device.usbHandle, kSlots, 0)) {
        device.pool = nullptr;
        LOG_E("OvlK_Init failed. ErrorCode = 0x%08x\n", usb.LibK_LastError());
        return false;
    }
    for (libusbk::OverlappedSlot** slot :
         {&device.dataOut, &device.commandOut, &device.commandIn, &device.dataIn}) {
        if (!usb.OvlK_Acquire(slot, device.pool)) {
            *slot = nullptr;
            LOG_E("OvlK_Acquire failed. ErrorCode = 0x%08x\n", usb.LibK_LastError());
            return false;
        }
    }
    return true;
}

}  // namespace

VORLAN_DEVICE* vorlan_device_open(const char* device_id) {
    if (device_id == nullptr || std::strlen(device_id) >= libusbk::kTextSize)
        return nullptr;
    const ListPtr list = listDevicesWithId(device_id);
    if (list == nullptr)
        return nullptr;

    // The ROM loader and the burner image have the same ids: the instance id selects the device.
    const LibusbkTable& usb = libusbkTable();
    const libusbk::DeviceEntry* entry = nullptr;
    if (!usb.LstK_FindByVidPid(list.get(), kVorlanVendorId, kVorlanProductId, &entry)) {
        LOG_E("LstK_FindByVidPid: vorlan device not found, errorCode = 0x%08x\n",
              usb.LibK_LastError());
        return nullptr;
    }

    DevicePtr device(new (std::nothrow) VORLAN_DEVICE);
    if (device == nullptr) {
        LOG_E("Cannot allocate memory for VORLAN_DEVICE struct!\n");
        return nullptr;
    }
    if (!initHandle(*entry, *device) || !claimInterface(*device))
        return nullptr;
    LOG_D("%s: Vorlan (DeviceID = %s) opened successfully!\n", "vorlan_device_open", device_id);
    if (!acquireSlots(*device))
        return nullptr;
    return device.release();
}

std::uint32_t vorlan_device_read(VORLAN_DEVICE* pVorDev, std::uint8_t* buf, std::uint32_t buf_size,
                                 std::uint8_t ep_addr, std::uint32_t timeout,
                                 std::uint32_t* error) {
    assert(pVorDev != nullptr && buf != nullptr && buf_size > 0);
    assert(ep_addr == EP_ADDR_CMD_RESP_IN || ep_addr == EP_ADDR_DATA_RESP_IN);
    const LibusbkTable& usb = libusbkTable();
    libusbk::OverlappedSlot* const slot =
        ep_addr == EP_ADDR_CMD_RESP_IN ? pVorDev->commandIn : pVorDev->dataIn;
    assert(slot != nullptr);
    std::uint32_t ignored = 0;
    std::uint32_t& code = error != nullptr ? *error : ignored;
    code = libusbk::kNoError;

    std::uint32_t total = 0;
    while (total < buf_size) {
        std::uint32_t count = 0;
        usb.OvlK_ReUse(slot);
        if (usb.UsbK_ReadPipe(pVorDev->usbHandle, ep_addr, buf + total, buf_size - total, &count,
                              slot))
            return total + count;
        code = usb.LibK_LastError();
        if (code != libusbk::kIoPending) {
            LOG_E("UsbK_ReadPipe failed. ErrorCode = 0x%08x\n", code);
            return total;
        }
        code = libusbk::kNoError;
        if (usb.OvlK_WaitOrCancel(slot, timeout, &count))
            return total + count;
        code = usb.LibK_LastError();
        if (code != libusbk::kCancelled || count == 0) {
            if (pVorDev->driverId == 0)
                usb.UsbK_FlushPipe(pVorDev->usbHandle, ep_addr);
            return total;
        }
        // The time-out cut a transfer short in which something moved: go on for the rest.
        std::printf(
            "Read endpoint(ep_addr = 0x%02x) cancelled. bytes_read = %u, ErrorCode=0x%08x\n",
            ep_addr, count, code);
        code = libusbk::kNoError;
        total += count;
    }
    return total;
}

std::uint32_t vorlan_device_write(VORLAN_DEVICE* pVorDev, const std::uint8_t* buf,
                                  std::uint32_t buf_size, std::uint8_t ep_addr,
                                  std::uint32_t timeout, std::uint32_t* error) {
    assert(pVorDev != nullptr && buf != nullptr && buf_size > 0);
    assert(ep_addr == EP_ADDR_CMD_RESP_OUT || ep_addr == EP_ADDR_DATA_RESP_OUT);
    const LibusbkTable& usb = libusbkTable();
    libusbk::OverlappedSlot* const slot =
        ep_addr == EP_ADDR_CMD_RESP_OUT ? pVorDev->commandOut : pVorDev->dataOut;
    assert(slot != nullptr);
    std::uint32_t ignored = 0;
    std::uint32_t& code = error != nullptr ? *error : ignored;
    code = libusbk::kNoError;

    std::uint32_t count = 0;
    usb.OvlK_ReUse(slot);
    if (usb.UsbK_WritePipe(pVorDev->usbHandle, ep_addr, buf, buf_size, &count, slot))
        return count;
    code = usb.LibK_LastError();
    if (code != libusbk::kIoPending) {
        LOG_E("UsbK_WritePipe failed. ErrorCode = 0x%08x\n", code);
        return 0;
    }
    if (usb.OvlK_WaitOrCancel(slot, timeout, &count)) {
        code = libusbk::kNoError;
        return count;
    }
    code = usb.LibK_LastError();
    LOG_E("Write endpoint(ep_addr = 0x%02x) did not complete. ErrorCode=0x%08x\n", ep_addr, code);
    usb.UsbK_FlushPipe(pVorDev->usbHandle, ep_addr);
    return 0;
}

void vorlan_device_close(VORLAN_DEVICE* pVorDev) {
    if (pVorDev == nullptr)
        return;
    const LibusbkTable& usb = libusbkTable();
    for (libusbk::OverlappedSlot* slot :
         {pVorDev->dataOut, pVorDev->commandOut, pVorDev->commandIn, pVorDev->dataIn}) {
        if (slot != nullptr)
            usb.OvlK_Release(slot);
    }
    if (pVorDev->pool != nullptr)
        usb.OvlK_Free(pVorDev->pool);
    pVorDev->interruption.reset();
    if (pVorDev->usbHandle != nullptr) {
        if (pVorDev->claimed)
            usb.UsbK_ReleaseInterface(pVorDev->usbHandle, kVorlanInterface, false);
        usb.UsbK_Free(pVorDev->usbHandle);
    }
    delete pVorDev;
}
