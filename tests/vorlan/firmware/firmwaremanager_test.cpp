#include "vorlan/firmware/firmwaremanager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <latch>
#include <sstream>
#include <stop_token>
#include <thread>
#include <vector>

#include "simulator/packagebuilder.h"
#include "support/helpers.h"
#include "support/recordinglog.h"
#include "support/temporarydirectory.h"
#include "utils/fileutil.h"
#include "utils/interruption.h"

using simulator::PackageBuilder;

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

static void PrintTo(const BurnItem& item, std::ostream* out) {
    *out << fs::path(item.file).string() << " at " << std::hex << item.addr;
}

namespace {

constexpr const wchar_t* kDirectory = L".\\temp_image\\";

MATCHER_P2(ItemAt, name, addr, "") {
    return arg.file == std::wstring(kDirectory) + name &&
           arg.addr == static_cast<std::uint32_t>(addr) && arg.used == 0;
}

const auto kDefaults = ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x10000));

class FirmwareManagerTest : public testing::Test {
  protected:
    FirmwareManagerTest() { directory_.enter(); }

    bool unpack(const PackageBuilder& package) {
        package.write("package.vrk");
        manager_.setFirmwarePath((directory_.path() / "package.vrk").wstring());
        return manager_.unpack(kDirectory);
    }

    static PackageBuilder smallest() {
        PackageBuilder package;
        return package.add("flashboot.bin", "boot").add("master.bin", "main");
    }

    static PackageBuilder withCfg(const std::string& items) {
        return smallest().add("burn.cfg", "{\"burn_items\":[" + items + "]}");
    }

    TemporaryDirectory directory_;
    FirmwareManager manager_;
};

}  // namespace

TEST_F(FirmwareManagerTest, BurnsTheSmallestPackageAtTheDefaultAddresses) {
    EXPECT_FALSE(manager_.isUnpacked());
    ASSERT_TRUE(unpack(smallest().add("config.bin", "c")));
    EXPECT_TRUE(manager_.isUnpacked());
    EXPECT_THAT(manager_.getBurnItems(),
                ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x10000),
                            ItemAt(L"config.bin", 0x7FF000)));
    EXPECT_TRUE(manager_.getBurnerPath().empty());
    EXPECT_EQ(contentOf("temp_image/flashboot.bin"), "boot");
    EXPECT_EQ(contentOf("temp_image/master.bin"), "main");
}

TEST_F(FirmwareManagerTest, OrdersFixedImagesAndPutsTheOthersOfTheCfgBehind) {
    PackageBuilder package;
    package.add("sub/extra.bin", "s").add("config.bin", "c").add("vorlan.bin", "v");
    package.add("respak.bin", "r").add("script.bin", "x").add("unlisted.bin", "u");
    package.add("burner.img", "b").add("flashboot.bin", "f").add("font.bin", "t");
    package.add("burn.cfg", R"({"burn_items":[
        {"name":"font.bin","addr":"300000"}, {"name":"config.bin","addr":"0x7FE000"},
        {"name":"sub/extra.bin","addr":"400000"}, {"name":"absent.bin","addr":"1"},
        {"name":"font.bin","addr":"310000"}, {"name":"config.bin","addr":"7FD000"},
        {"name":"script.bin","addr":"200000"}, {"name":"master.bin","addr":"2"}]})");
    ASSERT_TRUE(unpack(package));
    const auto expected =
        ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"vorlan.bin", 0x10000),
                    ItemAt(L"script.bin", 0x200000), ItemAt(L"respak.bin", 0x100000),
                    ItemAt(L"config.bin", 0x7FE000), ItemAt(L"font.bin", 0x300000),
                    ItemAt(L"sub/extra.bin", 0x400000), ItemAt(L"font.bin", 0x310000),
                    ItemAt(L"config.bin", 0x7FD000));
    EXPECT_THAT(manager_.getBurnItems(), expected);
    EXPECT_THAT(manager_.getBurnItems(), expected);
    EXPECT_EQ(manager_.getBurnerPath(), L".\\temp_image\\burner.img");
    EXPECT_EQ(contentOf("temp_image/unlisted.bin"), "u");
}

