// A block goes out while the silence behind the answer before is still running. To the device all
// must be as if it went out behind that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/recordinglog.h"
#include "timedline.h"
#include "vorlan/uart/flash_loader.h"

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Time = TimedLine::Time;

constexpr std::uint32_t kOffset = 0x10000;
constexpr std::uint32_t kBlocks = 6;

// The good answer, and some bytes so long behind it.
TimedLine::Say answerAnd(const std::string& bytes, Time pause) {
    return [=](TimedLine& line, const std::string& answer, Time ready) {
        line.say(bytes, line.say(answer, ready) + pause);
    };
}

class EagerBlocksTest : public testing::Test {
  protected:
    void download(bool eager, const TimedLine::Say& sayAnswer = TimedLine().sayAnswer,
                  Time pauseBehindBlock = {}) {
        const std::unique_ptr<UartContext> context = uart_context_create();
        context->eagerBlocks = eager;
        context->baudrate = TimedLine::kRate;
        auto line = std::make_unique<TimedLine>();
        line_ = line.get();
        line_->sayAnswer = sayAnswer;
        line_->pauseBehindBlock = pauseBehindBlock;
        context->port = std::move(line);
        serial_set_timeouts(context->port, context->baudrate, 1000);
        EXPECT_EQ(flash_loader_download_buffer(context.get(), image_.data(),
                                               static_cast<std::uint32_t>(image_.size()),
                                               kFlashWindow + kOffset, 2, true, L"image"),
                  kUartOk);
        EXPECT_THAT(line_->errors(), IsEmpty());
        EXPECT_TRUE(line_->flash().holds(kOffset, image_));
        requests_ = line_->requests();
        time_ = line_->now();
        isEager_ = context->eagerBlocks;
    }

    // The same bytes come to the device as with the silence, in the same order.
    void expectNoDifference(const TimedLine::Say& sayAnswer) {
        download(false, sayAnswer);
        const auto withSilence = requests_;
        download(true, sayAnswer);
        EXPECT_TRUE(requests_ == withSilence)
            << requests_.size() << " requests instead of " << withSilence.size();
    }

    RecordingLog log_;
    // The last block is so short that it would be answered within the silence.
    const std::vector<std::uint8_t> image_ =
        std::vector<std::uint8_t>((kBlocks - 1) * kFlashBlockSize + 5, 0xC3);
    TimedLine* line_ = nullptr;

    // Of the last download.
    std::vector<std::vector<std::uint8_t>> requests_;
    Time time_{};
    bool isEager_ = false;
};

}  // namespace

TEST_F(EagerBlocksTest, SaveTheSilenceBehindEachBlockThatIsLongEnough) {
    download(false);
    const Time withSilence = time_;
    download(true);
    EXPECT_GE(withSilence - time_, (kBlocks - 2) * 10ms);
    EXPECT_LT(withSilence - time_, (kBlocks - 1) * 10ms);
    EXPECT_THAT(log_.takeMessages(), IsEmpty());
}

TEST_F(EagerBlocksTest, DropWhatComesInTheSilence) {
    const std::string again = "\xC0\x01\x03\x02"s + std::string(7, '\0') + "\xC0"s;
    for (const Time pause : {0ms, 1ms, 5ms, 9ms})
        for (const std::string& bytes : {"n"s, "\xC0"s, "\xDB"s, again, std::string(40, 'n')}) {
            SCOPED_TRACE(testing::PrintToString(bytes) + " behind " +
                         testing::PrintToString(pause.count()));
            expectNoDifference(answerAnd(bytes, pause));
            EXPECT_TRUE(isEager_);
        }
    // What comes in it makes it longer.
    std::mt19937 random(1);
    for (int i = 0; i < 200; ++i) {
        const auto seed = random();
        SCOPED_TRACE("seed " + std::to_string(seed));
        expectNoDifference([seed](TimedLine& line, const std::string& answer, Time ready) {
            std::mt19937 dice(seed);
            line.say("noise"s.substr(dice() % 5), ready);
            Time at = line.say(answer.substr(0, answer.size() / 2), ready);
            at = line.say(answer.substr(answer.size() / 2),
                          at + std::chrono::microseconds(dice() % 9900));
            for (int bytes = static_cast<int>(dice() % 20); bytes > 0; --bytes)
                at = line.say(std::string(1, static_cast<char>(dice())),
                              at + std::chrono::microseconds(dice() % 9900));
        });
        EXPECT_TRUE(isEager_);
    }
}

TEST_F(EagerBlocksTest, ComeToTheSameEndWhateverTheDeviceSays) {
    for (const TimedLine::Say& say : std::initializer_list<TimedLine::Say>{
             // Behind the silence a byte falls into the wait for the next answer, and may end that.
             answerAnd("n", 11ms), answerAnd("\xC0", 11ms),
             // Answers that are cut by the silence, and late ones.
             [](TimedLine&line, const std::string&answer, Time ready) {
                 line.say(answer.substr(5), line.say(answer.substr(0, 5), ready) + 12ms);
             },
             [](TimedLine&line, const std::string&answer, Time ready) {
                 line.say(answer, ready + 1500ms);
             }}) {
        download(false, say);
        download(true, say);
    }
}

TEST_F(EagerBlocksTest, EndWithTheFirstThatFails) {
    const auto twice = [](const std::string& instead) -> TimedLine::Say {
        return [=, left = 2](TimedLine& line, const std::string& answer, Time ready) mutable {
            line.say(left-- > 0 ? instead : answer, ready);
        };
    };
    const std::string zeros(6, '\0');
    for (const std::string& instead :
         {"\xC0\x01\x08"s + zeros + "\0\0\xC0"s, "\xC0\x01\x03"s + zeros + "\0\x01\xC0"s, ""s}) {
        log_.takeMessages();
        expectNoDifference(twice(instead));
        EXPECT_FALSE(isEager_);
        EXPECT_THAT(log_.takeMessages(),
                    ElementsAre("W/UartProtocol: timed: block 0 was not acknowledged at once; "
                                "behind each answer there is a pause now"));
    }
    // So a device that needs the silence costs one try, however many blocks there are.
    const TimedLine::Say well = TimedLine().sayAnswer;
    download(false, well, 10ms);
    const std::size_t withSilence = requests_.size();
    EXPECT_THAT(log_.takeMessages(), IsEmpty());
    download(true, well, 10ms);
    EXPECT_EQ(requests_.size(), withSilence + 1);
    EXPECT_THAT(log_.takeMessages(), ElementsAre(HasSubstr("block 1 was not acknowledged")));
}
