#include "vorlan/uart/ram_loader.h"

#include <algorithm>

#include "utils/text.h"
#include "vorlan/uart/loaderstep.h"
#include "vorlan/uart/uarttrace.h"

namespace {

// Silence ends each step, and with it the attempt. A stop lets a block that has gone out once be
// brought to its end.
constexpr LoaderStep kConnect{"CONNECT OVERTIME......\n", "SYNC FORMAT ERROR, CONNECT AGAIN\n",
                              OnSilence::kGiveUp, OnStop::kGiveUp};
constexpr LoaderStep kBegin{"RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n",
                            OnSilence::kGiveUp, OnStop::kGiveUp};
constexpr LoaderStep kData{"RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n",
                           OnSilence::kGiveUp, OnStop::kGoOn};
constexpr LoaderStep kEnd{"RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n",
                          OnSilence::kGiveUp, OnStop::kGiveUp};

// Whether the device has acknowledged the step.
template <typename Send>
bool runStep(UartContext* context, const LoaderStep& step, Send send) {
    return sendUntilAcknowledged(context, step, context->ram.retries, send) ==
           StepEnd::kAcknowledged;
}

bool sendBlocks(UartContext* context) {
    const std::wstring name = text::widen(kFlashProxyPath);
    while (context->ram.seq < context->ram.blocks) {
        if (uart_context_stopped(context))
            return false;
        const std::uint32_t count = std::min(kRamBlockSize, context->ram.total - context->ram.sent);
        const std::uint8_t* const block = uart_file_next(context->ram.image, count);
        if (block == nullptr) {
            UART_TRACE("cannot read %s\n", kFlashProxyPath);
            return false;
        }
        if (!runStep(context, kData, [&] {
                return send_ram_data(context, block, static_cast<std::uint16_t>(count));
            }))
            return false;
        UART_VERBOSE("SEND DATA COMMAND SUCCESS IN ID: %d\n", static_cast<int>(context->ram.seq));
        if (context->onProgress != nullptr)
            context->onProgress(context, name, uart_percent(context->ram.seq, context->ram.blocks));
        context->ram.retries = 0;
    }
    return true;
}

// The attempt, with the image open. The count of failures is not cleared first, on purpose: what an
// attempt that ended in silence has counted, the next one's SYNC finds used up.
bool download(UartContext* context) {
    if (!runStep(context, kConnect, [&] { return send_sync(context); }))
        return false;
    UART_VERBOSE("CONNECT WITH ROM SUCCESS\n");
    context->ram.retries = 0;
    const std::uint32_t size = uart_file_size(context->ram.image);
    if (!runStep(context, kBegin, [&] { return send_ram_begin(context, 0, size); }))
        return false;
    UART_VERBOSE("SEND BEGIN COMMAND SUCCESS\n");
    context->ram.retries = 0;
    if (!sendBlocks(context))
        return false;
    if (!runStep(context, kEnd, [&] { return send_ram_end(context, 0, 0); }))
        return false;
    UART_VERBOSE("SEND END COMMAND SUCCESS\n");
    context->ram.retries = 0;
    return true;
}

bool openImage(UartContext* context) {
    if (!uart_file_open(context->ram.image, kFlashProxyPath))
        return false;
    if (uart_file_size(context->ram.image) != 0)
        return true;
    UART_TRACE("%s is empty\n", kFlashProxyPath);
    return false;
}

}  // namespace

int ram_loader_download(UartContext* context) {
    const bool done = openImage(context) && download(context);
    uart_file_close(context->ram.image);
    if (done)
        UART_VERBOSE("CONNECT ROM AND DOWNLOAD RAM LOADER SUCCESS\n");
    return done ? kUartOk : kUartNoAnswer;
}
