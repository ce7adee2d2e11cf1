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
