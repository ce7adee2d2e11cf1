// Any bytes as the file "tag_map": what was read is written in a form that reads the same, and a
// count of entries that are not there makes none.
#include <cstdint>
#include <string_view>

#include "fuzzing.h"
#include "storage/archive.h"
#include "storage/usbtagmap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    UsbTagMap tags;
    ArchiveReader archive(std::string_view(reinterpret_cast<const char*>(data), size));
    tags.Serialize(archive);
    ArchiveWriter written;
    tags.Serialize(written);

    ArchiveReader counted(written.bytes());
    std::uint32_t count = 0;
    counted.readUint32(count);
    constexpr std::size_t kSmallestEntry = 7;  // an index and three strings of a length byte each
    require(count <= size / kSmallestEntry, "no entries that are not there");

    UsbTagMap again;
    ArchiveReader reread(written.bytes());
    again.Serialize(reread);
    ArchiveWriter rewritten;
    again.Serialize(rewritten);
    require(!reread.failed() && rewritten.bytes() == written.bytes(),
            "what was written reads the same");
    return 0;
}
