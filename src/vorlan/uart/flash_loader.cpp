#include "vorlan/uart/flash_loader.h"

#include <md5.h>

#include <algorithm>
#include <array>

#include "utils/text.h"
#include "vorlan/uart/uarttrace.h"

namespace {

constexpr std::array<std::uint32_t, 4> kHandshakeRates{115200, 1024000, 1536000, 3000000};

// Read constants in ms.
constexpr std::uint32_t kHandshakeRead = 100;
constexpr std::uint32_t kFlashRead = 1000;
constexpr std::uint32_t kMd5Read = 10000;  // the device reads all of the image for its digest

// What the trace says of a step's failures, and what the operator is told when it gives up. The
// code told is not always the one returned.
struct StepTexts {
    const char* silent;
    const char* refused;
    int refusedCode;
    const wchar_t* refusedDescription;
};

constexpr const wchar_t* kSilentDescription = L"RECEIVE OVERTIME......";
constexpr StepTexts kBegin{"RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n",
                           kUartRefused, L"BEGIN COMMAND FORMAT ERROR"};
constexpr StepTexts kData{"RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n",
                          kUartRefused, L"DATA COMMAND FORMAT ERROR"};
constexpr StepTexts kMd5{"CONNECT OVERTIME......\n", "MD5 FORMAT ERROR, CONNECT AGAIN\n",
                         kUartNoAnswer, L"MD5 FORMAT ERROR"};
constexpr StepTexts kEnd{"RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n",
                         kUartRefused, L"END COMMAND FORMAT ERROR"};

class Md5 {
  public:
    Md5() { MD5Init(&state_); }
    void update(const std::uint8_t* data, std::uint32_t size) { MD5Update(&state_, data, size); }
    Md5Digest finish() {
        Md5Digest digest;
        MD5Final(digest.data(), &state_);
        return digest;
    }

  private:
    MD5_CTX state_;
};

// Where a download's bytes come from: a file slot, or memory.
class Source {
  public:
    explicit Source(UartFile& file) : file_(&file), size_(uart_file_size(file)) {}
    Source(const std::uint8_t* data, std::uint32_t size) : data_(data), size_(size) {}

    std::uint32_t size() const { return size_; }

    // The next `count` bytes; null if they cannot be read.
    const std::uint8_t* next(std::uint32_t count) {
        if (file_ != nullptr) {
            std::uint32_t got = count;
            const std::uint8_t* const bytes = uart_file_read(*file_, got);
            return got == count ? bytes : nullptr;
        }
        const std::uint8_t* const bytes = data_;
        data_ += count;
        return bytes;
    }

