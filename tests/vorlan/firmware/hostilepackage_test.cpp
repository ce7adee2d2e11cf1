// Packages that are damaged or made to do harm. Whatever they hold, nothing outside the unpack
// directory changes, and no image that did not come out of the package whole is ever burned.
#include <gtest/gtest.h>
#include <minizip/unzip.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "simulator/packagebuilder.h"
#include "support/helpers.h"
#include "support/systemlimits.h"
#include "support/temporarydirectory.h"
#include "utils/fileutil.h"
#include "vorlan/firmware/firmwaremanager.h"
#include "vorlan/firmware/packagearchive.h"

using simulator::PackageBuilder;
using simulator::PackageFile;

namespace fs = std::filesystem;

namespace {

constexpr const wchar_t* kDirectory = L".\\temp_image\\";
const fs::path kImages = "temp_image";
const std::set<std::string> kFixed{"flashboot.bin", "master.bin"};

int opensUntilGone = -1;  // how often the package can still be opened; below 0 for ever

}  // namespace

// The linker leads the program's calls here.
extern "C" {
unzFile __real_unzOpen2_64(const void* path, zlib_filefunc64_def* functions);

unzFile __wrap_unzOpen2_64(const void* path, zlib_filefunc64_def* functions) {
    return opensUntilGone-- == 0 ? nullptr : __real_unzOpen2_64(path, functions);
}
}

namespace {

class HostilePackageTest : public testing::Test {
  protected:
    HostilePackageTest() {
        directory_.enter();
        fs::create_directories("top/shop");
        fs::current_path("top/shop");
        writeContent("secret.bin", "secret");
        writeContent("../secret.bin", "secret");
        writeContent("outside/file.bin", "outside");
        before_ = snapshot();
    }

    ~HostilePackageTest() override { EXPECT_EQ(snapshot(), before_); }

    static PackageBuilder smallest() {
        PackageBuilder package;
        return package.add("flashboot.bin", "boot").add("master.bin", "main");
    }

    // A run of its own: the directory is not cleared first.
    bool unpack(const PackageBuilder& package) {
        package.write(kPackage);
        return unpackFile();
    }

    bool unpackFile() {
        manager_ = FirmwareManager();
        manager_.setFirmwarePath(kPackage.wstring());
        return manager_.unpack(kDirectory);
    }

    // What lies in the unpack directory below its top, by relative path; directories end with "/".
    static std::set<std::string> unpacked() {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(kImages))
            names.insert(entry.path().lexically_relative(kImages).string() +
                         (entry.is_directory() ? "/" : ""));
        return names;
    }

    using Snapshot = std::map<std::string, std::string>;

    // All that lies outside the unpack directory, the package apart.
    Snapshot snapshot() const {
        Snapshot result;
        const fs::path root = directory_.path();
        for (auto it = fs::recursive_directory_iterator(root);
             it != fs::recursive_directory_iterator(); ++it) {
            const fs::path path = it->path().lexically_relative(root);
            if (path == "top/shop/temp_image")
                it.disable_recursion_pending();
            else if (path != "top/shop" / kPackage)
                result[path.string()] = it->is_regular_file() ? contentOf(it->path()) : "/";
        }
        return result;
    }

    const fs::path kPackage = "package.zip";
    TemporaryDirectory directory_;
    FirmwareManager manager_;
    Snapshot before_;
};

}  // namespace

TEST_F(HostilePackageTest, UnpacksNoNameOutsideTheDirectory) {
    const fs::path absolute = fs::absolute("secret.bin");
    PackageBuilder package = smallest();
    for (const std::string name :
         {"../secret.bin", "..\\secret.bin", "../../secret.bin", "x/../../secret.bin", "sub/..",
          "..", ".", "", "/", "C:\\", "./../secret.bin", "sub\\", "~unpacking.tmp/x"})
        package.add(name, "evil");
    package.add({.name = std::string("nul\0.bin", 8), .content = "evil"});
    package.add(absolute.string(), "1").add("D:\\/E:drive.bin", "2").add("a\\..\\b.bin", "3");
    package.add("./here.bin", "4").add("deep\\er/one.bin", "5");
    package.add("~unpacking.tmp", "evil");
    ASSERT_TRUE(unpack(package));

    std::set<std::string> expected{"flashboot.bin", "master.bin", "drive.bin", "b.bin",
                                   "here.bin",      "deep/",      "deep/er/",  "deep/er/one.bin",
                                   "sub/",          "secret.bin"};
    for (fs::path path = absolute.relative_path(); !path.empty(); path = path.parent_path())
        expected.insert(path.string() + (path.filename() == "secret.bin" ? "" : "/"));
    EXPECT_EQ(unpacked(), expected);
    EXPECT_EQ(contentOf(kImages / "b.bin"), "3");
    EXPECT_EQ(contentOf(kImages / absolute.relative_path()), "1");
}

