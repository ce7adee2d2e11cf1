// What reaches the disk, and when: the calls of the system are counted on their way, and processes
// are killed among them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "storage/globalstorage.h"
#include "support/childprocess.h"
#include "support/helpers.h"
#include "support/recordinglog.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

int dataSyncs = 0;
int fileSyncs = 0;
int directorySyncs = 0;
std::string atFileSync;  // what the state file holds when the new one is synced
int lockError = 0;       // the system's code for a lock that fails, 0 for none

}  // namespace

// The linker leads the program's calls here.
extern "C" {
int __real_fdatasync(int descriptor);
int __real_fsync(int descriptor);
int __real_flock(int descriptor, int operation);

int __wrap_fdatasync(int descriptor) {
    ++dataSyncs;
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

int __wrap_flock(int descriptor, int operation) {
    if (lockError == 0)
        return __real_flock(descriptor, operation);
    errno = lockError;
    return -1;
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

TEST(Durability, OnlyALockThatSomeoneHoldsIsToldAsSuch) {
    const TemporaryDirectory directory;
    const std::wstring path = text::widen(directory.write("sn.csv", "A,0\r\n"));
    const auto reasonFor = [&](int error) {
        RecordingLog log;
        SerialNumFile file;
        lockError = error;
        EXPECT_FALSE(file.load(path));
        lockError = 0;
        return log.take(hj::kError);
    };
    EXPECT_THAT(reasonFor(EWOULDBLOCK), ElementsAre(HasSubstr("in use by another program")));
    EXPECT_THAT(reasonFor(ENOLCK), ElementsAre(HasSubstr("No locks available")));
}
