// Any bytes as the file "global_storage": what was read is written in a form that reads the same.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "storage/archive.h"
#include "storage/globalstorage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    GlobalStorage storage;
    ArchiveReader archive(std::string_view(reinterpret_cast<const char*>(data), size));
    storage.Serialize(archive);
    if (!archive.failed() && size < 5)
        std::abort();  // too few bytes for a length and an address

    ArchiveWriter written;
    storage.Serialize(written);
    GlobalStorage again;
    ArchiveReader reread(written.bytes());
    again.Serialize(reread);
    if (reread.failed() || again.getSnFilePath() != storage.getSnFilePath() ||
        again.getSnBurnAddr() != storage.getSnBurnAddr())
        std::abort();
    return 0;
}
