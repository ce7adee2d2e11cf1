#include "vorlan/burn/rom_protocol.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <chrono>

#include "utils/interruption.h"
#include "utils/littleendian.h"
#include "utils/trace.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usb_protocol.h"

using namespace std::chrono_literals;

namespace {

enum RomCommand : std::uint8_t { kMemBegin = 5, kMemEnd = 6, kMemData = 7 };

constexpr std::uint32_t kCommonHeader = 8;  // bytes with which every message begins
constexpr std::uint32_t kReplySize = 10;
constexpr std::size_t kStatusOffset = 8;  // in a reply
constexpr std::uint8_t kFatalStatus = 0xF0;

// Clears the message's header and fills the part that all messages share.
void beginMessage(std::uint8_t* buf, std::uint32_t header_len, RomCommand command,
                  std::uint32_t message_len, std::uint32_t checksum) {
    std::fill_n(buf, header_len, std::uint8_t{0});
    buf[1] = command;
    littleendian::put(buf + 2, static_cast<std::uint16_t>(message_len - kCommonHeader));
    littleendian::put(buf + 4, checksum);
}

// One transfer of a message's attempt.
class RomTransfer {
  public:
    RomTransfer(libusbk::UsbHandle* usbHandle, libusbk::OverlappedSlot* slot)
        : usbHandle_(usbHandle), slot_(slot) {}

    bool write(const std::uint8_t* data, std::uint32_t size, int retries) {
        std::uint32_t count = 0;
        startTransfer();
        const bool finished = libusbkTable().UsbK_WritePipe(usbHandle_, EP_ADDR_DATA_RESP_OUT, data,
                                                            size, &count, slot_);
        if (!complete(finished, "WritePipe", EP_ADDR_DATA_RESP_OUT, count, retries))
            return false;
        if (slot_ == nullptr && count < size) {
            tellFailure("WritePipe", EP_ADDR_DATA_RESP_OUT, retries);
            interruption::sleep(10ms);
            return false;
        }
        return true;
    }

    bool read(std::uint8_t* data, std::uint32_t size, std::uint32_t& count, int retries) {
        count = 0;
        startTransfer();
        const bool finished = libusbkTable().UsbK_ReadPipe(usbHandle_, EP_ADDR_CMD_RESP_IN, data,
                                                           size, &count, slot_);
        return complete(finished, "ReadPipe", EP_ADDR_CMD_RESP_IN, count, retries);
    }

    std::uint32_t lastError() const { return lastError_; }

  private:
    void startTransfer() {
        if (slot_ != nullptr)
            libusbkTable().OvlK_ReUse(slot_);
    }

    // Waits for a transfer that was started. A failure is told, given time, and cleaned up after.
    bool complete(bool finished, const char* name, std::uint8_t endpoint, std::uint32_t& count,
                  int retries) {
        const LibusbkTable& usb = libusbkTable();
        if (finished)
            return true;
        const std::uint32_t code = usb.LibK_LastError();
        if (slot_ == nullptr || code != libusbk::kIoPending) {
            lastError_ = code;
            tellFailure(name, endpoint, retries);
        } else {
            if (usb.OvlK_WaitOrCancel(slot_, kTransferTimeoutMs, &count))
                return true;
            lastError_ = usb.LibK_LastError();
            TRACE("%s 0x%x FAILED (retries = %d), errorCode = %08Xh\n", name, endpoint, retries,
                  lastError_);
        }
        interruption::sleep(10ms);
        if (slot_ != nullptr)
            usb.UsbK_FlushPipe(usbHandle_, endpoint);
        return false;
    }

    void tellFailure(const char* name, std::uint8_t endpoint, int retries) const {
        TRACE("%s 0x%x failed (retries = %d), errorCode = %08Xh\n", name, endpoint, retries,
              lastError_);
    }

    libusbk::UsbHandle* usbHandle_;
    libusbk::OverlappedSlot* slot_;
    std::uint32_t lastError_ = libusbk::kNoError;
};

}  // namespace

std::uint8_t romChecksum(const std::uint8_t* data, std::uint32_t size) {
    std::uint8_t checksum = 0xEF;
    for (std::uint32_t i = 0; i < size; ++i)
        checksum ^= data[i];
    return checksum;
}

