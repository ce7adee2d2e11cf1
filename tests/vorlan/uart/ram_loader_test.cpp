#include "vorlan/uart/ram_loader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "scriptedpeer.h"
#include "support/temporarydirectory.h"

namespace {

class RamLoaderTest : public testing::Test {
  protected:
    RamLoaderTest() {
        directory_.enter();
        giveProxy(5000);
        context_->user = this;
        context_->onProgress = [](UartContext* context, const std::wstring& name, int percent) {
            auto& test = *static_cast<RamLoaderTest*>(context->user);
            test.percents.push_back(percent);
            test.progressName = name;
        };
        context_->onError = [](UartContext*, int, const std::wstring&) { ADD_FAILURE(); };
    }

    void giveProxy(std::size_t size) {
        proxy_.resize(size);
        for (std::size_t i = 0; i < size; ++i)
            proxy_[i] = static_cast<char>(i * 7 + i / 256);
        writeContent(kFlashProxyPath, proxy_);
    }

    int download() {
        testing::internal::CaptureStderr();
        const int result = ram_loader_download(context_.get());
        trace_ = testing::internal::GetCapturedStderr();
        EXPECT_EQ(context_->ramImage.stream, nullptr);
        return result;
    }

    // How often the trace tells it.
    int told(const std::string& text) const {
        int count = 0;
        for (std::size_t at = trace_.find(text); at != std::string::npos;
             at = trace_.find(text, at + 1))
            ++count;
        return count;
    }

    // What the context has told.
    std::vector<int> percents;
    std::wstring progressName;

    TemporaryDirectory directory_;
    std::string proxy_;
    std::string trace_;
    std::unique_ptr<UartContext> context_ = uart_context_create();
    ScriptedPeer peer_{*context_};
};

struct Step {
    UartCommand command;
    const char* silent;
    const char* refused;
};

constexpr Step kSteps[] = {
    {UART_SYNC, "CONNECT OVERTIME......\n", "SYNC FORMAT ERROR, CONNECT AGAIN\n"},
    {UART_RAM_BEGIN, "RECEIVE OVERTIME......\n", "BEGIN COMMAND FORMAT ERROR, SEND AGAIN\n"},
    {UART_RAM_DATA, "RECEIVE OVERTIME......\n", "DATA COMMAND FORMAT ERROR, SEND AGAIN\n"},
    {UART_RAM_END, "RECEIVE OVERTIME......\n", "END COMMAND FORMAT ERROR, SEND AGAIN\n"}};

}  // namespace

TEST_F(RamLoaderTest, DownloadsTheProxyByteForByte) {
    EXPECT_EQ(download(), kUartOk);
    EXPECT_EQ(peer_.commands(), "8 5 7 7 7 6");
    EXPECT_EQ(peer_.image(), proxy_);
    EXPECT_EQ(percents, (std::vector<int>{33, 66, 100}));
    EXPECT_EQ(progressName, L"ramloader/flash_proxy.img");
    const SeenRequest begin = peer_.requests(UART_RAM_BEGIN).front();
    EXPECT_EQ(begin.word(0), 5000U);
    EXPECT_EQ(begin.word(3), 0U);
    const SeenRequest last = peer_.requests(UART_RAM_DATA).back();
    EXPECT_EQ(last.word(0), 5000U - 4096U);
    EXPECT_EQ(last.word(1), 2U);
    for (const SeenRequest& request : peer_.requests()) {
        EXPECT_EQ(request.rate, 115200U);
        EXPECT_EQ(request.silentRead, std::chrono::milliseconds(1000));
    }
    EXPECT_EQ(trace_, "");
}

TEST_F(RamLoaderTest, BlocksEndWhereTheImageEnds) {
    for (const auto& [size, lastBlock] : {std::pair{2048U, 2048U}, {2049U, 1U}, {1U, 1U}}) {
        giveProxy(size);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(peer_.image(), proxy_);
        EXPECT_EQ(peer_.requests(UART_RAM_DATA).back().word(0), lastBlock);
        EXPECT_EQ(percents.back(), 100);
    }
}

TEST_F(RamLoaderTest, SilenceFailsAnyStepAtOnce) {
    for (const Step& step : kSteps) {
        peer_.keepSilent(step.command, 1);
        const std::size_t before = peer_.requests(step.command).size();
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(peer_.requests(step.command).size(), before + 1);
        EXPECT_EQ(told(step.silent), 1) << trace_;
    }
}

TEST_F(RamLoaderTest, SixRefusalsOfAStepAreBornAndSevenAreNot) {
    for (const Step& step : kSteps) {
        peer_.refuse(step.command, 6);
        EXPECT_EQ(download(), kUartOk);
        EXPECT_EQ(told(step.refused), 6) << trace_;
        EXPECT_EQ(context_->ramRetries, 0);
        EXPECT_EQ(peer_.image(), proxy_);

        peer_.refuse(step.command, 7);
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(told(step.refused), 7) << trace_;
        EXPECT_EQ(context_->ramRetries, 0);
    }
    // Each step and each block begins afresh.
    for (const Step& step : kSteps)
        peer_.refuse(step.command, 6);
    EXPECT_EQ(download(), kUartOk);

    peer_.answer(UART_RAM_DATA, peer_.acknowledgement(UART_RAM_DATA));
    peer_.refuse(UART_RAM_DATA, 7);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(context_->ramSeq, 1U);
}

TEST_F(RamLoaderTest, AnAttemptThatEndsInSilenceHandsItsRefusalsOn) {
    peer_.refuse(UART_SYNC, 4);
    peer_.keepSilent(UART_SYNC, 1);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(context_->ramRetries, 4);
    peer_.refuse(UART_SYNC, 3);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(peer_.commands(), "8 8 8 8 8 8 8 8");
    EXPECT_EQ(download(), kUartOk);
}

TEST_F(RamLoaderTest, AStopEndsTheAttemptAtTheNextTest) {
    for (const Step& step : kSteps) {
        peer_.refuse(step.command, 2);
        const std::size_t before = peer_.requests(step.command).size();
        peer_.onRequest = [&](const SeenRequest& request) {
            if (request.command == step.command)
                context_->stop = true;
        };
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

TEST_F(RamLoaderTest, AnUnusableProxyFailsWithItsReasonBeforeAnythingIsSent) {
    giveProxy(0);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(told("ramloader/flash_proxy.img is empty\n"), 1) << trace_;
    std::filesystem::remove(kFlashProxyPath);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(told("cannot open ramloader/flash_proxy.img: No such file or directory\n"), 1)
        << trace_;
    std::filesystem::create_directory(kFlashProxyPath);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(told("Is a directory\n"), 1) << trace_;
    EXPECT_EQ(peer_.commands(), "");
}

TEST_F(RamLoaderTest, AProxyThatIsCutShortDuringTheDownloadFails) {
    peer_.onRequest = [&](const SeenRequest& request) {
        if (request.command == UART_SYNC)
            std::filesystem::resize_file(kFlashProxyPath, 2100);
    };
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(peer_.commands(), "8 5 7");
    EXPECT_EQ(told("cannot read ramloader/flash_proxy.img\n"), 1) << trace_;
}