TEST_F(HostilePackageTest, RefusesOverlongNames) {
    const std::string accepted = std::string(129, 'd') + "/" + std::string(130, 'f');
    PackageBuilder package = smallest();
    package.add(std::string(130, 'd') + "/" + std::string(130, 'f'), "1");
    package.add(std::string(60000, 'n'), "2");
    package.add(std::string(260, 'n'), "3");  // more than the file system takes
    package.add(accepted, "4");
    ASSERT_TRUE(unpack(package));
    EXPECT_EQ(unpacked(), (std::set<std::string>{"flashboot.bin", "master.bin",
                                                 std::string(129, 'd') + "/", accepted}));
}

TEST_F(HostilePackageTest, MakesNoLinksAndGoesThroughNone) {
    const std::string outside = fs::absolute("outside").string();
    fs::create_directory(kImages);
    fs::create_directory_symlink(outside, kImages / "link");
    fs::create_symlink(outside + "/file.bin", kImages / "master.bin");
    fs::create_symlink(outside + "/file.bin", kImages / "script.bin");
    PackageBuilder package = smallest();
    package.add({.name = "made", .content = outside, .stored = true, .unixMode = 0120777});
    package.add("made/file.bin", "inside").add("link/file.bin", "evil").add("link/new/", "");
    package.add({.name = "script.bin", .content = "lost", .declaredCrc = 1});
    fs::create_symlink(outside + "/file.bin", kImages / "font.bin");
    package.add("burn.cfg", R"({"burn_items":[{"name":"font.bin","addr":"2"}]})");
    ASSERT_TRUE(unpack(package));
    EXPECT_FALSE(fs::is_symlink(kImages / "master.bin"));
    EXPECT_EQ(contentOf(kImages / "master.bin"), "main");
    EXPECT_FALSE(fs::exists(fs::symlink_status(kImages / "script.bin")));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(kImages / "made")));
    EXPECT_EQ(manager_.getBurnItems().size(), 3U);  // the fixed images alone

    // An item behind a link that stayed would be burned from outside.
    PackageBuilder behindLink = smallest();
    behindLink.add("link/file.bin", "evil");
    behindLink.add("burn.cfg", R"({"burn_items":[{"name":"link/file.bin","addr":"1"}]})");
    EXPECT_FALSE(unpack(behindLink));
    EXPECT_TRUE(manager_.getBurnItems().empty());

    // Clearing takes the link, not what it leads to.
    ASSERT_TRUE(unpack(package));
    ASSERT_TRUE(manager_.unpack(kDirectory));
    EXPECT_FALSE(fs::is_symlink(kImages / "link"));
    EXPECT_EQ(contentOf(kImages / "link/file.bin"), "evil");
}

TEST_F(HostilePackageTest, BurnsNoCfgItemFromOutside) {
    std::string items;
    for (const char* name : {"..\\\\secret.bin", "../secret.bin", "sub/../../secret.bin", "..", "",
                             "..\\\\..\\\\secret.bin", "sub/../flashboot.bin"})
        items += std::string(R"({"name":")") + name + R"(","addr":"1"},)";
    ASSERT_TRUE(unpack(smallest()
                           .add("sub/x.bin", "x")
                           .add("burn.cfg", "{\"burn_items\":[" + items +
                                                R"({"name":"sub\\x.bin","addr":"7"}]})")));
    const auto list = manager_.getBurnItems();
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[2].file, L".\\temp_image\\sub\\x.bin");
    EXPECT_TRUE(fileutil::isFileReadable(list[2].file));
}

