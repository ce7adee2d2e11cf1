#include "vorlan/burn/usbdriver.h"

#include "utils/trace.h"
#include "vorlan/burn/libusbktable.h"

bool usbDriverWorks() {
    const LibusbkBinding binding;
    if (!LibusbkBinding::isBound()) {
        TRACE("USB driver: libusbK is not bound\n");
        return false;
    }
    const LibusbkTable& usb = libusbkTable();
    const libusbk::DevicePattern everything{};
    libusbk::DeviceList* list = nullptr;
    if (!usb.LstK_InitEx(&list, 0, &everything)) {
        TRACE("USB driver: devices cannot be listed (ErrorCode: %08Xh)\n", usb.LibK_LastError());
        return false;
    }
    usb.LstK_Free(list);
    if (!usb.LibK_IsDriverInstalled()) {
        TRACE("USB driver: not installed (ErrorCode: %08Xh)\n", usb.LibK_LastError());
        return false;
    }
    return true;
}
