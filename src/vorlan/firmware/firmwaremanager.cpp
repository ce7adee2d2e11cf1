#include "vorlan/firmware/firmwaremanager.h"

#include <sha2.h>

#include <cstdint>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/firmware/entryname.h"
#include "vorlan/firmware/packagearchive.h"
#include "vorlan/firmware/unpackdirectory.h"

#define LOG_TAG "Firmware"

namespace {

constexpr const wchar_t* kFlashboot = L"flashboot.bin";
constexpr const wchar_t* kMaster = L"master.bin";
constexpr const wchar_t* kVorlan = L"vorlan.bin";
constexpr const wchar_t* kScript = L"script.bin";
constexpr const wchar_t* kRespak = L"respak.bin";
constexpr const wchar_t* kConfig = L"config.bin";
constexpr const wchar_t* kBurner = L"burner.img";
constexpr const wchar_t* kBurnCfg = L"burn.cfg";

constexpr std::uint32_t kFlashbootAddr = 0x0;
constexpr std::uint32_t kMainAddr = 0x10000;
constexpr std::uint32_t kScriptAddr = 0xF0000;
constexpr std::uint32_t kRespakAddr = 0x100000;
constexpr std::uint32_t kConfigAddr = 0x7FF000;

// What all entries together may cost, far above any real package.
constexpr std::uint64_t kDeclaredLimit = std::uint64_t{1} << 30;  // bytes
constexpr std::size_t kStepLimit = 100'000;                       // files and directories of paths

// How many files and directories an entry of that name makes at most; 1 even if it is refused.
std::size_t stepsOf(const std::wstring& name) {
    const auto steps = entryname::components(name);
    return steps ? steps->size() : 1;
}

// One spelling for all names that stand for the same file; empty for a directory and for what is
// never unpacked.
std::wstring fileOf(const std::wstring& name) {
    const auto steps = entryname::components(name);
    if (!steps || entryname::isDirectory(name))
        return {};
    std::wstring file;
    for (const std::wstring& step : *steps)
        file += L"/" + step;
    return file;
}

// In hexadecimal digits; empty if the file cannot be read.
std::string sha256Of(const std::wstring& path) {
    char digits[SHA256_DIGEST_STRING_LENGTH] = "";
    SHA256File(fileutil::nativePath(path).c_str(), digits);
    return digits;
}

}  // namespace

bool FirmwareManager::unpack(const std::wstring& directory,
                             const std::function<void(int percent)>& onPercent) {
    if (liesInUnpackDirectory(directory)) {
        LOG_E("the package lies in the directory that it would be unpacked into: %s",
              text::narrow(firmwarePath_).c_str());
        return false;
    }
    if (!validate())
        return false;
    clearTempDir();
    tempDir_ = directory;
    cfgItems_.clear();
    unpacked_ = extractAll(onPercent) && loadCfg();
    if (unpacked_)
        sha256_ = sha256Of(firmwarePath_);
    return unpacked_;
}

bool FirmwareManager::liesInUnpackDirectory(const std::wstring& directory) const {
    return UnpackDirectory(directory).contains(firmwarePath_) ||
           (!tempDir_.empty() && UnpackDirectory(tempDir_).contains(firmwarePath_));
}

bool FirmwareManager::validate() {
    itemNames_.clear();
    itemFiles_.clear();
    declaredSize_ = 0;
    if (!readNames())
        return false;
    if (hasItem(kFlashboot) && (hasItem(kVorlan) || hasItem(kMaster)))
        return true;
    LOG_E("the package has no flashboot.bin, or neither master.bin nor vorlan.bin");
    return false;
}

// False, and the run log says why, if there is no telling what the package holds.
bool FirmwareManager::readNames() {
    PackageArchive archive;
    PackageEntry entry;
    if (!archive.openArchive(firmwarePath_) ||
        !archive.readEntry(PackageArchive::kArchive, entry)) {
        LOG_E("the package cannot be opened or is no ZIP archive: %s",
              text::narrow(firmwarePath_).c_str());
        return false;
    }
    const std::int64_t count = entry.index;
    std::size_t steps = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        // A list that breaks off does not tell what would be missing.
        if (!archive.readEntry(i, entry)) {
            LOG_E("the package's list of entries breaks off");
            return false;
        }
        if (!entry.isText) {
            LOG_E("the name of entry %lld of the package is no UTF-8", static_cast<long long>(i));
            return false;
        }
        if (entry.size > kDeclaredLimit - declaredSize_) {
            LOG_E("package declares more than 1 GiB");
            return false;
        }
        declaredSize_ += entry.size;
        steps += stepsOf(entry.name);
        if (steps > kStepLimit) {
            LOG_E("package names more than %zu files and directories", kStepLimit);
            return false;
        }
        const auto known = itemFiles_.emplace(fileOf(entry.name), entry.name).first;
        if (known->first.empty() || known->second == entry.name) {
            if (!itemNames_.insert(entry.name).second)
                LOG_W("the package has several entries of one name, the last of which counts: %s",
                      text::narrow(entry.name).c_str());
            continue;
        }
        LOG_E("two names of the package stand for one file: %s and %s",
              text::narrow(known->second).c_str(), text::narrow(entry.name).c_str());
        return false;
    }
    return true;
}

