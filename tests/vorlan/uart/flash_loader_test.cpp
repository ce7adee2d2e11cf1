#include "vorlan/uart/flash_loader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "scriptedpeer.h"
#include "support/temporarydirectory.h"

using namespace std::chrono_literals;

namespace {

struct ToldError {
    int code;
    std::wstring description;
    bool operator==(const ToldError&) const = default;
};

class FlashLoaderTest : public testing::Test {
  protected:
    FlashLoaderTest() {
        directory_.enter();
        context_->user = this;
        context_->onProgress = [](UartContext* context, const std::wstring& name, int percent) {
            auto& test = *static_cast<FlashLoaderTest*>(context->user);
            test.percents.push_back(percent);
            test.progressName = name;
        };
        context_->onError = [](UartContext* context, int code, const std::wstring& description) {
            static_cast<FlashLoaderTest*>(context->user)->errors.push_back({code, description});
        };
        // As the handshake leaves it.
        serial_set_timeouts(context_->port, context_->baudrate, 1000);
        giveImage(9000);
    }

    void giveImage(std::size_t size) {
        image_.resize(size);
        for (std::size_t i = 0; i < size; ++i)
            image_[i] = static_cast<char>(i * 11 + i / 256);
        writeContent("image.bin", image_);
    }

    template <typename Step>
    int run(Step step) {
        errors.clear();
        testing::internal::CaptureStderr();
        const int result = step();
        trace_ = testing::internal::GetCapturedStderr();
        EXPECT_EQ(context_->flashImage.stream, nullptr);
        return result;
    }

    int download(std::uint32_t address = 0x80010000, bool md5Check = true) {
        return run([&] {
            return flash_loader_download_file(context_.get(), "image.bin", address, 2, md5Check);
        });
    }

    int handshake() {
        return run([&] { return flash_loader_handshake(context_.get()); });
    }

    int changeRate() {
        return run([&] { return flash_loader_change_baudrate(context_.get(), 3000000); });
    }

    int check() {
        return run([&] { return flash_loader_md5_check(context_.get(), "image.bin", 0x1000); });
    }

    int told(const std::string& text) const {
        int count = 0;
        for (std::size_t at = trace_.find(text); at != std::string::npos;
             at = trace_.find(text, at + 1))
            ++count;
        return count;
    }

    // A well-formed answer to UART_MD5 with a digest that is not the image's.
    std::string wrongDigest() const {
        std::string answer = peer_.acknowledgement(UART_MD5);
        answer.replace(11, 16, "0123456789abcdef");
        return answer;
    }

    void stopAt(UartCommand command) {
        peer_.onRequest = [this, command](const SeenRequest& request) {
            if (request.command == command)
                context_->stop = true;
        };
    }

    // What the callbacks of the context have told.
    std::vector<ToldError> errors;
    std::vector<int> percents;
    std::wstring progressName;

    TemporaryDirectory directory_;
    std::string image_;
    std::string trace_;
    std::unique_ptr<UartContext> context_ = uart_context_create();
    ScriptedPeer peer_{*context_};
};

// A step's failures, in the trace and as the operator is told of them, and what is returned.
struct Row {
    UartCommand command;
    bool silent;
    const char* trace;
    ToldError error;
    int result;
};

const Row kRows[] = {
    {UART_FLASH_BEGIN, true, "RECEIVE OVERTIME......\n", {-1, L"RECEIVE OVERTIME......"}, -1},
    {UART_FLASH_BEGIN,
     false,
     "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n",
     {-2, L"BEGIN COMMAND FORMAT ERROR"},
     -2},
    {UART_FLASH_DATA, true, "RECEIVE OVERTIME......\n", {-1, L"RECEIVE OVERTIME......"}, -1},
    {UART_FLASH_DATA,
     false,
     "DATA COMMAND FORMAT ERROR, SEND AGAIN\n",
     {-2, L"DATA COMMAND FORMAT ERROR"},
     -2},
    {UART_MD5, true, "CONNECT OVERTIME......\n", {-1, L"RECEIVE OVERTIME......"}, -1},
    {UART_MD5, false, "MD5 FORMAT ERROR, CONNECT AGAIN\n", {-1, L"MD5 FORMAT ERROR"}, -2},
    {UART_FLASH_END, true, "RECEIVE OVERTIME......\n", {-1, L"RECEIVE OVERTIME......"}, -1},
    {UART_FLASH_END,
     false,
     "END COMMAND FORMAT ERROR, SEND AGAIN\n",
     {-2, L"END COMMAND FORMAT ERROR"},
     -2}};

}  // namespace

