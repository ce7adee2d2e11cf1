// What reaches the disk, and when: the calls of the system are counted on their way, and processes
// are killed among them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "storage/globalstorage.h"
#include "storage/productionrecord.h"
#include "support/childprocess.h"
#include "support/helpers.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

namespace fs = std::filesystem;

namespace {

std::atomic<int> dataSyncs{0};
std::atomic<bool> diskFails = false;  // once
std::function<void()> atDataSync;     // called while the disk is at work
int fileSyncs = 0;
int directorySyncs = 0;
std::string atFileSync;  // what the state file holds when the new one is synced

}  // namespace

// The linker leads the program's calls here.
extern "C" {
int __real_fdatasync(int descriptor);
int __real_fsync(int descriptor);

int __wrap_fdatasync(int descriptor) {
    ++dataSyncs;
    if (diskFails.exchange(false)) {
        errno = EIO;
        return -1;
    }
    if (atDataSync)
        atDataSync();
    return __real_fdatasync(descriptor);
}

int __wrap_fsync(int descriptor) {
    struct stat info {};
    ::fstat(descriptor, &info);
    if (S_ISDIR(info.st_mode)) {
        ++directorySyncs;
    } else {
        ++fileSyncs;
        if (fs::is_regular_file("global_storage"))
            atFileSync = contentOf("global_storage");
    }
    return __real_fsync(descriptor);
}
}

TEST(Durability, MarkIsSyncedWhenItReturns) {
    const TemporaryDirectory directory;
    const std::wstring path = text::widen(directory.write("sn.csv", "A,0\r\nB,0\r\n"));
    SerialNumFile file;
    ASSERT_TRUE(file.load(path));
    for (int marks = 1; marks <= 2; ++marks) {
        const int before = dataSyncs;
        file.markBurned(file.takeNext());
        EXPECT_EQ(dataSyncs, before + 1);
    }
}

TEST(Durability, AMarkThatIsNotOnTheDiskIsTold) {
    const TemporaryDirectory directory;
    SerialNumFile file;
    ASSERT_TRUE(file.load(text::widen(directory.write("sn.csv", "A,0\r\nB,0\r\nC,0\r\n"))));
    diskFails = true;
    const auto unmarked = file.markBurned(file.takeNext());
    ASSERT_EQ(unmarked.size(), 1U);
    EXPECT_EQ(unmarked[0].sn, "A");
    EXPECT_TRUE(unmarked[0].reason.ends_with("cannot be written: Input/output error"));
    EXPECT_TRUE(file.markBurned(file.takeNext()).empty());
}

TEST(Durability, TheRecordOfAGoodBurnIsSyncedWhenItReturns) {
    const EnteredDirectory directory;
    ProductionRecord record;
    const int before = dataSyncs;
    std::string atSync;
    atDataSync = [&] { atSync = directory.read("log/record.csv"); };
    EXPECT_EQ(record.append({.place = "A", .good = true}), "");
    EXPECT_EQ(dataSyncs, before + 1);
    EXPECT_EQ(record.append({.place = "B"}), "");
    atDataSync = nullptr;
    EXPECT_EQ(dataSyncs, before + 1);
    EXPECT_EQ(occurrences(atSync, "\"A\""), 1U);
}

TEST(Durability, SixteenMarksAndTheNextNumbersDoNotWaitForEachOthersDisk) {
    const TemporaryDirectory directory;
    std::string rows;
    for (int i = 10; i < 30; ++i)
        rows += std::to_string(i) + ",0\r\n";
    const std::wstring path = text::widen(directory.write("sn.csv", rows));
    SerialNumFile file;
    ASSERT_TRUE(file.load(path));
    // The disk is done with none before it has all sixteen.
    std::latch all(16);
    atDataSync = [&] {
        EXPECT_TRUE(file.isInUse());
        auto* const other = file.takeNext();
        EXPECT_NE(other, nullptr);
        file.releaseRecord(other);
        all.arrive_and_wait();
    };
    std::vector<SerialNumFile::SnRecord*> drawn(16);
    for (auto*& record : drawn)
        record = file.takeNext();
    {
        std::vector<std::jthread> workers;
        workers.reserve(drawn.size());
        for (auto* const record : drawn)
            workers.emplace_back([&file, record] { EXPECT_TRUE(file.markBurned(record).empty()); });
    }
    atDataSync = nullptr;
    EXPECT_FALSE(file.isInUse());
    EXPECT_EQ(occurrences(directory.read("sn.csv"), ",1\r\n"), 16U);
}

TEST(Durability, SaveIsSyncedBeforeItTakesTheOldFilesPlaceAndAfterwards) {
    const EnteredDirectory directory;
    GlobalStorage storage;
    ASSERT_TRUE(storage.save());
    const std::string old = directory.read("global_storage");
    fileSyncs = 0;
    directorySyncs = 0;
    storage.setSnBurnAddr(0x1000);
    ASSERT_TRUE(storage.save());
    EXPECT_EQ(fileSyncs, 1);
    EXPECT_EQ(atFileSync, old);
    EXPECT_NE(directory.read("global_storage"), old);
    EXPECT_EQ(directorySyncs, 1);
}

TEST(Durability, KilledAmongSavesLeavesTheOldStateOrTheNewOne) {
    const EnteredDirectory directory;
    const std::wstring paths[] = {L"/short", std::wstring(30'000, L'p')};
    GlobalStorage storage;
    storage.setSnFilePath(paths[0]);
    ASSERT_TRUE(storage.save());
    for (int round = 0; round < 20; ++round) {
        // The kill falls anywhere among the saves that follow the first new address.
        const auto first = static_cast<std::uint32_t>(1000 * (round + 1));
        ChildProcess child([&] {
            for (std::uint32_t save = first;; ++save) {
                storage.setSnFilePath(paths[save % 2]);
                storage.setSnBurnAddr(save);
                if (!storage.save())
                    ::_exit(1);
            }
        });
        ASSERT_TRUE(eventually([&] {
            GlobalStorage seen;
            return seen.load() && seen.getSnBurnAddr() >= first + 3 &&
                   seen.getSnBurnAddr() < 500'000;
        }));
        child.kill();

        GlobalStorage restarted;
        ASSERT_TRUE(restarted.load());
        EXPECT_EQ(restarted.getSnFilePath(), paths[restarted.getSnBurnAddr() % 2]);
        EXPECT_LE(std::distance(fs::directory_iterator("."), {}), 2);
    }
    ASSERT_TRUE(storage.save());
    EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), 1) << "left-overs";
}
