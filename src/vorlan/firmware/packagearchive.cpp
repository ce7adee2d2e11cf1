#include "vorlan/firmware/packagearchive.h"

#include <unzip.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <limits>
#include <system_error>
#include <vector>

#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/firmware/entryname.h"

#define LOG_TAG "Firmware"

namespace {

constexpr std::size_t kBlockSize = 1 << 18;  // bytes; smaller ones cost speed

constexpr uLong kEncrypted = 0x0001;    // general purpose flag
constexpr uLong kDosReadOnly = 0x0001;  // external attributes
constexpr uLong kUnixTypeMask = 0170000UL << 16;
constexpr uLong kUnixRegular = 0100000UL << 16;

voidpf openPackage(voidpf /*opaque*/, const void* path, int /*mode*/) {
    return fileutil::openFile(*static_cast<const std::wstring*>(path), "rb").release();
}

// Whether it is a plain file by what the archive stores: no link, no device.
bool isPlainFile(const unz_file_info64& info) {
    const uLong type = info.external_fa & kUnixTypeMask;
    return type == 0 || type == kUnixRegular;
}

// Why an entry is not unpacked; null if it can be tried.
const char* refusal(const unz_file_info64& info) {
    if ((info.flag & kEncrypted) != 0)
        return "encrypted";
    if (info.compression_method != 0 && info.compression_method != Z_DEFLATED)
        return "unknown method";
    if (!isPlainFile(info))
        return "not a plain file";
    return nullptr;
}

std::filesystem::file_time_type fileTime(const tm_unz& stored) {
    std::tm local{};
    local.tm_sec = static_cast<int>(stored.tm_sec);
    local.tm_min = static_cast<int>(stored.tm_min);
    local.tm_hour = static_cast<int>(stored.tm_hour);
    local.tm_mday = static_cast<int>(stored.tm_mday);
    local.tm_mon = static_cast<int>(stored.tm_mon);
    local.tm_year = static_cast<int>(stored.tm_year) - 1900;
    local.tm_isdst = -1;
    return std::chrono::file_clock::from_sys(
        std::chrono::system_clock::from_time_t(std::mktime(&local)));
}

// Copies the opened entry, which has to give exactly the `size` bytes that it declares.
bool copyOpened(unzFile archive, std::uint64_t size, std::FILE* file,
                const std::function<void(std::uint64_t)>& onBytes) {
    std::vector<char> block(static_cast<std::size_t>(std::min<std::uint64_t>(size, kBlockSize)));
    while (size > 0) {
        if (interruption::requested())
            return false;
        const int count =
            unzReadCurrentFile(archive, block.data(), static_cast<unsigned>(block.size()));
        if (count <= 0 || static_cast<std::uint64_t>(count) > size)
            return false;
        const auto length = static_cast<std::size_t>(count);
        if (std::fwrite(block.data(), 1, length, file) != length)
            return false;
        size -= length;
        onBytes(length);
    }
    return true;
}

bool copyCurrent(unzFile archive, std::uint64_t size, std::FILE* file,
                 const std::function<void(std::uint64_t)>& onBytes) {
    if (unzOpenCurrentFile(archive) != UNZ_OK)
        return false;
    const bool copied = copyOpened(archive, size, file, onBytes);
    // The checksum is looked at only here.
    return unzCloseCurrentFile(archive) == UNZ_OK && copied;
}

}  // namespace

void PackageArchive::Closer::operator()(void* archive) const {
    unzClose(archive);
}

bool PackageArchive::openArchive(const std::wstring& path) {
    closeArchive();
    // A pipe or a device would keep the caller waiting.
    std::error_code error;
    if (!std::filesystem::is_regular_file(fileutil::nativePath(path), error))
        return false;
    zlib_filefunc64_def functions;
    fill_fopen64_filefunc(&functions);
    functions.zopen64_file = openPackage;
    archive_.reset(unzOpen2_64(&path, &functions));
    unz_global_info64 info;
    if (archive_ == nullptr || unzGetGlobalInfo64(archive_.get(), &info) != UNZ_OK) {
        closeArchive();
        return false;
    }
    count_ = static_cast<std::int64_t>(
        std::min<std::uint64_t>(info.number_entry, std::numeric_limits<std::int64_t>::max()));
    return true;
}

void PackageArchive::setExtractDir(const std::wstring& directory) {
    directory_ = UnpackDirectory(directory);
}

bool PackageArchive::readEntry(std::int64_t index, PackageEntry& entry) {
    if (index == kArchive) {
        entry = {.index = count_, .name = {}};
        return archive_ != nullptr;
    }
    unz_file_info64 info;
    if (!goTo(index) || unzGetCurrentFileInfo64(archive_.get(), &info, nullptr, 0, nullptr, 0,
                                                nullptr, 0) != UNZ_OK)
        return false;
    std::string bytes(info.size_filename, '\0');
    if (unzGetCurrentFileInfo64(archive_.get(), nullptr, bytes.data(), info.size_filename, nullptr,
                                0, nullptr, 0) != UNZ_OK)
        return false;
    entry = {
        .index = index, .name = {}, .isText = text::isUtf8(bytes), .size = info.uncompressed_size};
    const std::wstring name = text::widen(bytes);
    if (name.size() > kNameLimit)
        LOG_W("name of entry %lld refused: %zu characters", static_cast<long long>(index),
              name.size());
    else
        entry.name = entryname::makeSafe(name);
    return true;
}

bool PackageArchive::extractEntry(std::int64_t index, const std::wstring& name) {
    if (goTo(index) && extractCurrent(name))
        return true;
    LOG_E("cannot unpack entry %lld, name=%s", static_cast<long long>(index),
          text::narrow(name).c_str());
    return false;
}

bool PackageArchive::discardEntry(const std::wstring& name) const {
    return directory_.discardFile(name);
}

void PackageArchive::closeArchive() {
    archive_.reset();
    count_ = 0;
    current_ = -1;
}

// The archive can only be walked forward, or from its start again.
bool PackageArchive::goTo(std::int64_t index) {
    if (index < 0 || index >= count_)
        return false;
    if (current_ < 0 || index < current_) {
        current_ = -1;
        if (unzGoToFirstFile(archive_.get()) != UNZ_OK)
            return false;
        current_ = 0;
    }
    for (; current_ < index; ++current_) {
        if (unzGoToNextFile(archive_.get()) != UNZ_OK) {
            current_ = -1;
            return false;
        }
    }
    return true;
}

bool PackageArchive::extractCurrent(const std::wstring& name) {
    if (entryname::isDirectory(name))
        return directory_.makeDirectory(name);
    unz_file_info64 info;
    if (unzGetCurrentFileInfo64(archive_.get(), &info, nullptr, 0, nullptr, 0, nullptr, 0) !=
        UNZ_OK)
        return false;
    if (const char* reason = refusal(info)) {
        LOG_E("entry refused: %s", reason);
        return false;
    }
    const UnpackDirectory::Attributes attributes{fileTime(info.tmu_date),
                                                 (info.external_fa & kDosReadOnly) != 0};
    return directory_.writeFile(name, attributes, [&](std::FILE* file) {
        return copyCurrent(archive_.get(), info.uncompressed_size, file, onBytes_);
    });
}