TEST_F(FirmwareManagerTest, PrefersMasterToVorlanAndTakesABrokenCfgAndTheReservedAddressAsNone) {
    ASSERT_TRUE(unpack(withCfg(R"({"name":"vorlan.bin","addr":"500"},)"
                               R"({"name":"master.bin","addr":"-1"})")
                           .add("vorlan.bin", "v")));
    EXPECT_THAT(manager_.getBurnItems(),
                ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x10000),
                            ItemAt(L"vorlan.bin", 0x500), ItemAt(L"master.bin", 0xFFFFFFFF)));
    ASSERT_TRUE(unpack(smallest().add("vorlan.bin", "v").add("burn.cfg", "{\"burn_items\":[")));
    EXPECT_THAT(manager_.getBurnItems(), kDefaults);
}

TEST_F(FirmwareManagerTest, RefusesInvalidPackagesAndKeepsWhatItHad) {
    ASSERT_TRUE(unpack(smallest()));
    const PackageBuilder invalid[] = {
        PackageBuilder(),
        PackageBuilder().add("flashboot.bin", "f"),
        PackageBuilder().add("master.bin", "m").add("vorlan.bin", "v"),
        PackageBuilder().add("Flashboot.bin", "f").add("master.bin", "m"),
        PackageBuilder().add("images/flashboot.bin", "f").add("master.bin", "m"),
    };
    for (const PackageBuilder& package : invalid)
        EXPECT_FALSE(unpack(package));
    writeContent("no.zip", "PK but not really");
    ASSERT_EQ(::mkfifo("pipe.zip", 0600), 0);  // nobody writes into it, ever
    for (const fs::path& path :
         {fs::path(), fs::path("missing.zip"), fs::path("no.zip"), fs::path("temp_image"),
          fs::path("pipe.zip"), fs::path("/dev/zero")}) {
        manager_.setFirmwarePath(path.wstring());
        EXPECT_FALSE(manager_.unpack(L".\\elsewhere\\")) << path;
    }
    EXPECT_EQ(manager_.getFirmwarePath(), L"/dev/zero");
    EXPECT_FALSE(fs::exists("elsewhere"));
    EXPECT_TRUE(manager_.isUnpacked());
    EXPECT_EQ(contentOf("temp_image/flashboot.bin"), "boot");
}

TEST_F(FirmwareManagerTest, ClearsOnlyWhatItUnpackedItself) {
    writeContent("temp_image/burn.cfg", R"({"burn_items":[{"name":"kept.bin","addr":"9"}]})");
    writeContent("temp_image/kept.bin", "from an earlier run");
    writeContent("temp_image/master.bin", "from an earlier run");
    ASSERT_TRUE(unpack(smallest()));
    EXPECT_THAT(manager_.getBurnItems(),
                ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x10000),
                            ItemAt(L"kept.bin", 9)));
    EXPECT_EQ(contentOf("temp_image/master.bin"), "main");

    ASSERT_TRUE(manager_.unpack(L".\\uart_temp_image\\"));
    EXPECT_FALSE(fs::exists("temp_image"));
    EXPECT_EQ(manager_.getBurnItems().size(), 2U);
    EXPECT_EQ(contentOf("uart_temp_image/flashboot.bin"), "boot");
}

TEST_F(FirmwareManagerTest, KeepsEveryListedImageThatCannotBeUnpackedInTheList) {
    const simulator::PackageFile broken{.name = "font.bin", .content = "font", .declaredCrc = 1};
    RecordingLog log;
    ASSERT_TRUE(unpack(withCfg(R"({"name":"font.bin","addr":"300000"},)"
                               R"({"name":"absent.bin","addr":"400000"},)"
                               R"({"name":".\\font.bin","addr":"500000"})")
                           .add(broken)));
    EXPECT_THAT(manager_.getBurnItems(),
                ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x10000),
                            ItemAt(L"font.bin", 0x300000), ItemAt(L".\\font.bin", 0x500000)));
    EXPECT_FALSE(fs::exists("temp_image/font.bin"));
    EXPECT_THAT(log.takeMessages(),
                testing::Contains(
                    "W/Firmware: the package has no entry for an item of burn.cfg: absent.bin"));
}

