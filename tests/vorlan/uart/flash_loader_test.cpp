#include "vorlan/uart/flash_loader.h"

#include <filesystem>

#include "loaderfixture.h"

using namespace std::chrono_literals;

namespace {

class FlashLoaderTest : public LoaderFixture {
  protected:
    FlashLoaderTest() : LoaderFixture("image.bin") {
        // As the handshake leaves it.
        serial_set_timeouts(context_->port, context_->baudrate, 1000);
        giveImage(9000);
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

    // An answer to UART_MD5 with another digest than the image's.
    std::string answerWith(const std::string& digest) const {
        return peer_.acknowledgement(UART_MD5).replace(11, 16, digest);
    }
    const std::string wrongDigest_ = answerWith("0123456789abcdef");
};

const Step kSteps[] = {{UART_FLASH_BEGIN,
                        "RECEIVE OVERTIME......\n",
                        "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n",
                        {-2, L"BEGIN COMMAND FORMAT ERROR"}},
                       {UART_FLASH_DATA,
                        "RECEIVE OVERTIME......\n",
                        "DATA COMMAND FORMAT ERROR, SEND AGAIN\n",
                        {-2, L"DATA COMMAND FORMAT ERROR"}},
                       {UART_MD5,
                        "CONNECT OVERTIME......\n",
                        "MD5 FORMAT ERROR, CONNECT AGAIN\n",
                        {-1, L"MD5 FORMAT ERROR"}},
                       {UART_FLASH_END,
                        "RECEIVE OVERTIME......\n",
                        "END COMMAND FORMAT ERROR, SEND AGAIN\n",
                        {-2, L"END COMMAND FORMAT ERROR"}}};

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

TEST_F(FlashLoaderTest, BlocksEndWhereTheImageEnds) {
    for (const auto& [size, lastBlock] : {std::pair{4096U, 4096U}, {4097U, 1U}}) {
        giveImage(size);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(peer_.image(), image_);
        EXPECT_EQ(peer_.requests(UART_FLASH_DATA).back().word(0), lastBlock);
    }
    // The same from memory.
    EXPECT_EQ(run([&] {
                  return flash_loader_download_buffer(
                      context_.get(), reinterpret_cast<const std::uint8_t*>(image_.data()), 4097,
                      0x80000000, 2, true, L"SN=x");
              }),
              kUartOk);
    EXPECT_EQ(peer_.image(), image_);
    EXPECT_EQ(percents, (std::vector<int>{50, 100}));
    EXPECT_EQ(progressName, L"SN=x");
}

TEST_F(FlashLoaderTest, SixFailuresOfAStepAreBornAndSevenEndTheDownload) {
    for (const Step& step : kSteps) {
        for (const bool silent : {true, false}) {
            const std::string answer = silent ? "" : peer_.refusal(step.command);
            const char* const line = silent ? step.silent : step.refused;
            peer_.answer(step.command, answer, 6);
            EXPECT_EQ(download(), kUartOk);
            EXPECT_EQ(told(line), 6U) << trace_;
            EXPECT_EQ(peer_.image(), image_);
            EXPECT_TRUE(errors.empty());
            EXPECT_EQ(context_->flash.retries, 0);

            peer_.answer(step.command, answer, 7);
            EXPECT_EQ(download(), silent ? -1 : -2) << line;
            EXPECT_EQ(told(line), 7U) << trace_;
            const ToldError error = silent ? ToldError{-1, L"RECEIVE OVERTIME......"} : step.error;
            EXPECT_EQ(errors, std::vector<ToldError>{error}) << line;
            EXPECT_EQ(peer_.requests().back().command, step.command);
            // Reads are left long by a digest that never came, until the next one has.
            const auto next = peer_.requests().size();
            EXPECT_EQ(download(), kUartOk);
            EXPECT_EQ(peer_.requests()[next].silentRead,
                      step.command == UART_MD5 ? 10640ms : 1640ms);
            EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
        }
    }
}

TEST_F(FlashLoaderTest, EachBlockHasABudgetOfItsOwnAndDigestAndEndShareOne) {
    peer_.refuse(UART_FLASH_BEGIN, 6);
    peer_.keepSilent(UART_FLASH_DATA, 6);
    peer_.answer(UART_FLASH_DATA, peer_.acknowledgement(UART_FLASH_DATA));
    peer_.refuse(UART_FLASH_DATA, 3);
    peer_.keepSilent(UART_FLASH_DATA, 3);
    EXPECT_EQ(download(0x80000000, false), kUartOk);
    EXPECT_EQ(peer_.requests(UART_FLASH_DATA).size(), 15U);

    peer_.refuse(UART_MD5, 4);
    peer_.refuse(UART_FLASH_END, 3);
    EXPECT_EQ(download(), -2);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-2, L"END COMMAND FORMAT ERROR"}}));
}

