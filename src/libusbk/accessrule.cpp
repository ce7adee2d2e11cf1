#include "libusbk/accessrule.h"

#include <unistd.h>

#include <system_error>

namespace fs = std::filesystem;

namespace libusbk {
namespace {

constexpr const char* kRule = "70-vorlanfactorytool-usb.rules";

}  // namespace

bool isRuleInstalled(const std::vector<fs::path>& directories) {
    for (const fs::path& directory : directories) {
        const fs::path rule = directory / kRule;
        std::error_code error;
        if (!fs::exists(fs::symlink_status(rule, error)))
            continue;
        return fs::is_regular_file(rule, error) && fs::file_size(rule, error) > 0 && !error;
    }
    return false;
}

bool mayOpenDevices() {
    return ::geteuid() == 0 ||
           isRuleInstalled({"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                            "/usr/lib/udev/rules.d", "/lib/udev/rules.d"});
}

}  // namespace libusbk