// Whether the package has an entry for that file, however the name is spelled. No entry name above
// the limit is known, so that it may be one of them.
bool FirmwareManager::lists(const std::wstring& name) const {
    if (hasItem(name) || name.size() > PackageArchive::kNameLimit)
        return true;
    const std::wstring file = fileOf(name);
    return !file.empty() && itemFiles_.count(file) != 0;
}

void FirmwareManager::clearTempDir() {
    fileutil::removePath(tempDir_);
}

// False if some name of the package now stands for a file of an older one, or after an
// interruption.
bool FirmwareManager::extractAll(const std::function<void(int percent)>& onPercent) {
    PackageArchive archive;
    PackageEntry entry;
    std::set<std::wstring> unreached = itemNames_;
    bool clean = true;
    archive.setExtractDir(tempDir_);
    archive.watch([&, done = std::uint64_t{0}](std::uint64_t bytes) mutable {
        done += bytes;
        onPercent(static_cast<int>(done * 100 / declaredSize_));
    });
    if (archive.openArchive(firmwarePath_) && archive.readEntry(PackageArchive::kArchive, entry)) {
        const std::int64_t count = entry.index;
        for (std::int64_t i = 0;
             i < count && !interruption::requested() && archive.readEntry(i, entry); ++i) {
            unreached.erase(entry.name);
            if (!archive.extractEntry(i, entry.name))
                clean = archive.discardEntry(entry.name) && clean;
        }
        archive.closeArchive();
    }
    if (interruption::requested()) {
        LOG_W("unpacking was cancelled: %s", text::narrow(firmwarePath_).c_str());
        return false;
    }
    for (const std::wstring& name : unreached)
        clean = archive.discardEntry(name) && clean;
    return clean;
}

// False, and the run log says why, if it stays unknown what belongs where.
bool FirmwareManager::loadCfg() {
    const std::wstring path = tempDir_ + kBurnCfg;
    if (!fileutil::fileExists(path)) {
        if (hasItem(kBurnCfg))
            LOG_E("the package's burn.cfg cannot be unpacked");
        return !hasItem(kBurnCfg);
    }
    if (cfgItems_.load(path) == BurnCfg::Load::kUnreadable)
        return false;
    const UnpackDirectory directory(tempDir_);
    for (const BurnItem& item : cfgItems_.getItems()) {
        // Such a name leads to what did not come out of the package.
        if (lists(item.file) && !directory.holds(item.file) &&
            fileutil::fileExists(tempDir_ + item.file)) {
            LOG_E("an item of burn.cfg leads out of the unpack directory: %s",
                  text::narrow(item.file).c_str());
            return false;
        }
    }
    return true;
}

std::vector<BurnItem> FirmwareManager::getBurnItems() const {
    std::vector<BurnItem> items;
    if (!unpacked_)
        return items;
    // Marks are set on a copy: several devices ask at the same time.
    BurnCfg cfg = cfgItems_;
    appendFixedItem(kFlashboot, kFlashbootAddr, cfg, items);
    appendFixedItem(hasItem(kMaster) ? kMaster : kVorlan, kMainAddr, cfg, items);
    appendFixedItem(kScript, kScriptAddr, cfg, items);
    appendFixedItem(kRespak, kRespakAddr, cfg, items);
    appendFixedItem(kConfig, kConfigAddr, cfg, items);

    const UnpackDirectory directory(tempDir_);
    for (const BurnItem& item : cfg.getItems()) {
        if (item.used != 0)
            continue;
        if (directory.holds(item.file) || lists(item.file))
            items.push_back({tempDir_ + item.file, item.addr});
        else
            LOG_W("the package has no entry for an item of burn.cfg: %s",
                  text::narrow(item.file).c_str());
    }
    return items;
}

void FirmwareManager::appendFixedItem(const std::wstring& name, std::uint32_t defaultAddr,
                                      BurnCfg& cfg, std::vector<BurnItem>& items) const {
    if (!hasItem(name))
        return;
    std::uint32_t addr = cfg.getAddr(name);
    if (addr == BurnCfg::kNoAddress)
        addr = defaultAddr;
    else
        cfg.markUsed(name);
    items.push_back({tempDir_ + name, addr});
}

std::wstring FirmwareManager::getBurnerPath() const {
    return unpacked_ && hasItem(kBurner) ? tempDir_ + kBurner : std::wstring();
}