  private:
    UartFile* file_ = nullptr;
    const std::uint8_t* data_ = nullptr;
    std::uint32_t size_;
};

// Ends a download: the operator hears of it when the image is closed.
int fail(UartContext* context, int code, const std::wstring& description, int result) {
    uart_file_close(context->flashImage);
    if (context->onError != nullptr)
        context->onError(context, code, description);
    return result;
}

int failWithFile(UartContext* context, const wchar_t* reason, const std::wstring& path) {
    const std::wstring description = reason + (L" path=" + path);
    UART_TRACE("%s\n", text::narrow(description).c_str());
    return fail(context, kUartFileError, description, kUartFileError);
}

void setReadConstant(UartContext* context, std::uint32_t milliseconds) {
    serial_set_timeouts(context->port, context->baudrate, milliseconds);
}

void setRate(UartContext* context, std::uint32_t rate) {
    context->baudrate = rate;
    serial_set_params(context->port, rate, context->stopBits, context->parity);
}

// Sends until the answer is an acknowledgement or the budget has run out, of which onError is told.
template <typename Send>
int sendUntilAcknowledged(UartContext* context, const StepTexts& texts, Send send) {
    for (;;) {
        if (uart_context_stopped(context))
            return kUartNoAnswer;
        const int result = send();
        if (result == kUartOk)
            return kUartOk;
        const bool silent = result == kUartNoAnswer;
        UART_TRACE("%s", silent ? texts.silent : texts.refused);
        if (uart_gives_up(context->flashRetries))
            return silent ? fail(context, kUartNoAnswer, kSilentDescription, result)
                          : fail(context, texts.refusedCode, texts.refusedDescription, result);
    }
}

int sendBlocks(UartContext* context, Source& source, Md5* digest, const std::wstring& name) {
    while (context->flashSeq < context->flashBlocks) {
        const std::uint32_t red_size =
            std::min(kFlashBlockSize, context->flashTotal - context->flashSent);
        const std::uint8_t* const block = source.next(red_size);
        if (block == nullptr)
            return failWithFile(context, L"Read file failed!", name);
        if (digest != nullptr)
            digest->update(block, red_size);
        const int result = sendUntilAcknowledged(context, kData, [&] {
            return send_flash_data(context, block, static_cast<std::uint16_t>(red_size));
        });
        if (result != kUartOk)
            return result;
        context->flashRetries = 0;
        const int percent = uart_percent(context->flashSeq, context->flashBlocks);
        UART_VERBOSE("SEND DATA COMMAND SUCCESS IN ID: %d, PROGRESS=%d\n",
                     static_cast<int>(context->flashSeq - 1), percent);
        if (context->onProgress != nullptr)
            context->onProgress(context, name, percent);
    }
    return kUartOk;
}

bool digestsAgree(const Md5Digest& ours, const Md5Digest& theirs) {
    for (std::size_t i = 0; i < kMd5Size; ++i) {
        UART_VERBOSE("THE MD5 CHECKSUM---%d: %d\n", static_cast<int>(i), ours[i]);
        UART_VERBOSE("THE READ MD5 CHECKSUM---%d: %d\n", static_cast<int>(i), theirs[i]);
        if (ours[i] != theirs[i])
            return false;
    }
    return true;
}

int compareDigests(UartContext* context, std::uint32_t address, Md5& digest) {
    setReadConstant(context, kMd5Read);
    const int result = sendUntilAcknowledged(
        context, kMd5, [&] { return send_md5(context, address, context->flashTotal); });
    if (result != kUartOk)
        return result;  // and the long reads stay
    UART_VERBOSE("SEND MD5 COMMAND WITH RAM SUCCESS\n");
    setReadConstant(context, kFlashRead);
    if (digestsAgree(digest.finish(), context->md5))
        return kUartOk;
    UART_TRACE("MD5 CHECK ERROR\n");
    return fail(context, kUartMd5Mismatch, L"MD5 CHECK ERROR", kUartMd5Mismatch);
}

bool isInWindow(std::uint32_t address) {
    return address >= kFlashWindow && address < kFlashWindow + kFlashWindowSize;
}

// The whole write of one image; `address` lies in the window.
int download(UartContext* context, Source& source, std::uint32_t address, std::uint8_t endAction,
             bool md5Check, const std::wstring& name) {
    const std::uint32_t offset = address - kFlashWindow;
    if (source.size() == 0)
        return failWithFile(context, L"Empty file!", name);
    if (source.size() > kFlashWindowSize - offset)
        return failWithFile(context, L"File too large!", name);

    // A block that was never acknowledged in an earlier download leaves `resend` set: to the device
    // the next block is then a repeat, too.
    context->flashRetries = 0;
    int result = sendUntilAcknowledged(
        context, kBegin, [&] { return send_flash_begin(context, offset, source.size()); });
    if (result != kUartOk)
        return result;
    UART_VERBOSE("SEND BEGIN COMMAND SUCCESS\n");
    context->flashRetries = 0;
    Md5 digest;
    result = sendBlocks(context, source, md5Check ? &digest : nullptr, name);
    if (result != kUartOk)
        return result;
    // The digest and the end share one budget.
    if (md5Check)
        result = compareDigests(context, address, digest);
    if (result != kUartOk)
        return result;
    result =
        sendUntilAcknowledged(context, kEnd, [&] { return send_flash_end(context, endAction); });
    if (result != kUartOk)
        return result;
    UART_VERBOSE("SEND END COMMAND SUCCESS\n");
    context->flashRetries = 0;
    return kUartOk;
}

// Asks the device for its digest of `size` bytes. Tells nobody but the trace.
int fetchDigest(UartContext* context, std::uint32_t address, std::uint32_t size) {
    for (;;) {
        const int result = send_md5(context, address, size);
        if (result == kUartOk)
            return kUartOk;
        UART_TRACE("%s", result == kUartNoAnswer ? kMd5.silent : kMd5.refused);
        if (uart_gives_up(context->flashRetries))
            return result;
    }
}

// The check of an image that is open.
int checkImage(UartContext* context, UartFile& image, std::uint32_t address) {
    setReadConstant(context, kMd5Read);
    const int result = fetchDigest(context, address, uart_file_size(image));
    if (result != kUartOk)
        return result;  // and the long reads stay
    setReadConstant(context, kFlashRead);
    const std::uint8_t* const bytes = uart_file_read_all(image);
    Md5 digest;
    if (bytes != nullptr)
        digest.update(bytes, uart_file_size(image));
    else
        UART_TRACE("MD5 CHECKSUM ERROR\n");
    // A file that cannot be read agrees with nothing.
    if (bytes == nullptr || !digestsAgree(digest.finish(), context->md5)) {
        UART_TRACE("MD5 CHECK ERROR");
        return kUartMd5Mismatch;
    }
    UART_VERBOSE("MD5 CHECK SUCCESS");
    return kUartOk;
}

}  // namespace

