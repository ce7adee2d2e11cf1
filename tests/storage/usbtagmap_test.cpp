#include "storage/usbtagmap.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include "support/systemlimits.h"
#include "support/temporarydirectory.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

// A short string of the file, from its UTF-16LE bytes.
std::string stored(const std::string& units) {
    return "\xFF\xFE\xFF"s + static_cast<char>(units.size() / 2) + units;
}

std::string units(const std::string& ascii) {
    std::string bytes;
    for (const char c : ascii)
        bytes += {c, '\0'};
    return bytes;
}

std::string entry(const std::string& key, char index, const std::string& tag) {
    return stored(key) + index + "\0\0\0"s + stored(key) + stored(tag);
}

class UsbTagMapTest : public testing::Test {
  protected:
    void store(const std::wstring& plugId, std::int32_t index, const std::wstring& tag) {
        tags_.storeTag(plugId, {index, plugId, tag});
    }
    std::string file() const { return directory_.read("tag_map"); }
    void setFile(const std::string& bytes) const { directory_.write("tag_map", bytes); }

    EnteredDirectory directory_;
    UsbTagMap tags_;
};

}  // namespace

TEST(PlugId, IsTheDeviceIdFromItsLastBackslash) {
    EXPECT_EQ(makePlugId(L"USB\\VID_1234&PID_5678\\0000:00:14.0-2.4"), L"\\0000:00:14.0-2.4");
    EXPECT_EQ(makePlugId(L"USB\\"), L"\\");
    EXPECT_EQ(makePlugId(L"1-1"), L"1-1");
    EXPECT_EQ(makePlugId(L""), L"");
}

TEST_F(UsbTagMapTest, FindsWhatWasStoredLast) {
    store(L"\\1-1", 3, L"first");
    store(L"\\1-2", 4, L"left");
    store(L"\\1-1", 5, L"left");
    store(L"", 6, L"nowhere");
    EXPECT_EQ(tags_.findTag(L"\\1-1").index, 5);
    EXPECT_EQ(tags_.findTag(L"\\1-1").plugId, L"\\1-1");
    EXPECT_EQ(tags_.findTag(L"\\1-1").tag, L"left");
    EXPECT_EQ(tags_.findTag(L"\\1-2").tag, L"left");
    for (const wchar_t* const unknown : {L"", L"\\1-3", L"\\1-"}) {
        const UsbTag none = tags_.findTag(unknown);
        EXPECT_EQ(none.index, -1);
        EXPECT_EQ(none.plugId + none.tag, L"");
    }
    tags_.clearTags();
    EXPECT_EQ(tags_.findTag(L"\\1-1").tag, L"");
}

TEST_F(UsbTagMapTest, FileHoldsTheEntriesInTheOrderOfTheirCodeUnits) {
    ASSERT_TRUE(tags_.save());
    EXPECT_EQ(file(), "\0\0\0\0"s);

    // By code points U+FFFD would come before U+1F600, whose first code unit is D83D.
    store(L"\\\uFFFD", 2, L"x");
    store(L"\\\U0001F600", 1, L"\u4E2D\U0001F600");
    store(L"\\b", 15, L"");
    store(L"\\B", 0, L"B");
    ASSERT_TRUE(tags_.save());
    EXPECT_EQ(file(), "\x04\0\0\0"s + entry(units("\\B"), 0, units("B")) +
                          entry(units("\\b"), 15, "") +
                          entry("\\\0\x3D\xD8\x00\xDE"s, 1, "\x2D\x4E\x3D\xD8\x00\xDE"s) +
                          entry("\\\0\xFD\xFF"s, 2, units("x")));
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1) << "left-overs";

    const std::string saved = file();
    UsbTagMap restarted;
    ASSERT_TRUE(restarted.load());
    EXPECT_EQ(restarted.findTag(L"\\\U0001F600").tag, L"\u4E2D\U0001F600");
    EXPECT_EQ(restarted.findTag(L"\\b").index, 15);
    ASSERT_TRUE(restarted.save());
    EXPECT_EQ(file(), saved);
}

TEST_F(UsbTagMapTest, ReadsForeignFilesAndTheLastOfTwoEntriesCounts) {
    EXPECT_TRUE(tags_.load()) << "no file";
    setFile("\x03\0\0\0"s + entry(units("p"), 1, units("one")) +
            entry(units("p"), 2, units("two")) + "\x01q\xFF\xFF\xFF\xFF\x03old\x03tag"s +
            "what lies behind");
    ASSERT_TRUE(tags_.load());
    EXPECT_EQ(tags_.findTag(L"p").tag, L"two");
    EXPECT_EQ(tags_.findTag(L"q").index, -1);
    EXPECT_EQ(tags_.findTag(L"q").plugId, L"old");
    EXPECT_EQ(tags_.findTag(L"q").tag, L"tag");
    EXPECT_TRUE(fs::exists("tag_map"));
}

TEST_F(UsbTagMapTest, FileCutOffAnywhereIsDeletedAndItsEntriesBeforeTheCutStay) {
    const std::string first = "\x02\0\0\0"s + entry(units("p"), 1, units("one"));
    const std::string whole = first + entry(units("q"), 2, units("two"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        setFile(whole.substr(0, size));
        UsbTagMap cut;
        EXPECT_FALSE(cut.load());
        EXPECT_FALSE(fs::exists("tag_map"));
        EXPECT_EQ(cut.findTag(L"p").tag, size < first.size() ? L"" : L"one");
        EXPECT_EQ(cut.findTag(L"q").index, -1);
    }

    // A count that cannot be true costs nothing and keeps what is there.
    setFile("\xFF\xFF\xFF\xFF"s + entry(units("p"), 1, units("one")));
    EXPECT_FALSE(tags_.load());
    EXPECT_FALSE(fs::exists("tag_map"));
    EXPECT_EQ(tags_.findTag(L"p").tag, L"one");
}

TEST_F(UsbTagMapTest, FailedSaveKeepsTheOldFile) {
    store(L"\\1-1", 1, L"old");
    ASSERT_TRUE(tags_.save());
    const std::string saved = file();
    store(L"\\1-1", 1, L"new");
    fs::permissions(".", fs::perms::owner_read | fs::perms::owner_exec);
    {
        const OrdinaryUser user;
        EXPECT_FALSE(tags_.save());
    }
    fs::permissions(".", fs::perms::owner_all);
    EXPECT_EQ(file(), saved);
    EXPECT_EQ(tags_.findTag(L"\\1-1").tag, L"new");
}

TEST_F(UsbTagMapTest, PlugInsLookUpLabelsWhileThePageStoresThem) {
    store(L"\\1-1", 0, L"aa");
    std::thread plugIns([&] {
        for (int lookUp = 0; lookUp < 500; ++lookUp) {
            const std::wstring tag = tags_.findTag(L"\\1-1").tag;
            EXPECT_TRUE(tag.empty() || tag == L"aa");
        }
    });
    for (int i = 0; i < 500; ++i) {
        tags_.clearTags();
        store(L"\\1-1", 0, L"aa");
    }
    plugIns.join();
}
