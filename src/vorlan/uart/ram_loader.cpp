#include "vorlan/uart/ram_loader.h"

#include <algorithm>

#include "utils/text.h"
#include "vorlan/uart/uarttrace.h"

namespace {

// What the trace says of a step's failures.
struct StepTexts {
    const char* silent;
    const char* refused;
};

constexpr StepTexts kConnect{"CONNECT OVERTIME......\n", "SYNC FORMAT ERROR, CONNECT AGAIN\n"};
constexpr StepTexts kBegin{"RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n"};
constexpr StepTexts kData{"RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n"};
constexpr StepTexts kEnd{"RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n"};

// Sends until the answer is an acknowledgement. False when the step has failed. `stops` tells
// before each send whether the operator wants the end.
template <typename Send, typename Stops>
bool sendUntilAcknowledged(UartContext* context, const StepTexts& texts, Send send, Stops stops) {
    while (!stops()) {
        const int result = send();
        if (result == kUartOk)
            return true;
        UART_TRACE("%s", result == kUartNoAnswer ? texts.silent : texts.refused);
        if (result == kUartNoAnswer || uart_gives_up(context->ramRetries))
            return false;
    }
    return false;
}

template <typename Send>
bool sendCommandUntilAcknowledged(UartContext* context, const StepTexts& texts, Send send) {
    return sendUntilAcknowledged(context, texts, send,
                                 [&] { return uart_context_stopped(context); });
}

bool sendBlocks(UartContext* context) {
    const std::wstring name = text::widen(kFlashProxyPath);
    while (context->ramSeq < context->ramBlocks) {
        if (uart_context_stopped(context))
            return false;
        const std::uint32_t wanted = std::min(kRamBlockSize, context->ramTotal - context->ramSent);
        std::uint32_t count = wanted;
        const std::uint8_t* const block = uart_file_read(context->ramImage, count);
        if (count != wanted) {
            UART_TRACE("cannot read %s\n", kFlashProxyPath);
            return false;
        }
        const auto send = [&] {
            return send_ram_data(context, block, static_cast<std::uint16_t>(count));
        };
        // A block that has gone out once is brought to its end.
        if (!sendUntilAcknowledged(context, kData, send, [] { return false; }))
            return false;
        UART_VERBOSE("SEND DATA COMMAND SUCCESS IN ID: %d\n", static_cast<int>(context->ramSeq));
        if (context->onProgress != nullptr)
            context->onProgress(context, name, uart_percent(context->ramSeq, context->ramBlocks));
        context->ramRetries = 0;
    }
    return true;
}

// The attempt, with the image open. It begins with the failures that an earlier one has counted
// when the line fell silent.
bool download(UartContext* context) {
    if (!sendCommandUntilAcknowledged(context, kConnect, [&] { return send_sync(context); }))
        return false;
    UART_VERBOSE("CONNECT WITH ROM SUCCESS\n");
    context->ramRetries = 0;
    const std::uint32_t size = uart_file_size(context->ramImage);
    if (!sendCommandUntilAcknowledged(context, kBegin,
                                      [&] { return send_ram_begin(context, 0, size); }))
        return false;
    UART_VERBOSE("SEND BEGIN COMMAND SUCCESS\n");
    context->ramRetries = 0;
    if (!sendBlocks(context))
        return false;
    if (!sendCommandUntilAcknowledged(context, kEnd, [&] { return send_ram_end(context, 0, 0); }))
        return false;
    UART_VERBOSE("SEND END COMMAND SUCCESS\n");
    context->ramRetries = 0;
    return true;
}

bool openImage(UartContext* context) {
    if (!uart_file_open(context->ramImage, kFlashProxyPath))
        return false;
    if (uart_file_size(context->ramImage) != 0)
        return true;
    UART_TRACE("%s is empty\n", kFlashProxyPath);
    return false;
}

}  // namespace

int ram_loader_download(UartContext* context) {
    const bool done = openImage(context) && download(context);
    uart_file_close(context->ramImage);
    if (done)
        UART_VERBOSE("CONNECT ROM AND DOWNLOAD RAM LOADER SUCCESS\n");
    return done ? kUartOk : kUartNoAnswer;
}