TEST_F(FirmwareManagerTest, IsInvalidWithoutTheAddressesThatItsCfgGives) {
    const std::string cfg = R"({"burn_items":[{"name":"master.bin","addr":"20000"}]})";
    const simulator::PackageFile unreadable[] = {
        {.name = "burn.cfg", .content = cfg, .declaredCrc = 1},
        {.name = "burn.cfg", .content = cfg, .stored = true, .declaredMethod = 99},
        {.name = "burn.cfg", .content = cfg, .declaredFlags = 1},
        {.name = "burn.cfg", .content = cfg + std::string(16 << 20, ' ')},
        {.name = "burn.cfg/x", .content = "a directory"},
    };
    ASSERT_TRUE(unpack(smallest()));
    for (const simulator::PackageFile& file : unreadable) {
        SCOPED_TRACE(&file - unreadable);
        EXPECT_FALSE(unpack(smallest().add(file)));
        EXPECT_FALSE(manager_.isUnpacked());
        EXPECT_TRUE(manager_.getBurnItems().empty());
    }
    ASSERT_TRUE(unpack(smallest().add("burn.cfg", cfg + std::string(15 << 20, ' '))));
    EXPECT_THAT(manager_.getBurnItems(),
                ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x20000)));
}

TEST_F(FirmwareManagerTest, IsInvalidIfTwoImagesWouldBecomeOne) {
    const auto twoImages = [](const std::string& one, const std::string& other) {
        return smallest().add(one, "1").add(other, "2");
    };
    EXPECT_FALSE(unpack(twoImages("\xB9\xCC.bin", "\xBC\xFE.bin")));  // another code page
    EXPECT_FALSE(unpack(twoImages("sub/x.bin", "sub\\x.bin")));
    EXPECT_FALSE(unpack(twoImages("x.bin", "./x.bin")));
    EXPECT_TRUE(unpack(twoImages("x.bin", "X.bin")));
    EXPECT_TRUE(unpack(twoImages("sub/", "sub\\")));
    EXPECT_TRUE(unpack(twoImages("\xE5\x9B\xBA.bin", "\xE4\xBB\xB6.bin")));
}

TEST_F(FirmwareManagerTest, LeavesAPackageAloneThatLiesWhereItWouldBeUnpacked) {
    fs::create_directories("temp_image/sub");
    fs::create_directory_symlink("temp_image/sub", "way");
    smallest().write("temp_image/sub/own.zip");
    fs::create_symlink("temp_image/sub/own.zip", "link.zip");
    for (const char* const path :
         {"temp_image/sub/own.zip", "./way/../sub/own.zip", "way/own.zip", "link.zip"}) {
        manager_.setFirmwarePath(fs::absolute(path).wstring());
        EXPECT_FALSE(manager_.unpack(kDirectory)) << path;
        EXPECT_TRUE(manager_.liesInUnpackDirectory(kDirectory)) << path;
        EXPECT_TRUE(fs::exists("temp_image/sub/own.zip")) << path;
    }
    // The directory of the unpack before goes as well.
    ASSERT_TRUE(unpack(smallest()));
    smallest().write("temp_image/own.zip");
    manager_.setFirmwarePath(L".\\temp_image\\own.zip");
    EXPECT_FALSE(manager_.unpack(L".\\uart_temp_image\\"));
    EXPECT_TRUE(fs::exists("temp_image/own.zip"));
}

TEST_F(FirmwareManagerTest, LeavesOffWhenInterruptedAndTellsHowFarItIs) {
    auto package = smallest();
    package.add("big.bin", std::string(4 << 20, 'b')).add("empty.bin", "").write("package.vrk");
    manager_.setFirmwarePath((directory_.path() / "package.vrk").wstring());
    std::stop_source stop;
    int last = -1;
    {
        const interruption::Scope scope(stop.get_token());
        EXPECT_FALSE(manager_.unpack(kDirectory, [&](int percent) {
            last = percent;
            if (percent > 10)
                stop.request_stop();
        }));
    }
    EXPECT_LT(last, 30);
    EXPECT_FALSE(manager_.isUnpacked());
    EXPECT_THAT(manager_.getBurnItems(), ElementsAre());
    EXPECT_FALSE(fs::exists("temp_image/big.bin"));
    EXPECT_FALSE(fs::exists("temp_image/empty.bin"));

    std::vector<int> told;
    EXPECT_TRUE(manager_.unpack(kDirectory, [&](int percent) { told.push_back(percent); }));
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_EQ(told.back(), 100);
    EXPECT_TRUE(fs::exists("temp_image/empty.bin"));
}