std::uint32_t send_mem_begin_command(std::uint8_t* buf, std::uint32_t buf_len,
                                     std::uint32_t total_len, libusbk::UsbHandle* usbHandle,
                                     libusbk::OverlappedSlot* slot, std::string& errorText) {
    assert(buf_len >= kMemBeginSize && total_len > 0);
    (void)buf_len;
    constexpr std::uint64_t kAlmostOneBlock = kRomBlockSize - 1;
    beginMessage(buf, kMemBeginSize, kMemBegin, kMemBeginSize, 0);
    littleendian::put(buf + 8, total_len);
    littleendian::put(buf + 12, static_cast<std::uint32_t>((total_len + kAlmostOneBlock) >> 11));
    littleendian::put(buf + 16, kRomBlockSize);
    return send_mem_command(buf, kMemBeginSize, usbHandle, slot, errorText);
}

std::uint32_t send_mem_data_command(std::uint8_t* buf, std::uint32_t buf_len,
                                    const std::uint8_t* payload, std::uint32_t payload_len,
                                    std::uint32_t sequence, libusbk::UsbHandle* usbHandle,
                                    libusbk::OverlappedSlot* slot, std::string& errorText) {
    assert(payload == buf + kMemDataHeader && buf_len >= kMemDataHeader + payload_len);
    assert(payload_len <= kRomBlockSize);
    (void)buf_len;
    const std::uint32_t message_len = kMemDataHeader + payload_len;
    beginMessage(buf, kMemDataHeader, kMemData, message_len, romChecksum(payload, payload_len));
    littleendian::put(buf + 8, payload_len);
    littleendian::put(buf + 12, sequence);
    return send_mem_command(buf, message_len, usbHandle, slot, errorText);
}

std::uint32_t send_mem_end_command(std::uint8_t* buf, std::uint32_t buf_len,
                                   libusbk::UsbHandle* usbHandle, libusbk::OverlappedSlot* slot,
                                   std::string& errorText) {
    assert(buf_len >= kMemEndSize);
    (void)buf_len;
    beginMessage(buf, kMemEndSize, kMemEnd, kMemEndSize, 0);
    return send_mem_command(buf, kMemEndSize, usbHandle, slot, errorText);
}

std::uint32_t send_mem_command(const std::uint8_t* buf, std::uint32_t data_len,
                               libusbk::UsbHandle* usbHandle, libusbk::OverlappedSlot* slot,
                               std::string& errorText) {
    assert(data_len > 0);
    constexpr const char* kOperation = "send_mem_command";
    RomTransfer transfer(usbHandle, slot);
    std::uint8_t status = 0;
    for (int retries = 0; retries < USB_WR_RETRIES && !interruption::requested(); ++retries) {
        std::array<std::uint8_t, kReplySize> reply{};
        std::uint32_t count = 0;
        if (!transfer.write(buf, data_len, retries) ||
            !transfer.read(reply.data(), kReplySize, count, retries))
            continue;
        if (count < kReplySize) {
            TRACE("ReadPipe 0x%x, return %u bytes, NOT valid command response status!\n",
                  EP_ADDR_CMD_RESP_IN, count);
            interruption::sleep(10ms);
            libusbkTable().UsbK_FlushPipe(usbHandle, EP_ADDR_CMD_RESP_IN);
            continue;
        }
        status = reply[kStatusOffset];
        if (status >= kFatalStatus) {
            TRACE("%s: Return Fatal Error! (retries = %d)\n", kOperation, retries);
            errorText = "Return Fatal Error! (retries = " + std::to_string(retries) + ")";
            return status;
        }
        if (status == 0) {
            TRACE("%s: Return Successful! (retries = %d)\n", kOperation, retries);
            return 0;
        }
        TRACE("%s: Return Error = 0x%x (retries = %d)\n", kOperation, status, retries);
        interruption::sleep(10ms);
    }
    if (interruption::requested())
        return libusbk::kOperationAborted;
    TRACE("%s: ERROR! Retry WritePipe has reaches max (%d)!\n", kOperation, USB_WR_RETRIES);
    errorText = "Retry WritePipe has reaches max (" + std::to_string(USB_WR_RETRIES) + ")!";
    if (transfer.lastError() != libusbk::kNoError)
        return transfer.lastError();
    if (status != 0)
        return status;
    return libusbk::kGeneralFailure;
}
