#include "vorlan/uart/ram_loader.h"

#include <filesystem>

#include "loaderfixture.h"

using namespace std::chrono_literals;

namespace {

class RamLoaderTest : public LoaderFixture {
  protected:
    RamLoaderTest() : LoaderFixture(kFlashProxyPath) { giveImage(5000); }

    int download() {
        const int result = run([&] { return ram_loader_download(context_.get()); });
        EXPECT_TRUE(errors.empty());  // attempts are told of by the caller
        return result;
    }
};

const Step kSteps[] = {
    {UART_SYNC, "CONNECT OVERTIME......\n", "SYNC FORMAT ERROR, CONNECT AGAIN\n"},
    {UART_RAM_BEGIN, "RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n"},
    {UART_RAM_DATA, "RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n"},
    {UART_RAM_END, "RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n"}};

}  // namespace

TEST_F(RamLoaderTest, DownloadsTheProxyByteForByte) {
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.commands(), "8 5 7 7 7 6");
    EXPECT_EQ(percents, (std::vector<int>{33, 66, 100}));
    EXPECT_EQ(progressName, L"ramloader/flash_proxy.img");
    EXPECT_EQ(peer_.requests(UART_RAM_BEGIN).front().word(0), 5000U);
    EXPECT_EQ(peer_.requests(UART_RAM_BEGIN).front().word(3), 0U);
    EXPECT_EQ(peer_.requests(UART_RAM_DATA).back().word(1), 2U);
    for (const SeenRequest& request : peer_.requests()) {
        EXPECT_EQ(request.rate, 115200U);
        EXPECT_EQ(request.silentRead, 1000ms);
    }
    EXPECT_EQ(trace_, "");

    for (const auto& [size, lastBlock] : {std::pair{2048U, 2048U}, {2049U, 1U}, {1U, 1U}}) {
        giveImage(size);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(peer_.image(), image_);
        EXPECT_EQ(peer_.requests(UART_RAM_DATA).back().word(0), lastBlock);
        EXPECT_EQ(percents.back(), 100);
    }
}

TEST_F(RamLoaderTest, SilenceFailsAStepAtOnceAndTheSeventhRefusalDoes) {
    for (const Step& step : kSteps) {
        peer_.keepSilent(step.command, 1);
        const std::size_t before = peer_.requests(step.command).size();
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(peer_.requests(step.command).size(), before + 1);
        EXPECT_EQ(told(step.silent), 1U) << trace_;

        peer_.refuse(step.command, 7);
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(told(step.refused), 7U) << trace_;
    }
    // Each step and each block begins afresh, and an attempt after one that was refused.
    for (const Step& step : kSteps)
        peer_.refuse(step.command, 6);
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.image(), image_);

    peer_.answer(UART_RAM_DATA, peer_.acknowledgement(UART_RAM_DATA));
    peer_.refuse(UART_RAM_DATA, 7);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(context_->ram.seq, 1U);
}

TEST_F(RamLoaderTest, AnAttemptThatEndsInSilenceHandsItsRefusalsOn) {
    peer_.refuse(UART_SYNC, 4);
    peer_.keepSilent(UART_SYNC, 1);
    EXPECT_EQ(download(), -1);
    peer_.refuse(UART_SYNC, 3);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(peer_.commands(), "8 8 8 8 8 8 8 8");
    EXPECT_EQ(download(), kUartOk);
}

TEST_F(RamLoaderTest, AStopEndsTheAttemptAtTheNextTest) {
    for (const Step& step : kSteps) {
        peer_.refuse(step.command, 2);
        const std::size_t before = peer_.requests(step.command).size();
        stopAt(step.command);
        EXPECT_EQ(download(), -1);
        // A block is brought to its end first.
        const bool isBlock = step.command == UART_RAM_DATA;
        EXPECT_EQ(peer_.requests(step.command).size() - before, isBlock ? 3U : 1U);
        EXPECT_EQ(peer_.requests().back().command, step.command);
        context_->stop = false;
        peer_.onRequest = [](const SeenRequest&) {};
        EXPECT_EQ(download(), kUartOk);  // uses up the rest of the script
    }
}

TEST_F(RamLoaderTest, AnUnusableProxyFailsWithItsReason) {
    giveImage(0);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(told("ramloader/flash_proxy.img is empty\n"), 1U) << trace_;
    std::filesystem::remove(kFlashProxyPath);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(told("cannot open ramloader/flash_proxy.img: No such file or directory\n"), 1U)
        << trace_;
    EXPECT_EQ(peer_.commands(), "");

    giveImage(5000);
    peer_.onRequest = [](const SeenRequest&) {
        std::filesystem::resize_file(kFlashProxyPath, 2100);
    };
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(peer_.commands(), "8 5 7");
    EXPECT_EQ(told("cannot read ramloader/flash_proxy.img\n"), 1U) << trace_;
}
