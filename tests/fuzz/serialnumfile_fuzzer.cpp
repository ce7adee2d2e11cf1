// Any bytes as a serial number file: whatever loads is handed out as it stands in the file, and a
// mark changes its flag and nothing else.
#include <cstdint>
#include <string>

#include "fuzzing.h"
#include "storage/serialnumfile.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    static const TemporaryDirectory directory;
    std::string expected(reinterpret_cast<const char*>(data), size);
    const std::string path = directory.write("sn.csv", expected);

    SerialNumFile file;
    if (!file.load(text::widen(path))) {
        require(file.isLoaded() == 0 && file.takeNext() == nullptr, "nothing loaded");
        return 0;
    }
    std::uint64_t end = 0;
    while (auto* const record = file.takeNext()) {
        const std::string row = record->sn + ",0";
        require(record->offset >= end, "order of the file");
        require(expected.compare(record->offset, row.size(), row) == 0, "row as it stands");
        end = record->offset + row.size();
        if (end == expected.size())
            expected += "\r\n";
        require(expected.compare(end, 2, "\r\n") == 0, "line end");
        expected[end - 1] = '1';
        file.markBurned(record);
    }
    require(directory.read("sn.csv") == expected, "marks and nothing else");
    return 0;
}
