#include "storage/usbtagmap.h"

#include <utility>

#include "storage/archive.h"
#include "storage/statefile.h"
#include "utils/text.h"

namespace {

constexpr const wchar_t* kFileName = L"tag_map";

}  // namespace

std::wstring makePlugId(const std::wstring& deviceId) {
    const std::size_t backslash = deviceId.rfind(L'\\');
    return backslash == std::wstring::npos ? deviceId : deviceId.substr(backslash);
}

bool UsbTagMap::ByCodeUnits::operator()(const std::wstring& a, const std::wstring& b) const {
    return text::toUtf16(a) < text::toUtf16(b);
}

UsbTag UsbTagMap::findTag(const std::wstring& plugId) const {
    const std::lock_guard guard(lock_);
    const auto found = tags_.find(plugId);
    return found == tags_.end() ? UsbTag() : found->second;
}

void UsbTagMap::storeTag(const std::wstring& plugId, const UsbTag& tag) {
    const std::lock_guard guard(lock_);
    if (!plugId.empty())
        tags_.insert_or_assign(plugId, tag);
}

void UsbTagMap::clearTags() {
    const std::lock_guard guard(lock_);
    tags_.clear();
}

bool UsbTagMap::load() {
    return loadStateFile(kFileName, *this);
}

bool UsbTagMap::save() const {
    return saveStateFile(kFileName, *this);
}

// Every entry takes bytes off the archive, so a false count costs no more than the file is long.
void UsbTagMap::Serialize(ArchiveReader& archive) {
    std::uint32_t count = 0;
    archive.readUint32(count);
    for (; count > 0; --count) {
        std::wstring key;
        std::uint32_t index = 0;
        UsbTag tag;
        archive.readString(key);
        archive.readUint32(index);
        archive.readString(tag.plugId);
        archive.readString(tag.tag);
        if (archive.failed())
            return;
        tag.index = static_cast<std::int32_t>(index);
        tags_.insert_or_assign(std::move(key), std::move(tag));
    }
}

void UsbTagMap::Serialize(ArchiveWriter& archive) const {
    archive.writeUint32(static_cast<std::uint32_t>(tags_.size()));
    for (const auto& [key, tag] : tags_) {
        archive.writeString(key);
        archive.writeUint32(static_cast<std::uint32_t>(tag.index));
        archive.writeString(tag.plugId);
        archive.writeString(tag.tag);
    }
}
