#include "vorlan/uart/uartcontext.h"

#include "platform/serialports.h"
#include "utils/text.h"

std::unique_ptr<UartContext> uart_context_create() {
    return std::make_unique<UartContext>();
}

void uart_context_destroy(std::unique_ptr<UartContext> context) {
    context.reset();
}

void uart_context_open_port(UartContext* context, std::wstring_view portName) {
    context->baudrate = kRomBaudrate;
    context->port = serial_open(platform::serialPorts().pathOf(text::narrow(portName)),
                                context->baudrate, context->stopBits, context->parity);
}

bool uart_context_stopped(const UartContext* context) {
    return context == nullptr || context->stop;
}
