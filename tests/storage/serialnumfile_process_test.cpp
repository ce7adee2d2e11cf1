// The serial number file against other processes, rights and limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "storage/serialnumfile.h"
#include "support/childprocess.h"
#include "support/helpers.h"
#include "support/recordinglog.h"
#include "support/systemlimits.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

TEST(SerialNumFileProcess, SecondProcessMayReadButNotLoad) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("sn.csv", "A,0\r\nB,0\r\n");
    ChildProcess holder([&] {
        SerialNumFile file;
        if (!file.load(text::widen(path)))
            ::_exit(1);
        file.markBurned(file.takeNext());
        for (;;)
            ::pause();
    });
    ASSERT_TRUE(eventually([&] { return directory.read("sn.csv") == "A,1\r\nB,0\r\n"; }));
    SerialNumFile file;
    EXPECT_FALSE(file.load(text::widen(path)));
    EXPECT_EQ(file.isLoaded(), 0);
    holder.kill();
    EXPECT_TRUE(file.load(text::widen(path)));
    EXPECT_EQ(file.takeNext()->sn, "B");
}

TEST(SerialNumFileProcess, KilledAmongMarksLeavesEveryRowWhole) {
    constexpr std::size_t kRows = 100'000;
    std::string expected;
    for (std::size_t i = 0; i < kRows; ++i)
        expected += std::to_string(100'000 + i) + ",0\r\n";
    const auto flagOf = [](std::size_t row) { return row * 10 + 7; };
    const TemporaryDirectory directory;
    const std::string path = directory.write("sn.csv", expected);

    std::size_t marked = 0;
    for (int round = 0; round < 5; ++round) {
        ChildProcess burner([&] {
            SerialNumFile file;
            if (!file.load(text::widen(path)))
                ::_exit(1);
            while (auto* const record = file.takeNext())
                file.markBurned(record);
        });
        const std::size_t goal = marked + 10;
        ASSERT_TRUE(eventually([&] {
            std::ifstream file(path, std::ios::binary);
            file.seekg(static_cast<std::streamoff>(flagOf(goal)));
            return file.get() == '1';
        }));
        burner.kill();

        const std::string after = directory.read("sn.csv");
        for (; marked < kRows && after.at(flagOf(marked)) == '1'; ++marked)
            expected[flagOf(marked)] = '1';
        EXPECT_TRUE(after == expected) << "a row behind the marked ones has changed";
        ASSERT_LT(marked, kRows);

        SerialNumFile restarted;
        ASSERT_TRUE(restarted.load(text::widen(path)));
        EXPECT_EQ(restarted.takeNext()->sn, expected.substr(marked * 10, 6));
    }
}

TEST(SerialNumFileProcess, FileThatMayNotBeWrittenIsRefused) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("sn.csv", "A,0\r\n");
    fs::permissions(path, fs::perms(0444));
    const OrdinaryUser user;
    RecordingLog log;
    SerialNumFile file;
    EXPECT_FALSE(file.load(text::widen(path)));
    EXPECT_THAT(log.take(hj::kError), ElementsAre(HasSubstr("Permission denied")));
}

TEST(SerialNumFileProcess, WhatIsNoRegularFileIsRefusedWithoutWaiting) {
    const TemporaryDirectory directory;
    const std::string path = (directory.path() / "fifo.csv").string();
    ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
    SerialNumFile file;
    EXPECT_FALSE(file.load(text::widen(path)));
    EXPECT_FALSE(file.load(L"/dev/null"));
}

TEST(SerialNumFileProcess, WriteErrorIsTold) {
    const TemporaryDirectory directory;
    const std::string rows = "A,0\r\nB,0\r\n";
    const std::string path = directory.write("sn.csv", rows);
    RecordingLog log;
    SerialNumFile file;
    ASSERT_TRUE(file.load(text::widen(path)));
    file.takeNext();
    auto* const b = file.takeNext();

    {
        const FullDisk disk(5);  // the first row
        file.markBurned(b);
    }
    EXPECT_EQ(directory.read("sn.csv"), rows);
    EXPECT_THAT(log.take(hj::kError), ElementsAre(AllOf(HasSubstr("SN=B "), HasSubstr("sn.csv"))));
    EXPECT_EQ(file.takeNext(), nullptr);
}
