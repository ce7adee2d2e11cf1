#include "vorlan/burn/fw_download.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "utils/trace.h"
#include "vorlan/burn/handleinterruption.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/rom_protocol.h"
#include "vorlan/burn/usb_protocol.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* kOperation = "FwDownloadProc";

// One download of the burner image into a device.
class Download {
  public:
    Download(const FwDownload& settings, BURN_SESSION& session, libusbk::OverlappedSlot* slot)
        : settings_(settings), session_(session), slot_(slot), path_(settings.burnerPath) {}

    bool openImage() {
        file_ = fileutil::openFile(path_, "rb");
        if (file_ == nullptr) {
            reason_ = "CANNOT open file " + path_ + "!";
            TRACE("%s\n", reason_.c_str());
        }
        return file_ != nullptr;
    }

    // All the way from the ROM's first message to the start of the image.
    bool run() {
        const std::optional<std::uint32_t> size = fileutil::sizeOf(file_.get());
        if (!size || *size == 0) {
            fail(libusbk::kInvalidParameter,
                 (size ? "Empty file! path=" : "Unusable file! path=") + path_);
            return false;
        }
        buffer_.reset(new (std::nothrow) std::uint8_t[kRomBufferSize]);
        if (buffer_ == nullptr) {
            reason_ = "no memory for the data buffer";
            TRACE("CANNOT allocate %d bytes for data buffer!\n", static_cast<int>(kRomBufferSize));
            return false;
        }
        waitForRom();
        return begin(*size) && sendImage() && end();
    }

    // Why it has failed; empty if it has not.
    const std::string& reason() const { return reason_; }

  private:
    void waitForRom() {
        interruption::sleep(std::chrono::milliseconds(settings_.romWait));
        TRACE("%s: has slept for %d ms to let ROM get ready!\n", kOperation,
              static_cast<int>(settings_.romWait));
        for (const std::uint8_t endpoint : {EP_ADDR_DATA_RESP_IN, EP_ADDR_DATA_RESP_OUT,
                                            EP_ADDR_CMD_RESP_IN, EP_ADDR_CMD_RESP_OUT})
            libusbkTable().UsbK_ResetPipe(session_.usbHandle, endpoint);
    }

    bool begin(std::uint32_t size) {
        TRACE("%s: start send_mem_begin_command...\n", kOperation);
        std::string errorText;
        const std::uint32_t result = send_mem_begin_command(buffer_.get(), kRomBufferSize, size,
                                                            session_.usbHandle, slot_, errorText);
        if (!succeeded(result, "MEM_BEGIN", errorText))
            return false;
        interruption::sleep(10ms);
        return true;
    }

    bool sendImage() {
        TRACE("%s: reading file %s...\n", kOperation, path_.c_str());
        std::uint8_t* const payload = buffer_.get() + kMemDataHeader;
        for (std::uint32_t sequence = 0;; ++sequence) {
            const auto count =
                static_cast<std::uint32_t>(std::fread(payload, 1, kRomBlockSize, file_.get()));
            if (count < kRomBlockSize) {
                if (std::feof(file_.get()) == 0) {
                    TRACE("%s: error(%08Xh) occurs in reading file %s! readBytes = %u\n",
                          kOperation, static_cast<unsigned>(errno), path_.c_str(), count);
                    reason_ = "file " + path_ + " cannot be read";
                    return false;
                }
                TRACE("%s: end reading file %s! readBytes = %u\n", kOperation, path_.c_str(),
                      count);
                if (count == 0)
                    return true;
            }
            std::string errorText;
            const std::uint32_t result =
                send_mem_data_command(buffer_.get(), kRomBufferSize, payload, count, sequence,
                                      session_.usbHandle, slot_, errorText);
            if (!succeeded(result, "MEM_DATA", errorText))
                return false;
            interruption::sleep(10ms);
            if (count < kRomBlockSize)
                return true;
        }
    }

    bool end() {
        TRACE("%s: start send_mem_end_command...\n", kOperation);
        std::string errorText;
        const std::uint32_t result = send_mem_end_command(buffer_.get(), kRomBufferSize,
                                                          session_.usbHandle, slot_, errorText);
        if (!succeeded(result, "MEM_END", errorText))
            return false;
        interruption::sleep(100ms);
        return true;
    }

    bool succeeded(std::uint32_t result, const char* command, const std::string& errorText) {
        if (result == 0)
            return true;
        TRACE("FAILED to send %s command for %s!\n", command, session_.device_id.c_str());
        fail(result, errorText);
        reason_ = std::string(command) + ": " + errorText;
        return false;
    }

    void fail(std::uint32_t code, const std::string& text) {
        reason_ = text;
        if (!interruption::requested())
            settings_.listener.onError(&session_, code, text);
    }

    const FwDownload& settings_;
    BURN_SESSION& session_;
    libusbk::OverlappedSlot* slot_;
    const std::string& path_;
    std::string reason_;
    fileutil::FilePtr file_;
    std::unique_ptr<std::uint8_t[]> buffer_;
};

}  // namespace

unsigned FwDownloadProc(SesHandle sesHandle, const FwDownload& settings) {
    if (sesHandle != nullptr)
        TRACE("Enter FwDownload for %s...\n", sesHandle->device_id.c_str());
    if (sesHandle == nullptr || sesHandle->usbHandle == nullptr) {
        TRACE("%s: parameter error (sesHandle = %p, usbHandle = %p)\n", kOperation,
              static_cast<void*>(sesHandle),
              static_cast<void*>(sesHandle != nullptr ? sesHandle->usbHandle : nullptr));
        return 1;
    }

    const LibusbkTable& usb = libusbkTable();
    libusbk::OverlappedSlot* slot = nullptr;
    if (sesHandle->ovlPool == nullptr || !usb.OvlK_Acquire(&slot, sesHandle->ovlPool))
        slot = nullptr;
    bool started = false;
    std::string reason;
    {
        const HandleInterruption interruptible(sesHandle->usbHandle);
        Download download(settings, *sesHandle, slot);
        if (!download.openImage()) {
            // The session keeps its handle and its pool until its removal.
            if (slot != nullptr)
                usb.OvlK_Release(slot);
            settings.listener.onBurnerMissing(sesHandle, download.reason());
            return 1;
        }
        started = download.run();
        reason = download.reason();
    }
    usb.UsbK_Free(std::exchange(sesHandle->usbHandle, nullptr));
    if (slot != nullptr)
        usb.OvlK_Release(slot);
    if (sesHandle->ovlPool != nullptr)
        usb.OvlK_Free(std::exchange(sesHandle->ovlPool, nullptr));

    if (interruption::requested()) {
        started = false;
        reason = "stopped or unplugged in the ROM stage";
    }
    if (started)
        settings.listener.onBurnerReady(sesHandle);
    else
        settings.listener.onBurnerMissing(sesHandle, reason);
    TRACE("Exit FwDownload for %s...\n", sesHandle->device_id.c_str());
    return started ? 0 : 1;
}
