#include "utils/fileutil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "support/helpers.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr int kSkipped = 77;  // a machine that lets the test make no root of its own

class FileUtilTest : public testing::Test {
  protected:
    EnteredDirectory directory_;
};

}  // namespace

TEST(FileUtil, OwnPathsAreConvertedAndTheOperatorsAreNot) {
    EXPECT_EQ(fileutil::nativePath(L".\\temp_image\\a.bin"), "./temp_image/a.bin");
    EXPECT_EQ(fileutil::nativePath("log\\run.log"), "log/run.log");
    EXPECT_EQ(fileutil::nativePath(L"/home/\u4E2D/odd\\name"), "/home/\xE4\xB8\xAD/odd\\name");
    EXPECT_EQ(fileutil::nativePath(L""), "");
}

TEST_F(FileUtilTest, PathBelowTheCurrentDirectoryIsAbsoluteAndNative) {
    fs::create_directory("\xE4\xB8\xAD\\x");  // a backslash of the operator's stays one
    fs::current_path("\xE4\xB8\xAD\\x");
    const std::wstring path = fileutil::inCurrentDirectory(L"\\images\\burner.img");
    EXPECT_EQ(path, text::widen(directory_.path().string()) + L"/\u4E2D\\x/images/burner.img");
    fs::create_directory("images");
    writeContent("images/burner.img", "image");
    EXPECT_EQ(fileutil::readBytes(path), "image");

    fs::remove_all(fs::current_path());
    EXPECT_EQ(fileutil::inCurrentDirectory(L"\\a\\b"), L"./a/b");
    fs::current_path("/");
    EXPECT_EQ(fileutil::inCurrentDirectory(L"\\a\\b"), L"/a/b");
}

TEST_F(FileUtilTest, CreatesDirectoriesAndKnowsWhatExists) {
    directory_.write("file", "");
    fs::create_directory("one");
    EXPECT_TRUE(fileutil::createDirectories(L".\\one\\two\\three"));
    EXPECT_TRUE(fileutil::createDirectories(L".\\one\\two\\three\\"));
    EXPECT_TRUE(fileutil::createDirectories((directory_.path() / "x/y").wstring()));
    for (const wchar_t* const folder : {L"one\\two\\three", L".\\x\\y\\"}) {
        EXPECT_TRUE(fileutil::isDirectory(folder));
        EXPECT_TRUE(fileutil::fileExists(folder));
    }
    EXPECT_TRUE(fileutil::fileExists(L"file"));
    EXPECT_FALSE(fileutil::isDirectory(L"file"));
    for (const wchar_t* const none : {L"one\\file", L"file\\below", L""})
        EXPECT_FALSE(fileutil::fileExists(none));
    EXPECT_FALSE(fileutil::createDirectories(L"file\\below"));
    EXPECT_FALSE(fileutil::createDirectories(L""));
}

TEST_F(FileUtilTest, RemovesADirectoryWithAllItHolds) {
    fs::create_directories("temp_image/sub/deeper");
    directory_.write("temp_image/.hidden", "h");
    directory_.write("temp_image/sub/read-only.bin", "r");
    fs::permissions("temp_image/sub/read-only.bin", fs::perms::owner_read);
    fs::permissions("temp_image/sub", fs::perms::none);
    directory_.write("temp_image_2", "stays");
    fileutil::removePath(L".\\temp_image\\");
    EXPECT_FALSE(fs::exists("temp_image"));
    fileutil::removePath(L"missing\\file");
    fileutil::removePath(L"");
    EXPECT_TRUE(fs::exists("temp_image_2"));
    fileutil::removePath(L"temp_image_2");
    EXPECT_FALSE(fs::exists("temp_image_2"));
}

TEST_F(FileUtilTest, RemovesLinksAndNotWhatTheyPointTo) {
    fs::create_directories("outside/folder");
    directory_.write("outside/file", "kept");
    fs::create_directory("temp_image");
    fs::create_directory_symlink("../outside", "temp_image/folder-link");
    fs::create_symlink("../outside/file", "temp_image/file-link");
    fs::create_symlink("nowhere", "temp_image/dangling");
    fileutil::removePath(L"temp_image");
    EXPECT_FALSE(fs::exists("temp_image"));

    fs::create_directory_symlink("outside", "link");
    fileutil::removePath(L"link\\");
    EXPECT_EQ(fs::symlink_status("link").type(), fs::file_type::not_found);
    EXPECT_EQ(directory_.read("outside/file"), "kept");
    EXPECT_TRUE(fs::exists("outside/folder"));
}

