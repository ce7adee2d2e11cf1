#include "vorlan/firmware/firmwaremanager.h"

#include <cstdint>

#include "utils/fileutil.h"
#include "utils/text.h"
#include "utils/trace.h"
#include "vorlan/firmware/entryname.h"
#include "vorlan/firmware/packagearchive.h"
#include "vorlan/firmware/unpackdirectory.h"

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

}  // namespace

bool FirmwareManager::unpack(const std::wstring& directory) {
    if (!validate())
        return false;
    clearTempDir();
    tempDir_ = directory;
    unpacked_ = extractAll();
    cfgItems_.clear();
    if (!unpacked_)
        return false;
    const std::wstring cfgPath = tempDir_ + kBurnCfg;
    if (fileutil::fileExists(cfgPath))
        cfgItems_.load(cfgPath);
    return true;
}

bool FirmwareManager::validate() {
    itemNames_.clear();
    PackageArchive archive;
    PackageEntry entry;
    if (!archive.openArchive(firmwarePath_) || !archive.readEntry(PackageArchive::kArchive, entry))
        return false;
    const std::int64_t count = entry.index;
    std::uint64_t declared = 0;
    std::size_t steps = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        // A list that breaks off does not tell what would be missing.
        if (!archive.readEntry(i, entry))
            return false;
        if (entry.size > kDeclaredLimit - declared) {
            TRACE("package declares more than 1 GiB\n");
            return false;
        }
        declared += entry.size;
        steps += stepsOf(entry.name);
        if (steps > kStepLimit) {
            TRACE("package names more than %zu files and directories\n", kStepLimit);
            return false;
        }
        itemNames_.insert(entry.name);
    }
    archive.closeArchive();
    return hasItem(kFlashboot) && (hasItem(kVorlan) || hasItem(kMaster));
}

void FirmwareManager::clearTempDir() {
    fileutil::removePath(tempDir_);
}

// False if some name of the package now stands for a file of an older one.
bool FirmwareManager::extractAll() {
    PackageArchive archive;
    PackageEntry entry;
    std::set<std::wstring> unreached = itemNames_;
    bool clean = true;
    archive.setExtractDir(tempDir_);
    if (archive.openArchive(firmwarePath_) && archive.readEntry(PackageArchive::kArchive, entry)) {
        const std::int64_t count = entry.index;
        for (std::int64_t i = 0; i < count && archive.readEntry(i, entry); ++i) {
            unreached.erase(entry.name);
            if (!archive.extractEntry(i, entry.name))
                clean = archive.discardEntry(entry.name) && clean;
        }
        archive.closeArchive();
    }
    for (const std::wstring& name : unreached)
        clean = archive.discardEntry(name) && clean;
    return clean;
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
        if (directory.holds(item.file))
            items.push_back({tempDir_ + item.file, item.addr});
        else
            TRACE("burn.cfg: no such file, name=%s\n", text::narrow(item.file).c_str());
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
