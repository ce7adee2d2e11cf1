#include "platform/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include "support/temporarydirectory.h"

using namespace std::string_literals;
using platform::File;
namespace fs = std::filesystem;

namespace {

class FileTest : public testing::Test {
  protected:
    std::string pathOf(const std::string& name) const {
        return (directory_.path() / name).string();
    }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(FileTest, OpensExistingRegularFilesOnly) {
    File file;
    EXPECT_FALSE(file.openExisting(pathOf("missing")));
    EXPECT_EQ(platform::lastErrorText(), "No such file or directory");
    EXPECT_FALSE(fs::exists(pathOf("missing")));
    EXPECT_FALSE(file.openExisting(directory_.path().string()));
    EXPECT_FALSE(file.openExisting("/dev/null"));
    EXPECT_FALSE(file.isOpen());
    EXPECT_TRUE(file.openExisting(directory_.write("file", "content")));
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(directory_.read("file"), "content");
    EXPECT_FALSE(file.openExisting(pathOf("missing")));
    EXPECT_FALSE(file.isOpen());
}

TEST_F(FileTest, ReadsAndWritesInPlace) {
    File file;
    ASSERT_TRUE(file.openExisting(directory_.write("file", "0123456789")));
    char buffer[8] = {};
    EXPECT_EQ(file.readAt(2, buffer, 4), 4U);
    EXPECT_EQ(std::string(buffer, 4), "2345");
    EXPECT_EQ(file.readAt(7, buffer, 8), 3U);
    EXPECT_EQ(file.readAt(10, buffer, 8), 0U);
    EXPECT_TRUE(file.writeAt(8, "abcd"));
    EXPECT_TRUE(file.syncData());
    EXPECT_EQ(directory_.read("file"), "01234567abcd");

    file.close();
    EXPECT_EQ(file.readAt(0, buffer, 1), std::nullopt);
    EXPECT_FALSE(file.writeAt(0, "x"));
    EXPECT_FALSE(file.syncData());
}

TEST_F(FileTest, LockHoldsUntilItsFileIsClosed) {
    const std::string path = directory_.write("file", "");
    File first;
    File second;
    ASSERT_TRUE(first.openExisting(path));
    ASSERT_TRUE(second.openExisting(path));
    EXPECT_EQ(first.lockExclusively(), File::Lock::kTaken);
    EXPECT_EQ(first.lockExclusively(), File::Lock::kTaken);
    EXPECT_EQ(second.lockExclusively(), File::Lock::kHeldElsewhere);

    // Neither closing another opening of the file nor moving the owner lets go.
    second.close();
    ASSERT_TRUE(second.openExisting(path));
    File moved = std::move(first);
    EXPECT_EQ(second.lockExclusively(), File::Lock::kHeldElsewhere);
    moved.close();
    EXPECT_EQ(moved.lockExclusively(), File::Lock::kFailed);
    EXPECT_EQ(second.lockExclusively(), File::Lock::kTaken);
}

TEST_F(FileTest, KnowsWhetherAPathStillLeadsToIt) {
    const std::string path = directory_.write("file", "same");
    File file;
    ASSERT_TRUE(file.openExisting(path));
    EXPECT_TRUE(file.isFileAt(path));
    fs::create_symlink("file", pathOf("link"));
    EXPECT_TRUE(file.isFileAt(pathOf("link")));

    File copy;
    ASSERT_TRUE(copy.openExisting(directory_.write("copy", "same")));
    EXPECT_FALSE(file.isSameFile(copy));
    fs::rename(path, pathOf("moved"));
    EXPECT_FALSE(file.isFileAt(path));
    fs::rename(pathOf("copy"), path);
    EXPECT_FALSE(file.isFileAt(path));
    File again;
    ASSERT_TRUE(again.openExisting(pathOf("moved")));
    EXPECT_TRUE(file.isSameFile(again));
    EXPECT_FALSE(File().isSameFile(file));
}

TEST_F(FileTest, ReplacesAFileAsAWhole) {
    const mode_t mask = ::umask(027);
    ASSERT_TRUE(platform::replaceFile(pathOf("state"), "one\0two"s));
    ::umask(mask);
    EXPECT_EQ(directory_.read("state"), "one\0two"s);
    EXPECT_EQ(fs::status(pathOf("state")).permissions(), fs::perms(0640));

    // Whoever has the old file open keeps seeing its content.
    File old;
    ASSERT_TRUE(old.openExisting(pathOf("state")));
    ASSERT_TRUE(platform::replaceFile(pathOf("state"), "three"));
    char buffer[8] = {};
    EXPECT_EQ(old.readAt(0, buffer, sizeof buffer), 7U);
    EXPECT_EQ(directory_.read("state"), "three");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1) << "left-overs";
}

TEST_F(FileTest, ReplacementTakesOverWhatAKilledRunLeftAndFollowsNoLink) {
    directory_.write("state.new", "half");
    fs::permissions(pathOf("state.new"), fs::perms(0400));
    ASSERT_TRUE(platform::replaceFile(pathOf("state"), "whole"));
    EXPECT_EQ(directory_.read("state"), "whole");
    EXPECT_FALSE(fs::exists(pathOf("state.new")));

    directory_.write("other", "kept");
    fs::create_symlink("other", pathOf("state.new"));
    ASSERT_TRUE(platform::replaceFile(pathOf("state"), "again"));
    EXPECT_EQ(directory_.read("state"), "again");
    EXPECT_EQ(directory_.read("other"), "kept");
}

TEST_F(FileTest, FailedReplacementChangesNothing) {
    EXPECT_FALSE(platform::replaceFile(pathOf("no/such/folder"), "x"));
    fs::create_directory(pathOf("folder"));
    directory_.write("folder/file", "kept");
    EXPECT_FALSE(platform::replaceFile(pathOf("folder"), "x"));
    EXPECT_NE(platform::lastErrorText(), "Success");
    EXPECT_EQ(directory_.read("folder/file"), "kept");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1) << "left-overs";
}
