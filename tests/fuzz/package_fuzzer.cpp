// Any bytes as a firmware package: lists and unpacks what they hold, and ends the program if
// anything appears outside the unpack directory or an entry grows beyond what it declared.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "fuzzing.h"
#include "support/temporarydirectory.h"
#include "vorlan/firmware/entryname.h"
#include "vorlan/firmware/packagearchive.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kSizeLimit = 1 << 20;  // bytes that one input may make us write
constexpr std::int64_t kEntryLimit = 100;

void extractAll(PackageArchive& archive, std::int64_t count, const fs::path& unpacked) {
    std::uint64_t total = 0;
    PackageEntry entry;
    for (std::int64_t i = 0; i < count && archive.readEntry(i, entry); ++i) {
        require(entry.name.size() <= PackageArchive::kNameLimit, "no over-long name");
        require(entryname::makeSafe(entry.name) == entry.name, "safe names only");
        if (entry.size > kSizeLimit - total)
            return;
        total += entry.size;
        if (!archive.extractEntry(i, entry.name))
            archive.discardEntry(entry.name);
    }
    for (const auto& file : fs::recursive_directory_iterator(unpacked)) {
        require(file.is_regular_file() || file.is_directory(), "files and folders only");
        require(file.is_directory() || file.file_size() <= total, "no more than declared");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    static const TemporaryDirectory directory;
    const fs::path work = directory.path() / "work";
    const fs::path unpacked = work / "unpack";
    writeContent(work / "package.zip", std::string(reinterpret_cast<const char*>(data), size));
    fs::create_directory(unpacked);

    PackageArchive archive;
    PackageEntry entry;
    archive.setExtractDir(unpacked.wstring());
    if (archive.openArchive((work / "package.zip").wstring()) &&
        archive.readEntry(PackageArchive::kArchive, entry))
        extractAll(archive, std::min(entry.index, kEntryLimit), unpacked);
    archive.closeArchive();

    fs::remove_all(unpacked);
    fs::remove(work / "package.zip");
    require(fs::remove(work), "nothing beside the unpack directory");  // only works if empty
    require(fs::is_empty(directory.path()), "nothing above the unpack directory");
    return 0;
}
