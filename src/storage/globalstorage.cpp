#include "storage/globalstorage.h"

#include <optional>

#include "platform/file.h"
#include "storage/archive.h"
#include "utils/fileutil.h"

namespace {

constexpr const wchar_t* kFileName = L"global_storage";

}  // namespace

GlobalStorage& GlobalStorage::getInstance() {
    static GlobalStorage instance;
    return instance;
}

bool GlobalStorage::load() {
    if (!fileutil::fileExists(kFileName))
        return true;
    if (const std::optional<std::string> bytes = fileutil::readBytes(kFileName)) {
        ArchiveReader archive(*bytes);
        Serialize(archive);
        if (!archive.failed())
            return true;
    }
    fileutil::removePath(kFileName);
    return false;
}

bool GlobalStorage::save() const {
    ArchiveWriter archive;
    Serialize(archive);
    return platform::replaceFile(fileutil::nativePath(kFileName), archive.bytes());
}

void GlobalStorage::Serialize(ArchiveReader& archive) {
    std::uint32_t address = snBurnAddr_;
    archive.readString(snFilePath_);
    archive.readUint32(address);
    snBurnAddr_ = address;
}

void GlobalStorage::Serialize(ArchiveWriter& archive) const {
    archive.writeString(snFilePath_);
    archive.writeUint32(snBurnAddr_);
}