TEST_F(FirmwareManagerTest, TraceTellsTheItemsOfTheCfg) {
    bool unpacked = false;
    const Output output = outputOf([&] {
        unpacked = unpack(withCfg(R"({"name":"\u4E2D.bin","addr":"1F"},)"
                                  R"({"name":"absent.bin","addr":"-1"})"));
    });
    ASSERT_TRUE(unpacked);
    EXPECT_THAT(output.traced, HasSubstr(" - name=\xE4\xB8\xAD.bin, addr=31\n"));
    EXPECT_THAT(output.traced, HasSubstr(" - name=absent.bin, addr=-1\n"));
}

TEST_F(FirmwareManagerTest, CountsTheSafeNameOfAnEntry) {
    ASSERT_TRUE(unpack(PackageBuilder()
                           .add("a\\..\\flashboot.bin", "boot")
                           .add("C:\\master.bin", "main")
                           .add("/burner.img", "burner")));
    EXPECT_THAT(manager_.getBurnItems(), kDefaults);
    EXPECT_EQ(contentOf("temp_image/flashboot.bin"), "boot");
    EXPECT_EQ(fileutil::readBytes(manager_.getBurnerPath()), "burner");
}

TEST_F(FirmwareManagerTest, KeepsTimesAndTheReadOnlyAttributeAlone) {
    constexpr std::uint32_t kDate =
        ((2019U - 1980) << 25) | (3U << 21) | (14U << 16) | (15U << 11) | (9U << 5) | (26U / 2);
    PackageBuilder package = smallest();
    package.add({.name = "locked.bin", .content = "1", .readOnly = true, .dosDate = kDate});
    package.add({.name = "open.bin", .content = "1", .unixMode = 0106777});
    package.add({.name = "odd.bin", .content = "1", .dosDate = 0xFFFFFFFF});
    ASSERT_TRUE(unpack(package));

    const auto writable = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
    EXPECT_EQ(fs::status("temp_image/locked.bin").permissions() & writable, fs::perms::none);
    EXPECT_EQ(fs::status("temp_image/open.bin").permissions() & ~(writable | fs::perms(0444)),
              fs::perms::none);
    std::tm stored{};
    std::istringstream("2019-03-14 15:09:26") >> std::get_time(&stored, "%Y-%m-%d %H:%M:%S");
    stored.tm_isdst = -1;
    EXPECT_EQ(std::chrono::system_clock::to_time_t(
                  std::chrono::file_clock::to_sys(fs::last_write_time("temp_image/locked.bin"))),
              std::mktime(&stored));

    // The next run replaces it.
    FirmwareManager next;
    smallest().add("locked.bin", "2").write("next.zip");
    next.setFirmwarePath(L"next.zip");
    ASSERT_TRUE(next.unpack(kDirectory));
    EXPECT_EQ(contentOf("temp_image/locked.bin"), "2");
}

TEST_F(FirmwareManagerTest, GivesEveryDeviceTheSameListAtTheSameTime) {
    ASSERT_TRUE(unpack(withCfg(R"({"name":"master.bin","addr":"20000"},)"
                               R"({"name":"font.bin","addr":"300000"})")
                           .add("font.bin", "f")));
    const auto expected = ElementsAre(ItemAt(L"flashboot.bin", 0), ItemAt(L"master.bin", 0x20000),
                                      ItemAt(L"font.bin", 0x300000));
    std::latch start(2);
    std::vector<std::thread> devices(2);
    for (std::thread& device : devices) {
        device = std::thread([&] {
            start.arrive_and_wait();
            for (int time = 0; time < 50; ++time)
                EXPECT_THAT(manager_.getBurnItems(), expected);
        });
    }
    for (std::thread& device : devices)
        device.join();
}
