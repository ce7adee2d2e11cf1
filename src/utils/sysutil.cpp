#include "utils/sysutil.h"

#include "platform/machine.h"
#include "utils/text.h"

namespace sysutil {

std::wstring getOsName() {
    return text::widen(platform::operatingSystemName());
}

int is64BitOS() {
    return platform::is64BitOperatingSystem() ? 1 : 0;
}

}  // namespace sysutil
