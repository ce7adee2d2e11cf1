#include "storage/globalstorage.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include "support/temporarydirectory.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

class GlobalStorageTest : public testing::Test {
  protected:
    std::string file() const { return directory_.read("global_storage"); }
    void setFile(const std::string& bytes) const { directory_.write("global_storage", bytes); }

    EnteredDirectory directory_;
    GlobalStorage storage_;
};

}  // namespace

TEST_F(GlobalStorageTest, StartsWithItsDefaultsWhereThereIsNoFile) {
    EXPECT_TRUE(storage_.load());
    EXPECT_EQ(storage_.getSnFilePath(), L"");
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x7FF004U);
    EXPECT_EQ(storage_.getFlashCount(), 0U);
    EXPECT_FALSE(storage_.getSnFile().isLoaded());
    EXPECT_FALSE(fs::exists("global_storage"));
}

TEST_F(GlobalStorageTest, FileHoldsPathAndAddressAndNothingElse) {
    ASSERT_TRUE(storage_.save());
    EXPECT_EQ(file(), "\xFF\xFE\xFF\x00\x04\xF0\x7F\x00"s);

    storage_.setSnFilePath(L"/x/\u4E2D");
    storage_.setSnBurnAddr(0x12345678);
    ASSERT_TRUE(storage_.save());
    EXPECT_EQ(file(), "\xFF\xFE\xFF\x04/\0x\0/\0\x2D\x4E\x78\x56\x34\x12"s);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1) << "left-overs";
}

TEST_F(GlobalStorageTest, RestartKeepsTheChoicesAndForgetsTheCount) {
    storage_.setSnFilePath(std::wstring(300, L'p'));
    storage_.setSnBurnAddr(0xFFFFFFFF);
    EXPECT_EQ(storage_.increaseFlashCount(), 1U);
    ASSERT_TRUE(storage_.save());

    GlobalStorage restarted;
    ASSERT_TRUE(restarted.load());
    EXPECT_EQ(restarted.getSnFilePath(), std::wstring(300, L'p'));
    EXPECT_EQ(restarted.getSnBurnAddr(), 0xFFFFFFFFU);
    EXPECT_EQ(restarted.getFlashCount(), 0U);
}

TEST_F(GlobalStorageTest, LoadsWhatEarlierProgramsWrote) {
    storage_.setSnFilePath(L"/before");
    setFile("\xFF\xFE\xFF\x00\x04\xF0\x7F\x00"s);
    EXPECT_TRUE(storage_.load());
    EXPECT_EQ(storage_.getSnFilePath(), L"");
    EXPECT_EQ(storage_.getSnBurnAddr(), 0x7FF004U);
    setFile("\x02/s\x01\x00\x00\x00trailing"s);
    EXPECT_TRUE(storage_.load());
    EXPECT_EQ(storage_.getSnFilePath(), L"/s");
    EXPECT_EQ(storage_.getSnBurnAddr(), 1U);
}

TEST_F(GlobalStorageTest, DeletesADamagedFileAndKeepsWhatItRead) {
    const std::pair<std::string, std::wstring> files[] = {
        {"", L""}, {"\xFF\xFE\xFF"s, L""}, {"\xFF\xFE\xFF\x01p\0\x01\x02\x03"s, L"p"}};
    for (const auto& [bytes, path] : files) {
        setFile(bytes);
        EXPECT_FALSE(storage_.load());
        EXPECT_FALSE(fs::exists("global_storage"));
        EXPECT_EQ(storage_.getSnFilePath(), path);
        EXPECT_EQ(storage_.getSnBurnAddr(), 0x7FF004U);
    }
}

TEST_F(GlobalStorageTest, FailedSaveKeepsTheValues) {
    fs::create_directory("global_storage");  // nothing can be renamed over it
    storage_.setSnBurnAddr(7);
    EXPECT_FALSE(storage_.save());
    EXPECT_EQ(storage_.getSnBurnAddr(), 7U);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1) << "left-overs";
}
