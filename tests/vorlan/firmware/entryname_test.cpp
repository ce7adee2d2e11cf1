#include "vorlan/firmware/entryname.h"

#include <gtest/gtest.h>

#include "utils/text.h"

TEST(EntryName, LosesWhateverLeadsOutOfTheDirectory) {
    const struct {
        const wchar_t* stored;
        const wchar_t* safe;
    } cases[] = {
        {L"flashboot.bin", L"flashboot.bin"},
        {L"sub/image.bin", L"sub/image.bin"},
        {L"C:image.bin", L"image.bin"},
        {L"C:\\image.bin", L"image.bin"},
        {L"C:\\/D:x", L"x"},
        {L"/\\//etc/passwd", L"etc/passwd"},
        {L"\\\\server\\share", L"server\\share"},
        {L"a\\..\\b.bin", L"b.bin"},
        {L"a/../b.bin", L"b.bin"},
        {L"a\\../b.bin", L"b.bin"},
        {L"a/..\\b.bin", L"b.bin"},
        {L"a/../b/../c.bin", L"c.bin"},
        {L"a/../C:/x/../D:/e.bin", L"e.bin"},
        {L"a/..b/c../d.bin", L"a/..b/c../d.bin"},
        {L"a/.../b", L"a/.../b"},
        // Nothing stands before the "..", so it stays and is refused later.
        {L"../b.bin", L"../b.bin"},
        {L"a/../../b.bin", L"../b.bin"},
        {L"a/..", L"a/.."},
        {L"C:\\", L""},
        {L"/", L""},
        {L"", L""},
    };
    for (const auto& [stored, safe] : cases)
        EXPECT_EQ(entryname::makeSafe(stored), safe) << text::narrow(stored);
}

TEST(EntryName, HasStepsThatOnlyLeadDown) {
    using Steps = std::vector<std::wstring>;
    EXPECT_EQ(entryname::components(L"a\\b/c.bin"), (Steps{L"a", L"b", L"c.bin"}));
    EXPECT_EQ(entryname::components(L"./a//b/"), (Steps{L"a", L"b"}));
    EXPECT_EQ(entryname::components(L"..."), (Steps{L"..."}));
    for (const std::wstring name : {L"..", L"../a", L"a\\..", L"a/../b", L"", L".", L"/", L"./\\"})
        EXPECT_EQ(entryname::components(name), std::nullopt) << text::narrow(name);
    EXPECT_EQ(entryname::components(std::wstring(L"a\0b", 3)), std::nullopt);
}