// In a world of its own, where the root is a directory of the test.
TEST_F(FileUtilTest, NeverRemovesTheRootOfTheDisk) {
    directory_.write("file", "kept");
    EXPECT_EXIT(
        {
            if (::geteuid() != 0 && ::unshare(CLONE_NEWUSER) != 0)
                std::_Exit(kSkipped);
            if (::chroot(".") != 0 || ::chdir("/") != 0)
                std::_Exit(kSkipped);
            for (const wchar_t* const root : {L"\\", L"/", L"\\\\", L"/.", L"/x/..", L"\\..\\"})
                fileutil::removePath(root);
            if (!fs::exists("/file"))
                std::_Exit(1);
            fileutil::removePath(L"\\file\\");
            std::_Exit(fs::exists("/file") ? 2 : 0);
        },
        [](int status) {
            return WIFEXITED(status) &&
                   (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kSkipped);
        },
        "");
}

TEST_F(FileUtilTest, OpenFilesDoNotPassOnToOtherPrograms) {
    for (const char* const mode : {"wb", "rb", "r+b", "ab"}) {
        const fileutil::FilePtr file = fileutil::openFile("file", mode);
        ASSERT_NE(file, nullptr) << mode;
        EXPECT_EQ(::fcntl(::fileno(file.get()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << mode;
    }
    EXPECT_EQ(fileutil::openFile("file", "wbx"), nullptr);
}

TEST_F(FileUtilTest, ReadsTextWithLineFeedsUpToTheFirstNulAndBytesAsTheyAre) {
    directory_.write("text", "a\r\nb\nc\rd\r\r\n\r\n\r");
    EXPECT_EQ(fileutil::readFile(L".\\text"), "a\nb\nc\rd\r\n\n\r");
    directory_.write("nul", "a\r\n\0b\r\n"s);
    EXPECT_EQ(fileutil::readFile(L"nul"), "a\n");
    directory_.write("empty", "");
    EXPECT_EQ(fileutil::readFile(L"empty"), "");
    EXPECT_EQ(fileutil::readFile(L"missing"), "");

    EXPECT_EQ(fileutil::readBytes(L"nul"), "a\r\n\0b\r\n"s);
    EXPECT_EQ(fileutil::readBytes(L"missing"), std::nullopt);
    EXPECT_EQ(fileutil::readBytes(L"/proc/self/mem"), std::nullopt)
        << "it opens, but cannot be read";
}

TEST_F(FileUtilTest, FindsFilesOneLevelDeep) {
    writeContent("drivers/vorlan_inf_1/amd64/usb.sys", "");
    writeContent("drivers/other/deeper/amd64/usb.sys", "");
    const auto finds = [](const wchar_t* prefix, const wchar_t* file) {
        return fileutil::findInSubdirs(L".\\drivers\\", prefix, file);
    };
    EXPECT_TRUE(finds(L"vorlan", L"\\amd64\\usb.sys"));
    EXPECT_TRUE(finds(L"", L"\\amd64"));
    EXPECT_FALSE(finds(L"inf", L"\\amd64\\usb.sys")) << "not where the name begins";
    EXPECT_FALSE(finds(L"other", L"\\amd64\\usb.sys")) << "a level too deep";
    EXPECT_FALSE(finds(L"vorlan", L"amd64\\usb.sys")) << "no separator is added";
    EXPECT_FALSE(fileutil::findInSubdirs(L"missing", L"", L"\\amd64"));
}

TEST_F(FileUtilTest, TraceSaysWhyAFileCannotBeRead) {
    directory_.write("file", "");
    const Output output = outputOf([] {
        EXPECT_TRUE(fileutil::isFileReadable(L"file"));
        EXPECT_FALSE(fileutil::isFileReadable(L"missing"));
        EXPECT_FALSE(fileutil::isFileReadable(L"."));
    });
    EXPECT_EQ(occurrences(output.traced, "error="), 2U);
    EXPECT_NE(output.traced.find("error=No such file or directory\n"), std::string::npos);
    EXPECT_TRUE(output.traced.ends_with("error=Is a directory\n"));
}

TEST_F(FileUtilTest, SizesAreThoseThatImagesCanHave) {
    using Size = std::pair<std::uintmax_t, std::optional<std::uint32_t>>;
    for (const auto& [size, told] : {Size{0, 0U}, Size{0x80000000, 0x80000000U},
                                     Size{0xFFFFFFFF, 0xFFFFFFFFU}, Size{0x100000000, {}}}) {
        directory_.write("file", "");
        fs::resize_file("file", size);
        const fileutil::FilePtr file = fileutil::openFile("file", "rb");
        EXPECT_EQ(fileutil::sizeOf(file.get()), told);
        EXPECT_TRUE(!told || std::ftell(file.get()) == 0);
    }
}
