// Any bytes from a serial line, cut into reads anywhere: the decoder of frames and the check of
// answers agree with a model that was written without looking at them, and find the next sound
// frame behind whatever came before.
#include <memory>

#include "fuzzing.h"
#include "simulator/serial/slipreader.h"
#include "slipmodel.h"
#include "vorlan/uart/uart_protocol.h"

namespace {

using Result = SlipCodec::Result;

constexpr UartCommand kCommands[] = {UART_FLASH_BEGIN, UART_FLASH_DATA, UART_FLASH_END,
                                     UART_RAM_BEGIN,   UART_RAM_END,    UART_RAM_DATA,
                                     UART_SYNC,        UART_MD5,        UART_CHANGE_BAUDRATE};

// One port, with the model beside it.
class Line {
  public:
    Result read(const Bytes& raw, UartCommand command) {
        static const std::uint8_t nothing = 0;
        const std::uint8_t* frame = &nothing;
        std::size_t size = 1000;
        const Result result =
            context_->slip.slip_decode(raw.data(), static_cast<int>(raw.size()), frame, size);
        require(static_cast<int>(result) == static_cast<int>(model_.read(raw)), "same result");
        if (result != Result::kComplete) {
            require(frame == &nothing && size == 1000, "nothing given without a frame");
            return result;
        }
        require(size == model_.size() && size <= kLongestAnswer, "same length");
        require(std::equal(model_.buffer().begin(), model_.buffer().end(), frame),
                "same frame, old bytes behind it included");
        const int verdict = check_response(context_.get(), frame, command);
        require(verdict == (model_.acknowledges(command) ? kUartOk : kUartRefused),
                "same verdict on the answer");
        require(context_->rxFrame == frame, "last frame noted");
        return result;
    }

    const SlipModel& model() const { return model_; }

  private:
    std::unique_ptr<UartContext> context_ = uart_context_create();
    SlipModel model_;
};

// The next sound frame is found, at the latest when it comes a second time.
void findSoundFrame(Line& line, Script& script) {
    Bytes plain{1, UART_SYNC, 2, 0, 0, 0, 0, 0, 0, 0};
    const Bytes more = script.take(kLongestAnswer - plain.size());
    plain.insert(plain.end(), more.begin(), more.end());
    const Bytes frame = simulator::slipFrame(plain);
    const bool idle = line.model().isIdle();
    const auto isFound = [&] {
        return line.read(frame, UART_SYNC) == Result::kComplete &&
               line.model().size() == plain.size() &&
               std::equal(plain.begin(), plain.end(), line.model().buffer().begin());
    };
    const bool atOnce = isFound();
    require(atOnce || !idle, "a sound frame is found at once on a quiet line");
    require(atOnce || isFound(), "a sound frame is found when it comes again");
}

void checkEncoder(const Bytes& plain) {
    const Bytes expected = simulator::slipFrame(plain);
    SlipCodec codec;
    const std::uint8_t* output = nullptr;
    std::size_t size = 0;
    const int taken = codec.slip_encode(plain.data(), plain.size(), output, size);
    if (expected.size() > SlipCodec::kEncodedSize) {
        require(taken == -1, "too long to send");
        return;
    }
    require(taken == static_cast<int>(plain.size()) && Bytes(output, output + size) == expected,
            "same frame to send");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    Bytes thrice(data, data + size);
    for (int i = 0; i < 2; ++i)
        thrice.insert(thrice.end(), data, data + size);
    checkEncoder(thrice);
    Script script(data, size);
    Line line;
    while (!script.isAtEnd()) {
        constexpr std::uint8_t kSoundFrame = 0xFF;
        const std::uint8_t length = script.next();
        if (length == kSoundFrame)
            findSoundFrame(line, script);
        else
            line.read(script.take(length % (kRxBufferSize + 1)),
                      kCommands[script.next() % std::size(kCommands)]);
    }
    findSoundFrame(line, script);
    return 0;
}