TEST_F(HostilePackageTest, LeavesNoFileWhereAnEntryFails) {
    const PackageFile broken[] = {
        {.name = "x.bin", .content = "evil", .declaredCrc = 1},
        {.name = "x.bin", .content = "evil", .stored = true, .declaredCrc = 1},
        {.name = "x.bin", .content = "evil", .declaredFlags = 1},
        {.name = "x.bin", .content = "evil", .declaredSize = 5},
        {.name = "x.bin", .content = "evil", .declaredSize = 3},
        {.name = "x.bin", .content = std::string(300'000, 'e'), .declaredSize = 300'001},
        {.name = "x.bin", .content = "evil", .stored = true, .declaredSize = 500'000},
        {.name = "x.bin", .content = "evil", .declaredSize = 0},
        {.name = "x.bin", .content = "evil", .declaredMethod = 12},
        {.name = "x.bin", .content = "evil", .stored = true, .declaredMethod = 8},
        {.name = "x.bin", .content = "evil", .stored = true, .declaredMethod = 99},
        {.name = "x.bin", .content = "evil", .unixMode = 0010644},
    };
    for (const PackageFile& file : broken) {
        SCOPED_TRACE(&file - broken);
        fs::remove_all(kImages);
        writeContent(kImages / "x.bin", "from an earlier package");
        ASSERT_TRUE(unpack(
            PackageBuilder().add(file).add("flashboot.bin", "boot").add("master.bin", "main")));
        EXPECT_EQ(unpacked(), kFixed);
        // Of two entries of a name the last one counts, good or bad.
        ASSERT_TRUE(unpack(smallest().add("x.bin", "good").add(file)));
        EXPECT_FALSE(fs::exists(kImages / "x.bin"));
        ASSERT_TRUE(unpack(smallest().add(file).add("x.bin", "bad").add("x.bin", "good")));
        EXPECT_EQ(contentOf(kImages / "x.bin"), "good");
    }
}

TEST_F(HostilePackageTest, NeverTakesADirectoryForAFile) {
    PackageBuilder package = smallest();
    package.add("a", "file").add("a/b.bin", "lost").add("a/", "");
    package.add("d/", "").add("d", "lost").add("d/e.bin", "kept");
    ASSERT_TRUE(unpack(package));
    EXPECT_EQ(unpacked(),
              (std::set<std::string>{"flashboot.bin", "master.bin", "a", "d/", "d/e.bin"}));
    EXPECT_EQ(contentOf(kImages / "a"), "file");
}

TEST_F(HostilePackageTest, IsInvalidAboveOneGibibyte) {
    constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
    const auto declaring = [](std::initializer_list<std::uint64_t> sizes) {
        PackageBuilder package = smallest();  // 8 bytes
        for (const std::uint64_t size : sizes)
            package.add({.name = std::to_string(size), .content = "x", .declaredSize = size});
        return package;
    };
    EXPECT_FALSE(unpack(declaring({kGibibyte - 7})));
    EXPECT_FALSE(unpack(declaring({kGibibyte / 2, kGibibyte / 2 - 7})));
    EXPECT_FALSE(unpack(declaring({~std::uint64_t{0}, 9, 9})));
    EXPECT_FALSE(unpack(declaring({~std::uint64_t{0} - 8, 1})));
    EXPECT_FALSE(unpack(declaring({std::uint64_t{1} << 63, std::uint64_t{1} << 63})));
    EXPECT_FALSE(fs::exists(kImages));
    EXPECT_TRUE(unpack(declaring({kGibibyte - 8})));
    EXPECT_EQ(unpacked(), kFixed);
}

TEST_F(HostilePackageTest, IsInvalidAboveAHundredThousandPathSteps) {
    // Entries that cannot be unpacked cost the test little and count like any others.
    const auto nested = [](std::size_t entries, std::size_t flat) {
        PackageBuilder package;
        for (std::size_t i = 0; i < entries + flat; ++i) {
            std::string name = "x";
            for (int depth = 1; i < entries && depth < 100; ++depth)
                name.insert(0, "d/");
            package.add({.name = name, .content = "x", .declaredMethod = 99});
        }
        return package.add("flashboot.bin", "boot").add("master.bin", "main");
    };
    EXPECT_FALSE(unpack(nested(999, 99)));
    EXPECT_FALSE(fs::exists(kImages));
    EXPECT_TRUE(unpack(nested(999, 98)));
    EXPECT_EQ(unpacked(), kFixed);
}

TEST_F(HostilePackageTest, IsWholeInvalidOrFailsAtTheImageItLostWhateverIsCutOrFlipped) {
    // The burn list of the sound package, with the content of each image.
    const std::vector<std::tuple<std::string, std::uint32_t, std::string>> images{
        {"flashboot.bin", 0x0, "boot"},
        {"master.bin", 0x20000, "main"},
        {"script.bin", 0xF0000, "a script"},
        {"font.bin", 0x1, std::string(1000, 'f') + "end"},
    };
    PackageBuilder package = smallest();
    package.add({.name = "script.bin", .content = "a script", .stored = true});
    package.add("font.bin", std::get<2>(images.back())).add("sub/", "");
    package.add("burn.cfg", R"({"burn_items":[{"name":"font.bin","addr":"1"},)"
                            R"({"name":"master.bin","addr":"20000"}]})");
    package.write(kPackage);
    const std::string good = contentOf(kPackage);

    int accepted = 0;
    int changedLists = 0;
    const auto tryBytes = [&](const std::string& bytes) {
        writeContent(kImages / "script.bin", "stale");
        writeContent(kPackage, bytes);
        if (!unpackFile())
            return;
        ++accepted;
        std::vector<std::tuple<std::string, std::uint32_t, std::string>> burned;
        for (const BurnItem& item : manager_.getBurnItems()) {
            const std::string name =
                fs::path(item.file.substr(std::wstring(kDirectory).size())).string();
            const auto image = std::find_if(images.begin(), images.end(), [&](const auto& known) {
                return std::get<0>(known) == name;
            });
            // What cannot be opened ends the burn.
            const std::string content = fileutil::fileExists(item.file) ? contentOf(kImages / name)
                                        : image != images.end()         ? std::get<2>(*image)
                                                                        : "lost";
            burned.emplace_back(name, item.addr, content);
        }
        // A flipped bit in a name of the archive's list makes another package, which nobody can
        // tell from the one that was meant: one without an image that it need not have, or with
        // its burn.cfg under another name.
        if (burned != images)
            ++changedLists;
        for (const auto& image : burned)
            EXPECT_TRUE(std::find(images.begin(), images.end(), image) != images.end() ||
                        fs::exists(kImages / "burn.cfg") == false)
                << std::get<0>(image);
        fs::remove_all(kImages);
    };
    for (std::size_t i = 0; i < good.size(); ++i) {
        SCOPED_TRACE(i);
        tryBytes(good.substr(0, i));
        tryBytes(good.substr(i));
        std::string bytes = good;
        bytes[i] = static_cast<char>(static_cast<unsigned char>(bytes[i]) ^ (1U << (i % 8)));
        tryBytes(bytes);
    }
    EXPECT_GT(accepted, static_cast<int>(good.size()) / 3);
    // Only the names in the list can do that, and no name has more than 13 bytes.
    EXPECT_LE(changedLists, 3 * 13);
    EXPECT_EQ(snapshot(), before_);
}

TEST_F(HostilePackageTest, LeavesNoHalfImageOnAFullDisk) {
    PackageBuilder package = smallest();
    package.add({.name = "respak.bin", .content = std::string(900'000, 'r')});
    package.add("after.bin", "after");
    writeContent(kImages / "respak.bin", "from an earlier package");
    package.write(kPackage);
    {
        const FullDisk disk(500'000);
        EXPECT_TRUE(unpackFile());
    }
    EXPECT_EQ(unpacked(), (std::set<std::string>{"flashboot.bin", "master.bin", "after.bin"}));
    ASSERT_TRUE(unpackFile());
    EXPECT_EQ(contentOf(kImages / "respak.bin").size(), 900'000U);
}

TEST_F(HostilePackageTest, LetsNoStaleImageBeBurnedOfAPackageThatHasGone) {
    writeContent(kImages / "master.bin", "from an earlier package");
    smallest().write(kPackage);
    opensUntilGone = 1;  // its names can be read, but not its images
    unpackFile();
    EXPECT_LT(opensUntilGone, 0);
    opensUntilGone = -1;
    EXPECT_FALSE(fs::exists(kImages / "master.bin"));
}

TEST_F(HostilePackageTest, LetsNoStaleImageBeBurnedThatCannotBeReplaced) {
    writeContent(kImages / "master.bin", "from an earlier package");
    smallest().write(kPackage);
    fs::permissions(kImages, fs::perms(0555));
    {
        const OrdinaryUser user;
        EXPECT_FALSE(unpackFile());
    }
    EXPECT_FALSE(manager_.isUnpacked());
    EXPECT_TRUE(manager_.getBurnItems().empty());
    fs::permissions(kImages, fs::perms(0755));
    EXPECT_TRUE(unpackFile());
    EXPECT_EQ(contentOf(kImages / "master.bin"), "main");
}

TEST_F(HostilePackageTest, ReplacesWhatAKilledRunLeft) {
    for (const char* const left : {"~unpacking.tmp", "~unpacking.tmp/odd"}) {
        writeContent(kImages / left, "half an image");
        ASSERT_TRUE(unpack(smallest()));
        EXPECT_EQ(unpacked(), kFixed);
    }
}