TEST_F(FlashLoaderTest, WritesAFileAndComparesItsDigest) {
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.commands(), "2 3 3 3 19 4");
    EXPECT_EQ(peer_.image(), image_);
    EXPECT_EQ(percents, (std::vector<int>{33, 66, 100}));
    EXPECT_EQ(progressName, L"image.bin");
    EXPECT_EQ(peer_.requests(UART_FLASH_BEGIN).front().word(0), 9000U);
    EXPECT_EQ(peer_.requests(UART_FLASH_BEGIN).front().word(3), 0x10000U);
    const SeenRequest md5 = peer_.requests(UART_MD5).front();
    EXPECT_EQ(md5.word(0), 0x80010000U);
    EXPECT_EQ(md5.word(1), 9000U);
    EXPECT_EQ(peer_.requests(UART_FLASH_END).front().word(0), 2U);
    for (const SeenRequest& request : peer_.requests())
        EXPECT_EQ(request.silentRead, request.command == UART_MD5 ? 10640ms : 1640ms);
    EXPECT_EQ(trace_, "");

    EXPECT_EQ(download(0x80010000, false), kUartOk);
    EXPECT_EQ(peer_.commands(), "2 3 3 3 19 4 2 3 3 3 4");
}

TEST_F(FlashLoaderTest, WritesMemoryAsItIs) {
    const std::string number = "SN0123456789";
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(number.data());
    EXPECT_EQ(flash_loader_download_buffer(context_.get(), bytes, 12, 0x80000000, 2, true, L"SN=x"),
              kUartOk);
    EXPECT_EQ(peer_.commands(), "2 3 19 4");
    EXPECT_EQ(peer_.image(), number);
    EXPECT_EQ(percents, (std::vector<int>{100}));
    EXPECT_EQ(progressName, L"SN=x");
}

TEST_F(FlashLoaderTest, BlocksEndWhereTheImageEnds) {
    for (const auto& [size, lastBlock] : {std::pair{4096U, 4096U}, {4097U, 1U}}) {
        giveImage(size);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(peer_.image(), image_);
        EXPECT_EQ(peer_.requests(UART_FLASH_DATA).back().word(0), lastBlock);
    }
}

TEST_F(FlashLoaderTest, SixFailuresOfAStepAreBornAndSevenEndTheDownload) {
    for (const Row& row : kRows) {
        const std::string answer = row.silent ? "" : peer_.refusal(row.command);
        peer_.answer(row.command, answer, 6);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(told(row.trace), 6) << trace_;
        EXPECT_EQ(peer_.image(), image_);
        EXPECT_TRUE(errors.empty());
        EXPECT_EQ(context_->flashRetries, 0);

        peer_.answer(row.command, answer, 7);
        EXPECT_EQ(download(), row.result) << row.trace;
        EXPECT_EQ(told(row.trace), 7) << trace_;
        EXPECT_EQ(errors, std::vector<ToldError>{row.error}) << row.trace;
        EXPECT_EQ(peer_.requests().back().command, row.command);
        // Reads are left long by a digest that never came, until the next one has.
        const auto next = peer_.requests().size();
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(peer_.requests()[next].silentRead, row.command == UART_MD5 ? 10640ms : 1640ms);
        EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
    }
}

TEST_F(FlashLoaderTest, TheBeginAndEachBlockHaveABudgetOfTheirOwn) {
    peer_.refuse(UART_FLASH_BEGIN, 6);
    const std::string good = peer_.acknowledgement(UART_FLASH_DATA);
    peer_.keepSilent(UART_FLASH_DATA, 6);
    peer_.answer(UART_FLASH_DATA, good);
    peer_.refuse(UART_FLASH_DATA, 3);
    peer_.keepSilent(UART_FLASH_DATA, 3);
    EXPECT_EQ(download(0x80000000, false), kUartOk);
    EXPECT_EQ(peer_.requests(UART_FLASH_DATA).size(), 15U);
}

TEST_F(FlashLoaderTest, DigestAndEndShareOneBudget) {
    peer_.refuse(UART_MD5, 4);
    peer_.refuse(UART_FLASH_END, 3);
    EXPECT_EQ(download(), -2);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-2, L"END COMMAND FORMAT ERROR"}}));
    EXPECT_EQ(peer_.requests(UART_FLASH_END).size(), 3U);
}

TEST_F(FlashLoaderTest, AWrongDigestEndsTheDownloadBeforeItsEnd) {
    peer_.answer(UART_MD5, wrongDigest());
    EXPECT_EQ(download(), -5);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-5, L"MD5 CHECK ERROR"}}));
    EXPECT_EQ(told("MD5 CHECK ERROR\n"), 1) << trace_;
    EXPECT_EQ(peer_.commands(), "2 3 3 3 19");
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
}

