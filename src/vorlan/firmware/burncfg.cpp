#include "vorlan/firmware/burncfg.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "utils/fileutil.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "utils/trace.h"

#define LOG_TAG "Firmware"

namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

bool isTooLarge(const std::wstring& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(fileutil::nativePath(path), error);
    return !error && size > BurnCfg::kSizeLimit;
}

// Empty for anything but a string.
std::string stringOf(const cJSON* json) {
    const char* value = cJSON_GetStringValue(json);
    return value == nullptr ? std::string() : std::string(value);
}

template <typename Items>
auto findName(Items& items, const std::wstring& name) {
    return std::find_if(items.begin(), items.end(),
                        [&](const BurnItem& item) { return item.file == name; });
}

}  // namespace

BurnCfg::Load BurnCfg::load(const std::wstring& path) {
    const std::optional<std::string> bytes =
        isTooLarge(path) ? std::nullopt : fileutil::readBytes(path);
    if (!bytes) {
        LOG_E("burn.cfg cannot be read whole, or is larger than 16 MiB");
        return Load::kUnreadable;
    }
    const JsonPtr root(cJSON_Parse(fileutil::textOf(*bytes).c_str()));
    if (root == nullptr) {
        LOG_W("burn.cfg is no JSON: the images go to their default addresses");
        return Load::kNoJson;
    }

    items_.clear();
    const cJSON* list = cJSON_GetObjectItem(root.get(), "burn_items");
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        const cJSON* name = cJSON_GetObjectItem(element, "name");
        const cJSON* addr = cJSON_GetObjectItem(element, "addr");
        if (name == nullptr || addr == nullptr)
            continue;
        const std::int32_t address = text::parseHex(stringOf(addr));
        const BurnItem& item = items_.emplace_back(
            BurnItem{text::widen(stringOf(name)), static_cast<std::uint32_t>(address)});
        TRACE("name=%s, addr=%ld\n", text::narrow(item.file).c_str(), static_cast<long>(address));
    }
    return Load::kLoaded;
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
