#include "pages/serial/serialportlist.h"

#include "platform/serialdevice.h"
#include "platform/serialports.h"
#include "utils/text.h"

namespace {

// Opened for this program alone, and closed again.
bool canBeOpened(const std::string& path) {
    return platform::openSerialDevice(path, {}) != nullptr;
}

std::wstring withoutBrackets(const std::wstring& name) {
    const std::size_t bracket = name.find(L" (");
    const bool endsInBracket = name.find(L')') == name.size() - 1;
    if (bracket == std::wstring::npos || bracket == 0 || !endsInBracket)
        return name;
    return name.substr(0, bracket);
}

SSerInfo describe(const platform::SerialPortEntry& entry, const std::string& path) {
    const std::wstring name = text::widen(entry.name);
    SSerInfo info;
    info.devicePath = text::widen(path);
    info.isUsb = entry.isUsb;
    if (entry.model.empty()) {
        info.portName = name;
        info.friendlyName = name;
    } else {
        info.friendlyName = text::widen(entry.model) + L" (" + name + L")";
    }
    info.description = withoutBrackets(info.friendlyName);
    return info;
}

}  // namespace

void listSerialPorts(std::vector<SSerInfo>& ports, bool ignoreBusy) {
    ports.clear();
    try {
        for (const platform::SerialPortEntry& entry : platform::serialPorts().list()) {
            const std::string path = platform::serialPorts().pathOf(entry.name);
            if (!ignoreBusy || canBeOpened(path))
                ports.push_back(describe(entry, path));
        }
    } catch (const platform::SerialPortsError& error) {
        throw SerialPortListError(text::widen(error.what()));
    }
}