int flash_loader_handshake(UartContext* context) {
    setReadConstant(context, kHandshakeRead);
    for (;;) {
        for (const std::uint32_t rate : kHandshakeRates) {
            if (uart_context_stopped(context))
                return kUartNoAnswer;
            setRate(context, rate);
            if (send_sync(context) == kUartOk) {
                UART_VERBOSE("HANDSHAKE SUCCESS IN BAUDRATE: %d\n", static_cast<int>(rate));
                setReadConstant(context, kFlashRead);
                return kUartOk;
            }
        }
        if (uart_gives_up(context->flashRetries))
            break;
    }
    UART_TRACE("HANDSHAKE ERROR\n");
    setReadConstant(context, kFlashRead);
    return kUartNoAnswer;
}

int flash_loader_change_baudrate(UartContext* context, std::uint32_t newRate) {
    for (;;) {
        const int result = send_change_baudrate(context, newRate, context->baudrate);
        if (result == kUartOk) {
            UART_VERBOSE("SEND CHANGE BAUDRATE COMMAND SUCCESS\n");
            setRate(context, newRate);
            return kUartOk;
        }
        if (result == kUartNoAnswer)
            UART_TRACE("RECEIVE OVERTIME......\n");
        if (uart_gives_up(context->flashRetries))
            return result;
    }
}

int flash_loader_download_file(UartContext* context, const char* path, std::uint32_t address,
                               std::uint8_t endAction, bool md5Check) {
    if (!isInWindow(address))
        return kUartNoAnswer;
    const std::wstring cur_file = text::widen(path);
    if (!uart_file_open(context->flashImage, path))
        return failWithFile(context, L"Open file failed!", cur_file);
    Source source(context->flashImage);
    const int result = download(context, source, address, endAction, md5Check, cur_file);
    uart_file_close(context->flashImage);
    return result;
}

int flash_loader_download_buffer(UartContext* context, const std::uint8_t* data, std::uint32_t size,
                                 std::uint32_t address, std::uint8_t endAction, bool md5Check,
                                 const std::wstring& name) {
    if (!isInWindow(address))
        return kUartNoAnswer;
    Source source(data, size);
    return download(context, source, address, endAction, md5Check, name);
}

int flash_loader_md5_check(UartContext* context, const char* path, std::uint32_t address) {
    UartFile& image = context->flashImage;
    if (!uart_file_open(image, path))
        return failWithFile(context, L"Open file failed!", text::widen(path));
    const int result = uart_file_size(image) != 0
                           ? checkImage(context, image, address)
                           : failWithFile(context, L"Empty file!", text::widen(path));
    uart_file_close(image);
    return result;
}

int flash_loader_download_ram(UartContext* /*context*/, const char* /*path*/,
                              std::uint32_t /*address*/, std::uint8_t /*endAction*/) {
    return 0;
}