TEST_F(FlashLoaderTest, AWrongDigestEndsTheDownloadBeforeItsEnd) {
    peer_.answer(UART_MD5, wrongDigest_);
    EXPECT_EQ(download(), -5);
    EXPECT_EQ(errors, (std::vector<ToldError>{{-5, L"MD5 CHECK ERROR"}}));
    EXPECT_EQ(told("MD5 CHECK ERROR\n"), 1U) << trace_;
    EXPECT_EQ(peer_.commands(), "2 3 3 3 19");
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
}

TEST_F(FlashLoaderTest, AStopEndsTheDownloadAtTheNextSendWithoutAWord) {
    for (const Step& step : kSteps) {
        for (const bool refused : {false, true}) {
            if (refused)
                peer_.refuse(step.command, 1);
            const std::size_t before = peer_.requests(step.command).size();
            stopAt(step.command);
            // Nothing follows an end that was acknowledged.
            const bool isDone = step.command == UART_FLASH_END && !refused;
            EXPECT_EQ(download(), isDone ? kUartOk : -1);
            EXPECT_EQ(peer_.requests().back().command, step.command);
            EXPECT_EQ(peer_.requests(step.command).size(), before + 1);
            EXPECT_TRUE(errors.empty());
            context_->stop = false;
        }
    }
    context_->stop = true;
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
    const auto expectError = [&](int result, const wchar_t* description) {
        EXPECT_EQ(result, -3);
        EXPECT_EQ(errors, (std::vector<ToldError>{{-3, description}}));
    };
    expectError(download(0x80800000 - 8999), L"File too large! path=image.bin");
    giveImage(0);
    expectError(download(), L"Empty file! path=image.bin");
    expectError(check(), L"Empty file! path=image.bin");
    std::filesystem::remove("image.bin");
    expectError(download(), L"Open file failed! path=image.bin");
    expectError(check(), L"Open file failed! path=image.bin");
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
    peer_.answer(UART_MD5, answerWith(std::string(16, '\0')));
    peer_.onRequest = [](const SeenRequest&) { std::filesystem::resize_file("image.bin", 1); };
    EXPECT_EQ(check(), -5);
    EXPECT_EQ(told("MD5 CHECKSUM ERROR\n"), 1U) << trace_;
}

TEST_F(FlashLoaderTest, FindsTheProxyAtEachRate) {
    for (const std::uint32_t rate : {115200U, 1024000U, 1536000U, 3000000U}) {
        peer_.listenAt(rate);
        EXPECT_EQ(handshake(), kUartOk);
        EXPECT_EQ(peer_.requests().back().rate, rate);
        EXPECT_EQ(peer_.requests().back().silentRead, 740ms);
        EXPECT_EQ(context_->baudrate, rate);
        EXPECT_EQ(context_->flash.retries, 0);
        EXPECT_EQ(send_sync(context_.get()), kUartOk);
        EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);
    }
}

