#include "utils/filelogprinter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
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

TEST_F(FileLogPrinterTest, EveryLineIsInTheFileWhenPrintReturns) {
    FileLogPrinter printer("log\\run.log");
    printer.print(hj::kInfo, "first");
    EXPECT_EQ(file(), "first\r\n");
    printer.print(hj::kError, "second");
    EXPECT_EQ(file(), "first\r\nsecond\r\n");
}

TEST_F(FileLogPrinterTest, LineFeedOfAMessageLeavesAnEmptyLine) {
    FileLogPrinter printer("log\\run.log");
    printer.print(hj::kInfo, "text\n");
    EXPECT_EQ(file(), "text\r\n\r\n");
}

TEST_F(FileLogPrinterTest, EveryStartBeginsANewLog) {
    FileLogPrinter("log\\run.log").print(hj::kInfo, "old run");
    FileLogPrinter printer("log\\run.log");
    EXPECT_EQ(file(), "");
    printer.print(hj::kInfo, "new run");
    EXPECT_EQ(file(), "new run\r\n");
}

TEST_F(FileLogPrinterTest, CopiesLinesToTheTraceEvenWithoutAFile) {
    fs::remove("log");
    FileLogPrinter printer("log\\run.log");
    hj::setLogPrinter(&printer);
    hj::logW("tag", 1, "no file");
    EXPECT_FALSE(fs::exists("log"));
    const std::string copy = trace();
    EXPECT_TRUE(copy.ends_with(":no file\n")) << copy;
}

TEST_F(FileLogPrinterTest, LinesOfManyThreadsStayWholeAndInOrder) {
    constexpr int kThreads = 16;
    constexpr int kLines = 100;
    FileLogPrinter printer("log\\run.log");
    hj::setLogPrinter(&printer);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int id = 0; id < kThreads; ++id)
        threads.emplace_back([id] {
            const std::string filling(static_cast<std::size_t>(id) * 300, 'x');
            for (int i = 0; i < kLines; ++i)
                hj::logI("tag", 1, "%d %d %s.", id, i, filling.c_str());
        });
    for (std::thread& thread : threads)
        thread.join();

    std::map<int, int> next;
    std::istringstream stream(file());
    for (std::string line; std::getline(stream, line);) {
        ASSERT_EQ(line.substr(80, 2), " :");
        int id = 0;
        int number = 0;
        std::string filling;
        std::istringstream(line.substr(82)) >> id >> number >> filling;
        ASSERT_EQ(number, next[id]++);
        ASSERT_EQ(line.substr(82), std::to_string(id) + " " + std::to_string(number) + " " +
                                       std::string(static_cast<std::size_t>(id) * 300, 'x') +
                                       ".\r");
    }
    EXPECT_EQ(next.size(), static_cast<std::size_t>(kThreads));
    for (const auto& [id, count] : next)
        EXPECT_EQ(count, kLines) << id;
}
