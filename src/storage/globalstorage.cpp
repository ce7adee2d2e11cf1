#include "storage/globalstorage.h"

#include "storage/archive.h"
#include "storage/statefile.h"

namespace {

constexpr const wchar_t* kFileName = L"global_storage";

}  // namespace

GlobalStorage& GlobalStorage::getInstance() {
    static GlobalStorage instance;
    return instance;
}

bool GlobalStorage::load() {
    return loadStateFile(kFileName, *this);
}

bool GlobalStorage::save() const {
    return saveStateFile(kFileName, *this);
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
