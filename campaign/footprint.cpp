#include "campaign/footprint.h"

#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace campaign {
namespace {

std::size_t entriesOf(const char* directory) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory),
                                                  std::filesystem::directory_iterator()));
}

std::size_t residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        std::size_t size = 0;
        if (word == "VmRSS:" && status >> size)
            return size;
    }
    return 0;
}

}  // namespace

Footprint footprint() {
    return {residentKiB(), ::mallinfo2().uordblks / 1024, entriesOf("/proc/self/task"),
            entriesOf("/proc/self/fd")};
}

}  // namespace campaign
