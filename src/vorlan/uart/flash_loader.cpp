#include "vorlan/uart/flash_loader.h"

#include <md5.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "utils/text.h"
#include "vorlan/uart/loaderstep.h"
#include "vorlan/uart/uarttrace.h"

namespace {

constexpr std::array<std::uint32_t, 4> kHandshakeRates{115200, 1024000, 1536000, 3000000};

// Read constants in ms.
constexpr std::uint32_t kHandshakeRead = 100;
constexpr std::uint32_t kFlashRead = 1000;
constexpr std::uint32_t kMd5Read = 10000;  // the device reads all of the image for its digest

// A step of a download, and what the operator is told when refusals have ended it. A refused digest
// is told with the code of silence, though a refusal is what the download then returns.
struct DownloadStep : LoaderStep {
    int refusedCode;
    const wchar_t* refusedDescription;
};

// What the operator is told when silence has ended a step.
constexpr const wchar_t* kSilentDescription = L"RECEIVE OVERTIME......";

constexpr DownloadStep kBegin{
    {"RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n"},
    kUartRefused,
    L"BEGIN COMMAND FORMAT ERROR"};
constexpr DownloadStep kData{
    {"RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n"},
    kUartRefused,
    L"DATA COMMAND FORMAT ERROR"};
constexpr DownloadStep kMd5{{"CONNECT OVERTIME......\n", "MD5 FORMAT ERROR, CONNECT AGAIN\n"},
                            kUartNoAnswer,
                            L"MD5 FORMAT ERROR"};
constexpr DownloadStep kEnd{{"RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n"},
                            kUartRefused,
                            L"END COMMAND FORMAT ERROR"};

// Steps outside a download, which no stop ends and of which the operator is told nothing.
constexpr LoaderStep kChangeRate{
    .silent = "RECEIVE OVERTIME......\n", .refused = nullptr, .onStop = OnStop::kGoOn};
constexpr LoaderStep kMd5Alone{
    .silent = kMd5.silent, .refused = kMd5.refused, .onStop = OnStop::kGoOn};

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

// What a download writes.
struct Image {
    std::wstring name;   // in progress reports
    std::uint32_t size;  // bytes
    // Gives the next `count` bytes; null if they cannot be read.
    std::function<const std::uint8_t*(std::uint32_t count)> next;
};

// Ends a download: the operator hears of it when the image is closed.
int fail(UartContext* context, int code, const std::wstring& description, int result) {
    uart_file_close(context->flash.image);
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

int resultOf(StepEnd end) {
    if (end == StepEnd::kAcknowledged)
        return kUartOk;
    return end == StepEnd::kRefused ? kUartRefused : kUartNoAnswer;
}

// One step of a download. kUartOk, the result of the failure that ended it, of which onError has
// been told, or -1 for a stop.
template <typename Send>
int runStep(UartContext* context, const DownloadStep& step, Send send) {
    const StepEnd end = sendUntilAcknowledged(context, step, context->flash.retries, send);
    if (end == StepEnd::kSilent)
        return fail(context, kUartNoAnswer, kSilentDescription, kUartNoAnswer);
    if (end == StepEnd::kRefused)
        return fail(context, step.refusedCode, step.refusedDescription, kUartRefused);
    return resultOf(end);
}

// `digest` may be null; it takes each block once, however often that is sent.
int sendBlocks(UartContext* context, const Image& image, Md5* digest) {
    while (context->flash.seq < context->flash.blocks) {
        const std::uint32_t length =
            std::min(kFlashBlockSize, context->flash.total - context->flash.sent);
        const std::uint8_t* const block = image.next(length);
        if (block == nullptr)
            return failWithFile(context, L"Read file failed!", image.name);
        if (digest != nullptr)
            digest->update(block, length);
        const int result = runStep(context, kData, [&] {
            return send_flash_data(context, block, static_cast<std::uint16_t>(length));
        });
        if (result != kUartOk)
            return result;
        context->flash.retries = 0;
        const int percent = uart_percent(context->flash.seq, context->flash.blocks);
        UART_VERBOSE("SEND DATA COMMAND SUCCESS IN ID: %d, PROGRESS=%d\n",
                     static_cast<int>(context->flash.seq - 1), percent);
        if (context->onProgress != nullptr)
            context->onProgress(context, image.name, percent);
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

// When no digest comes, the long reads stay in force until a later one has come: the commands of
// the next download then wait as long for a silent device.
int compareDigests(UartContext* context, std::uint32_t address, Md5& digest) {
    setReadConstant(context, kMd5Read);
    const int result =
        runStep(context, kMd5, [&] { return send_md5(context, address, context->flash.total); });
    if (result != kUartOk)
        return result;
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
int download(UartContext* context, const Image& image, std::uint32_t address,
             std::uint8_t endAction, bool md5Check) {
    const std::uint32_t offset = address - kFlashWindow;
    if (image.size == 0)
        return failWithFile(context, L"Empty file!", image.name);
    if (image.size > kFlashWindowSize - offset)
        return failWithFile(context, L"File too large!", image.name);

    // `resend` is not cleared, on purpose: behind a download whose last block was never
    // acknowledged the first block of this one goes out with the mark of a repeat.
    context->flash.retries = 0;
    int result =
        runStep(context, kBegin, [&] { return send_flash_begin(context, offset, image.size); });
    if (result != kUartOk)
        return result;
    UART_VERBOSE("SEND BEGIN COMMAND SUCCESS\n");
    context->flash.retries = 0;
    Md5 digest;
    result = sendBlocks(context, image, md5Check ? &digest : nullptr);
    if (result != kUartOk)
        return result;
    // The digest and the end share one budget.
    if (md5Check)
        result = compareDigests(context, address, digest);
    if (result != kUartOk)
        return result;
    result = runStep(context, kEnd, [&] { return send_flash_end(context, endAction); });
    if (result != kUartOk)
        return result;
    UART_VERBOSE("SEND END COMMAND SUCCESS\n");
    context->flash.retries = 0;
    return kUartOk;
}

// The check of an image that is open. The long reads stay in force as in compareDigests.
int checkImage(UartContext* context, UartFile& image, std::uint32_t address) {
    setReadConstant(context, kMd5Read);
    const StepEnd end = sendUntilAcknowledged(context, kMd5Alone, context->flash.retries, [&] {
        return send_md5(context, address, uart_file_size(image));
    });
    if (end != StepEnd::kAcknowledged)
        return resultOf(end);
    setReadConstant(context, kFlashRead);
    const std::uint8_t* const bytes = uart_file_read_all(image);
    Md5 digest;
    if (bytes != nullptr)
        digest.update(bytes, uart_file_size(image));
    else
        UART_TRACE("MD5 CHECKSUM ERROR\n");
    // A file that cannot be read agrees with nothing.
    if (bytes == nullptr || !digestsAgree(digest.finish(), context->md5)) {
        UART_TRACE("MD5 CHECK ERROR");  // with no line end, unlike in a download
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
        if (uart_gives_up(context->flash.retries))
            break;
    }
    UART_TRACE("HANDSHAKE ERROR\n");
    setReadConstant(context, kFlashRead);
    return kUartNoAnswer;
}

int flash_loader_change_baudrate(UartContext* context, std::uint32_t newRate) {
    const StepEnd end = sendUntilAcknowledged(context, kChangeRate, context->flash.retries, [&] {
        return send_change_baudrate(context, newRate, context->baudrate);
    });
    if (end == StepEnd::kAcknowledged) {
        UART_VERBOSE("SEND CHANGE BAUDRATE COMMAND SUCCESS\n");
        // At once: the device uses the new rate from here on.
        setRate(context, newRate);
    }
    return resultOf(end);
}

int flash_loader_download_file(UartContext* context, const char* path, std::uint32_t address,
                               std::uint8_t endAction, bool md5Check) {
    if (!isInWindow(address))
        return kUartNoAnswer;
    UartFile& file = context->flash.image;
    const std::wstring name = text::widen(path);
    if (!uart_file_open(file, path))
        return failWithFile(context, L"Open file failed!", name);
    const Image image{name, uart_file_size(file),
                      [&file](std::uint32_t count) { return uart_file_next(file, count); }};
    const int result = download(context, image, address, endAction, md5Check);
    uart_file_close(file);
    return result;
}

int flash_loader_download_buffer(UartContext* context, const std::uint8_t* data, std::uint32_t size,
                                 std::uint32_t address, std::uint8_t endAction, bool md5Check,
                                 const std::wstring& name) {
    if (!isInWindow(address))
        return kUartNoAnswer;
    const Image image{name, size, [next = data](std::uint32_t count) mutable {
                          return std::exchange(next, next + count);
                      }};
    return download(context, image, address, endAction, md5Check);
}

int flash_loader_md5_check(UartContext* context, const char* path, std::uint32_t address) {
    UartFile& image = context->flash.image;
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
