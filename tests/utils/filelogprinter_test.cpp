#include "utils/filelogprinter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temporarydirectory.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

// The copies in the trace are of no interest here, except where a test looks at them.
class FileLogPrinterTest : public testing::Test {
  protected:
    FileLogPrinterTest() {
        fs::create_directory("log");
        testing::internal::CaptureStderr();
    }
    ~FileLogPrinterTest() override {
        hj::clearLogPrinter();
        if (capturing_)
            testing::internal::GetCapturedStderr();
    }

    std::string trace() {
        capturing_ = false;
        return testing::internal::GetCapturedStderr();
    }
    std::string file() const { return directory_.read("log/run.log"); }

    EnteredDirectory directory_;
    bool capturing_ = true;
};

}  // namespace

TEST_F(FileLogPrinterTest, EveryStartBeginsANewLogWithEveryLineWhenPrintReturns) {
    FileLogPrinter("log\\run.log").print(hj::kInfo, "old run");
    FileLogPrinter printer("log\\run.log");
    EXPECT_EQ(file(), "");
    printer.print(hj::kInfo, "first");
    EXPECT_EQ(file(), "first\r\n");
    printer.print(hj::kError, "second\n");
    EXPECT_EQ(file(), "first\r\nsecond\r\n\r\n");
}

TEST_F(FileLogPrinterTest, KeepsTheLogsOfTheTenRunsBefore) {
    for (int run = 1; run <= 12; ++run)
        FileLogPrinter("log\\run.log").print(hj::kInfo, std::to_string(run));
    EXPECT_EQ(file(), "12\r\n");
    for (int before = 1; before <= 10; ++before)
        EXPECT_EQ(directory_.read("log/run." + std::to_string(before) + ".log"),
                  std::to_string(12 - before) + "\r\n");
    EXPECT_EQ(std::distance(fs::directory_iterator("log"), {}), 11);
}

TEST_F(FileLogPrinterTest, CopiesLinesToTheTraceEvenWithoutAFile) {
    fs::remove("log");
    FileLogPrinter printer("log\\run.log");
    hj::setLogPrinter(&printer);
    hj::logW("tag", 1, "no file");
    EXPECT_FALSE(fs::exists("log"));
    const std::string copy = trace();
    EXPECT_NE(copy.find("log\\run.log cannot be opened: No such file"), std::string::npos) << copy;
    EXPECT_TRUE(copy.ends_with(":no file\n")) << copy;
}

TEST_F(FileLogPrinterTest, LinesOfManyThreadsStayWholeAndInOrder) {
    constexpr std::size_t kThreads = 16;
    constexpr int kLines = 100;
    FileLogPrinter printer("log\\run.log");
    hj::setLogPrinter(&printer);
    {
        std::vector<std::jthread> threads;
        for (std::size_t id = 0; id < kThreads; ++id)
            threads.emplace_back([id] {
                for (int i = 0; i < kLines; ++i)
                    hj::logI("tag", 1, "%d %d.", static_cast<int>(id), i);
            });
    }
    std::vector<int> next(kThreads);
    std::istringstream stream(file());
    for (std::string line; std::getline(stream, line);) {
        const std::size_t id = std::stoul(line.substr(82));
        ASSERT_EQ(line.substr(80),
                  " :" + std::to_string(id) + " " + std::to_string(next.at(id)++) + ".\r");
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}
