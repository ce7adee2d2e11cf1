// Any bytes as the file "global_storage": what was read is written in a form that reads the same.
#include <cstdint>
#include <string_view>

#include "fuzzing.h"
#include "storage/archive.h"
#include "storage/globalstorage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    GlobalStorage storage;
    ArchiveReader archive(std::string_view(reinterpret_cast<const char*>(data), size));
    storage.Serialize(archive);
    require(archive.failed() || size >= 5, "bytes for a length and an address");

    ArchiveWriter written;
    storage.Serialize(written);
    GlobalStorage again;
    ArchiveReader reread(written.bytes());
    again.Serialize(reread);
    require(!reread.failed() && again.getSnFilePath() == storage.getSnFilePath() &&
                again.getSnBurnAddr() == storage.getSnBurnAddr(),
            "what was written reads the same");
    return 0;
}
