#include "vorlan/firmware/burncfg.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>

#include "utils/fileutil.h"
#include "utils/text.h"
#include "utils/trace.h"

namespace {

// A parsed document takes many times the memory of its text.
constexpr std::uintmax_t kSizeLimit = 1 << 20;  // bytes

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

bool isTooLarge(const std::wstring& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(fileutil::nativePath(path), error);
    return !error && size > kSizeLimit;
}

// Empty for anything but a string.
std::string stringOf(const cJSON* json) {
    const char* value = cJSON_GetStringValue(json);
    return value == nullptr ? std::string() : std::string(value);
}

// Hexadecimal text as a 32-bit signed number, which it never leaves: larger ones stop at its ends.
std::int32_t parseAddr(const std::string& hex) {
    using Limits = std::numeric_limits<std::int32_t>;
    const long value = std::strtol(hex.c_str(), nullptr, 16);
    return static_cast<std::int32_t>(std::clamp<long>(value, Limits::min(), Limits::max()));
}

template <typename Items>
auto findName(Items& items, const std::wstring& name) {
    return std::find_if(items.begin(), items.end(),
                        [&](const BurnItem& item) { return item.file == name; });
}

}  // namespace

bool BurnCfg::load(const std::wstring& path) {
    if (isTooLarge(path)) {
        TRACE("burn.cfg is too large\n");
        return false;
    }
    const std::string content = fileutil::readFile(path);
    if (content.empty())
        return false;
    const JsonPtr root(cJSON_Parse(content.c_str()));
    if (root == nullptr)
        return false;

    items_.clear();
    const cJSON* list = cJSON_GetObjectItem(root.get(), "burn_items");
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        const cJSON* name = cJSON_GetObjectItem(element, "name");
        const cJSON* addr = cJSON_GetObjectItem(element, "addr");
        if (name == nullptr || addr == nullptr)
            continue;
        const std::int32_t address = parseAddr(stringOf(addr));
        const BurnItem& item = items_.emplace_back(
            BurnItem{text::widen(stringOf(name)), static_cast<std::uint32_t>(address)});
        TRACE("name=%s, addr=%ld\n", text::narrow(item.file).c_str(), static_cast<long>(address));
    }
    return true;
}

std::uint32_t BurnCfg::getAddr(const std::wstring& name) const {
    const auto item = findName(items_, name);
    return item == items_.end() ? kNoAddress : item->addr;
}

void BurnCfg::markUsed(const std::wstring& name) {
    const auto item = findName(items_, name);
    if (item != items_.end())
        item->used = 1;
}