TEST_F(FlashLoaderTest, AStopEndsTheDownloadAtTheNextSendWithoutAWord) {
    for (const UartCommand command : {UART_FLASH_BEGIN, UART_FLASH_DATA, UART_MD5}) {
        for (const bool refused : {false, true}) {
            if (refused)
                peer_.refuse(command, 1);
            const std::size_t before = peer_.requests(command).size();
            stopAt(command);
            EXPECT_EQ(download(), -1);
            EXPECT_EQ(peer_.requests().back().command, command);
            EXPECT_EQ(peer_.requests(command).size(), before + 1);
            EXPECT_TRUE(errors.empty());
            context_->stop = false;
        }
    }
    stopAt(UART_FLASH_END);
    EXPECT_EQ(download(), kUartOk);
    peer_.refuse(UART_FLASH_END, 1);
    context_->stop = false;
    EXPECT_EQ(download(), -1);
    const std::size_t sent = peer_.requests().size();
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(peer_.requests().size(), sent);
}

TEST_F(FlashLoaderTest, NothingIsSentForWhatCannotBeWritten) {
    for (const std::uint32_t outside : {0U, 0x7FFFFFFFU, 0x80800000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(download(outside), -1);
        EXPECT_TRUE(errors.empty());
        EXPECT_EQ(trace_, "");
    }
    EXPECT_EQ(download(0x80800000 - 8999), -3);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-3, L"File too large! path=image.bin"}}));
    giveImage(0);
    EXPECT_EQ(download(), -3);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-3, L"Empty file! path=image.bin"}}));
    EXPECT_EQ(check(), -3);
    std::filesystem::remove("image.bin");
    EXPECT_EQ(download(), -3);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-3, L"Open file failed! path=image.bin"}}));
    EXPECT_EQ(check(), -3);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-3, L"Open file failed! path=image.bin"}}));
    EXPECT_EQ(flash_loader_download_ram(context_.get(), "image.bin", 0x60000000, 2), 0);
    EXPECT_EQ(peer_.commands(), "");

    giveImage(9000);
    EXPECT_EQ(download(0x80800000 - 9000), kUartOk);
    giveImage(1);
    EXPECT_EQ(download(0x807FFFFF), kUartOk);
}

TEST_F(FlashLoaderTest, AnImageThatIsCutShortDuringTheDownloadFails) {
    peer_.onRequest = [](const SeenRequest& request) {
        if (request.command == UART_FLASH_BEGIN)
            std::filesystem::resize_file("image.bin", 4096);
    };
    EXPECT_EQ(download(), -3);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-3, L"Read file failed! path=image.bin"}}));
    EXPECT_EQ(peer_.commands(), "2 3");

    // No digest passes for that of a file that cannot be read.
    giveImage(9000);
    std::string answer = peer_.acknowledgement(UART_MD5);
    peer_.answer(UART_MD5, answer.replace(11, 16, std::string(16, '\0')));
    peer_.onRequest = [](const SeenRequest&) { std::filesystem::resize_file("image.bin", 1); };
    EXPECT_EQ(check(), -5);
    EXPECT_EQ(told("MD5 CHECKSUM ERROR\n"), 1) << trace_;
}

TEST_F(FlashLoaderTest, FindsTheProxyAtEachRate) {
    for (const std::uint32_t rate : {115200U, 1024000U, 1536000U, 3000000U}) {
        peer_.listenAt(rate);
        EXPECT_EQ(handshake(), kUartOk);
        EXPECT_EQ(peer_.requests().back().rate, rate);
        EXPECT_EQ(peer_.requests().back().silentRead, 740ms);
        EXPECT_EQ(context_->baudrate, rate);
        EXPECT_EQ(context_->flashRetries, 0);
        EXPECT_EQ(send_sync(context_.get()), kUartOk);
        EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
    }
}

TEST_F(FlashLoaderTest, ASecondRoundLeavesLessForTheRateChange) {
    peer_.listenAt(3000000);
    peer_.sleepFor(4);
    EXPECT_EQ(handshake(), kUartOk);
    EXPECT_EQ(peer_.requests().size(), 8U);
    EXPECT_EQ(context_->flashRetries, 1);

    peer_.refuse(UART_CHANGE_BAUDRATE, 6);
    EXPECT_EQ(changeRate(), -2);
    EXPECT_EQ(peer_.requests(UART_CHANGE_BAUDRATE).size(), 6U);
    peer_.refuse(UART_CHANGE_BAUDRATE, 6);
    EXPECT_EQ(changeRate(), kUartOk);
    EXPECT_EQ(context_->flashRetries, 6);
    // The first image starts with a budget of its own again.
    peer_.refuse(UART_FLASH_BEGIN, 6);
    EXPECT_EQ(download(), kUartOk);
}