TEST_F(FlashLoaderTest, ASecondRoundLeavesLessForTheRateChange) {
    peer_.listenAt(1536000);
    peer_.sleepFor(4);
    EXPECT_EQ(handshake(), kUartOk);
    EXPECT_EQ(peer_.requests().size(), 7U);
    EXPECT_EQ(context_->flash.retries, 1);

    peer_.refuse(UART_CHANGE_BAUDRATE, 6);
    EXPECT_EQ(changeRate(), -2);
    EXPECT_EQ(peer_.requests(UART_CHANGE_BAUDRATE).size(), 6U);
    peer_.refuse(UART_CHANGE_BAUDRATE, 6);
    EXPECT_EQ(changeRate(), kUartOk);
    EXPECT_EQ(context_->flash.retries, 6);
    peer_.listenAt(3000000);
    // The first image starts with a budget of its own again.
    peer_.refuse(UART_FLASH_BEGIN, 6);
    EXPECT_EQ(download(), kUartOk);
}

TEST_F(FlashLoaderTest, TheHandshakeGivesUpAfterSevenRoundsOrOnAStop) {
    peer_.sleepFor(28);
    EXPECT_EQ(handshake(), -1);
    EXPECT_EQ(peer_.requests().size(), 28U);
    EXPECT_EQ(told("HANDSHAKE ERROR\n"), 1U);
    EXPECT_EQ(send_sync(context_.get()), kUartOk);
    EXPECT_EQ(peer_.requests().back().silentRead, 1640ms);

    // A stop ends it sooner, and without a word.
    peer_.sleepFor(100);
    peer_.onRequest = [this](const SeenRequest&) {
        context_->stop = peer_.requests().size() == 35;
    };
    EXPECT_EQ(handshake(), -1);
    EXPECT_EQ(peer_.requests().size(), 35U);
    EXPECT_EQ(told("HANDSHAKE ERROR"), 0U);
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
    EXPECT_EQ(context_->flash.retries, 1);
}

TEST_F(FlashLoaderTest, ChangesTheRateBehindTheAcknowledgement) {
    context_->stop = true;  // which this step does not heed
    peer_.keepSilent(UART_CHANGE_BAUDRATE, 3);
    peer_.refuse(UART_CHANGE_BAUDRATE, 3);
    EXPECT_EQ(changeRate(), kUartOk);
    EXPECT_EQ(told("RECEIVE OVERTIME......\n"), 3U) << trace_;
    for (const SeenRequest& request : peer_.requests()) {
        EXPECT_EQ(request.rate, 115200U);
        EXPECT_EQ(request.word(0), 3000000U);
        EXPECT_EQ(request.word(1), 115200U);
    }
    EXPECT_EQ(context_->baudrate, 3000000U);
    EXPECT_EQ(send_sync(context_.get()), kUartOk);
    EXPECT_EQ(peer_.requests().back().rate, 3000000U);

    context_->flash.retries = 0;
    peer_.keepSilent(UART_CHANGE_BAUDRATE, 7);
    EXPECT_EQ(changeRate(), -1);
    EXPECT_TRUE(errors.empty());
}

TEST_F(FlashLoaderTest, ChecksAFileWithoutWriting) {
    context_->stop = true;  // which this step does not heed
    peer_.answer(UART_MD5, wrongDigest_);
    EXPECT_EQ(check(), -5);
    EXPECT_EQ(told("MD5 CHECK ERROR"), 1U) << trace_;
    EXPECT_EQ(peer_.requests().back().word(0), 0x1000U);
    EXPECT_EQ(peer_.requests().back().word(1), 9000U);
    EXPECT_EQ(peer_.requests().back().silentRead, 10640ms);

    writeContent("image.bin", "abc");
    const std::string digest =
        answerWith("\x90\x01\x50\x98\x3C\xD2\x4F\xB0\xD6\x96\x3F\x7D\x28\xE1\x7F\x72");
    peer_.refuse(UART_MD5, 5);
    peer_.keepSilent(UART_MD5, 1);
    peer_.answer(UART_MD5, digest);
    EXPECT_EQ(check(), kUartOk);
    EXPECT_EQ(told("MD5 FORMAT ERROR, CONNECT AGAIN\n"), 5U) << trace_;
    EXPECT_EQ(told("CONNECT OVERTIME......\n"), 1U) << trace_;

    // What was used up stays used up.
    peer_.refuse(UART_MD5, 1);
    EXPECT_EQ(check(), -2);
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(peer_.requests(UART_MD5).size(), 9U);
}
