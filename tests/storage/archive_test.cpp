#include "storage/archive.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

namespace {

std::string written(const std::wstring& value) {
    ArchiveWriter archive;
    archive.writeString(value);
    return archive.bytes();
}

struct Read {
    std::wstring value = L"untouched";
    bool failed = false;
};

Read read(const std::string& bytes) {
    Read result;
    ArchiveReader archive(bytes);
    archive.readString(result.value);
    result.failed = archive.failed();
    return result;
}

}  // namespace

TEST(Archive, LengthFieldGrowsWithTheString) {
    struct Case {
        std::size_t length;
        std::string field;
    };
    for (const Case& c :
         {Case{254, "\xFE"s}, Case{255, "\xFF\xFF\x00"s}, Case{65533, "\xFF\xFD\xFF"s},
          Case{65534, "\xFF\xFF\xFF\xFE\xFF\x00\x00"s},
          Case{70000, "\xFF\xFF\xFF\x70\x11\x01\x00"s}}) {
        SCOPED_TRACE(c.length);
        const std::wstring value(c.length, L'x');
        const std::string bytes = written(value);
        EXPECT_EQ(bytes.substr(0, 3 + c.field.size()), "\xFF\xFE\xFF" + c.field);
        EXPECT_EQ(bytes.size(), 3 + c.field.size() + 2 * c.length);
        const Read back = read(bytes);
        EXPECT_FALSE(back.failed);
        EXPECT_EQ(back.value, value);
    }
}

TEST(Archive, ReadsUnmarkedStringsOfSingleBytes) {
    EXPECT_EQ(read("\x03"
                   "abc"s)
                  .value,
              L"abc");
    EXPECT_EQ(read("\x03\xE4\xB8\xAD"s).value, L"\u4E2D");
    EXPECT_EQ(read("\xFF\x00\x01"s + std::string(256, 'y')).value, std::wstring(256, L'y'));
    EXPECT_EQ(read("\xFF\xFF\xFF\x02\x00\x00\x00zz"s).value, L"zz");
}

TEST(Archive, RefusesDamagedStringsAndLeavesTheValue) {
    for (const std::string& bytes : {
             ""s,
             "\xFF\xFE"s,                                          // cut in the mark
             "\xFF\xFE\xFF"s,                                      // no length
             "\xFF\xFE\xFF\x02\x61\x00\x62"s,                      // half a character
             "\xFF\xFE\xFF\xFF\x05"s,                              // cut in the 16-bit length
             "\xFF\xFE\xFF\xFF\xFF\xFF\x01\x00"s,                  // cut in the 32-bit length
             "\xFF\xFE\xFF\xFF\xFF\xFF\xFE\xFF\xFF\xFF\x61"s,      // 8 GiB announced
             "\xFF\xFE\xFF\xFF\xFF\xFF\x01\x00\x00\x80\x61\x00"s,  // 4 GiB and one character
             // A second mark for a length.
             "\xFF\xFE\xFF\xFF\xFE\xFF"s + std::string(std::size_t{2} * 0xFFFE, 'x'),
             "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x61"s,  // 4 GiB without a mark
             "\x04"
             "abc"s,
         }) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        const Read result = read(bytes);
        EXPECT_TRUE(result.failed);
        EXPECT_EQ(result.value, L"untouched");
    }
}
