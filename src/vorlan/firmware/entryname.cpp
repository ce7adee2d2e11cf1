#include "vorlan/firmware/entryname.h"

#include <algorithm>

namespace entryname {
namespace {

constexpr std::wstring_view kSeparators = L"/\\";

bool isSeparator(wchar_t c) {
    return kSeparators.find(c) != std::wstring_view::npos;
}

// Where the text behind the first ".." between two separators begins; npos if there is none.
std::size_t behindFirstClimb(std::wstring_view name) {
    for (std::size_t i = name.find(L".."); i != std::wstring_view::npos;
         i = name.find(L"..", i + 1)) {
        if (i > 0 && isSeparator(name[i - 1]) && i + 2 < name.size() && isSeparator(name[i + 2]))
            return i + 3;
    }
    return std::wstring_view::npos;
}

// How many characters at the front of the name have to go; 0 once it is safe.
std::size_t unsafePrefix(std::wstring_view name) {
    if (name.size() > 1 && name[1] == L':')
        return 2;
    if (!name.empty() && isSeparator(name[0]))
        return 1;
    const std::size_t behind = behindFirstClimb(name);
    return behind == std::wstring_view::npos ? 0 : behind;
}

}  // namespace

std::wstring makeSafe(std::wstring_view name) {
    while (const std::size_t count = unsafePrefix(name))
        name.remove_prefix(count);
    return std::wstring(name);
}

bool isDirectory(std::wstring_view name) {
    return !name.empty() && isSeparator(name.back());
}

std::optional<std::vector<std::wstring>> components(std::wstring_view name) {
    if (name.find(L'\0') != std::wstring_view::npos)
        return std::nullopt;
    std::vector<std::wstring> steps;
    while (!name.empty()) {
        const std::size_t length = std::min(name.find_first_of(kSeparators), name.size());
        const std::wstring_view step = name.substr(0, length);
        if (step == L"..")
            return std::nullopt;
        if (!step.empty() && step != L".")
            steps.emplace_back(step);
        name.remove_prefix(std::min(length + 1, name.size()));
    }
    if (steps.empty())
        return std::nullopt;
    return steps;
}

}  // namespace entryname
