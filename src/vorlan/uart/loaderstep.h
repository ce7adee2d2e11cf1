// What both loaders are made of: a step is one command, sent again until the device acknowledges it
// or has failed to too often.
#pragma once

#include <cstdint>

#include "vorlan/uart/uart_protocol.h"
#include "vorlan/uart/uarttrace.h"

enum class OnSilence { kSendAgain, kGiveUp };
enum class OnStop { kGiveUp, kGoOn };

struct LoaderStep {
    const char* silent;   // trace line of each send that is not answered
    const char* refused;  // of each that is refused; null for none
    OnSilence onSilence = OnSilence::kSendAgain;
    OnStop onStop = OnStop::kGiveUp;
};

enum class StepEnd { kAcknowledged, kSilent, kRefused, kStopped };

// Counts a failure of a step; true when it was the seventh, which ends the step. The counter is
// then back at 0.
inline bool uart_gives_up(std::uint8_t& retries) {
    constexpr std::uint8_t kMostFailures = 6;  // of one step, before the one that ends it
    const bool last = retries >= kMostFailures;
    retries = last ? std::uint8_t{0} : static_cast<std::uint8_t>(retries + 1);
    return last;
}

// Calls `send`, which gives the UartResult of one exchange, until the step has come to its end. Its
// failures are counted on `retries`, where it finds those of an earlier step if nobody has cleared
// them.
template <typename Send>
StepEnd sendUntilAcknowledged(const UartContext* context, const LoaderStep& step,
                              std::uint8_t& retries, Send send) {
    while (step.onStop == OnStop::kGoOn || !uart_context_stopped(context)) {
        const int result = send();
        if (result == kUartOk)
            return StepEnd::kAcknowledged;
        const bool silent = result == kUartNoAnswer;
        const char* const line = silent ? step.silent : step.refused;
        if (line != nullptr)
            UART_TRACE("%s", line);
        if ((silent && step.onSilence == OnSilence::kGiveUp) || uart_gives_up(retries))
            return silent ? StepEnd::kSilent : StepEnd::kRefused;
    }
    return StepEnd::kStopped;
}

// Part of a download that is acknowledged, cut to whole percent.
inline int uart_percent(std::uint32_t acknowledged, std::uint32_t blocks) {
    return static_cast<int>(static_cast<float>(acknowledged) / static_cast<float>(blocks) * 100.0F);
}