TEST_F(FlashLoaderTest, TheHandshakeGivesUpAfterSevenRounds) {
    peer_.sleepFor(28);
    EXPECT_EQ(handshake(), -1);
    EXPECT_EQ(peer_.requests().size(), 28U);
    EXPECT_EQ(told("HANDSHAKE ERROR\n"), 1);
    EXPECT_EQ(context_->flashRetries, 0);
    EXPECT_EQ(send_sync(context_.get()), kUartOk);
    EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
}

TEST_F(FlashLoaderTest, NoiseAtAWrongRateCostsARound) {
    // A proxy at 1536000, to which the second rate looks like the start of a frame. Its first
    // answer only ends that frame.
    const std::string good = peer_.acknowledgement(UART_SYNC);
    for (const std::string& answer : {std::string(), std::string("\xC0noise"), good, std::string(),
                                      std::string(), std::string(), good})
        peer_.answer(UART_SYNC, answer);
    EXPECT_EQ(handshake(), kUartOk);
    EXPECT_EQ(peer_.requests().size(), 7U);
    EXPECT_EQ(context_->baudrate, 1536000U);
    EXPECT_EQ(context_->flashRetries, 1);
}

TEST_F(FlashLoaderTest, TheHandshakeHeedsAStop) {
    peer_.sleepFor(100);
    peer_.onRequest = [this](const SeenRequest&) { context_->stop = peer_.requests().size() == 6; };
    EXPECT_EQ(handshake(), -1);
    EXPECT_EQ(peer_.requests().size(), 6U);
    EXPECT_EQ(told("HANDSHAKE ERROR"), 0);
}

TEST_F(FlashLoaderTest, ChangesTheRateBehindTheAcknowledgement) {
    context_->stop = true;  // which this step does not heed
    peer_.keepSilent(UART_CHANGE_BAUDRATE, 3);
    peer_.refuse(UART_CHANGE_BAUDRATE, 3);
    EXPECT_EQ(changeRate(), kUartOk);
    EXPECT_EQ(told("RECEIVE OVERTIME......\n"), 3) << trace_;
    for (const SeenRequest& request : peer_.requests()) {
        EXPECT_EQ(request.rate, 115200U);
        EXPECT_EQ(request.word(0), 3000000U);
        EXPECT_EQ(request.word(1), 115200U);
    }
    EXPECT_EQ(context_->baudrate, 3000000U);
    EXPECT_EQ(send_sync(context_.get()), kUartOk);
    EXPECT_EQ(peer_.requests().back().rate, 3000000U);

    context_->flashRetries = 0;
    peer_.keepSilent(UART_CHANGE_BAUDRATE, 7);
    EXPECT_EQ(changeRate(), -1);
    EXPECT_TRUE(errors.empty());
}

TEST_F(FlashLoaderTest, ChecksAFileWithoutWriting) {
    context_->stop = true;  // which this step does not heed
    const std::string other = wrongDigest();
    peer_.answer(UART_MD5, other);
    EXPECT_EQ(check(), -5);
    EXPECT_EQ(told("MD5 CHECK ERROR"), 1) << trace_;
    EXPECT_EQ(peer_.requests().back().word(0), 0x1000U);
    EXPECT_EQ(peer_.requests().back().word(1), 9000U);
    EXPECT_EQ(peer_.requests().back().silentRead, 10640ms);

    writeContent("image.bin", "abc");
    std::string digest = peer_.acknowledgement(UART_MD5);
    digest.replace(11, 16, "\x90\x01\x50\x98\x3C\xD2\x4F\xB0\xD6\x96\x3F\x7D\x28\xE1\x7F\x72");
    peer_.refuse(UART_MD5, 5);
    peer_.keepSilent(UART_MD5, 1);
    peer_.answer(UART_MD5, digest);
    EXPECT_EQ(check(), kUartOk);
    EXPECT_EQ(told("MD5 FORMAT ERROR, CONNECT AGAIN\n"), 5) << trace_;
    EXPECT_EQ(told("CONNECT OVERTIME......\n"), 1) << trace_;

    // What was used up stays used up.
    peer_.refuse(UART_MD5, 1);
    EXPECT_EQ(check(), -2);
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(peer_.requests(UART_MD5).size(), 9U);
}
