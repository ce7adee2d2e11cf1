#include "demo/demopackage.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace simulator {
namespace {

constexpr std::uint32_t kRespakAddress = 0x200000;  // not where it goes by default
constexpr std::uint32_t kVoiceAddress = 0x3C0000;

constexpr const char* kBurnCfg = R"({
    "burn_items": [
        {"name": "voice.bin", "addr": "0x3C0000"},
        {"name": "respak.bin", "addr": "200000"}
    ]
})";

}  // namespace

SamplePackage demoPackage() {
    return {{{"flashboot.bin", 0x0, sampleBytes(1, 60'000)},
             {"master.bin", 0x10000, sampleBytes(2, 1'700'001)},
             {"respak.bin", kRespakAddress, sampleBytes(3, 1'048'576)},
             {"config.bin", 0x7FF000, sampleBytes(4, 3'000)},
             {"voice.bin", kVoiceAddress, sampleBytes(5, 250'000)}},
            sampleBytes(6, 20 * 2048 + 77),
            kBurnCfg};
}

std::vector<std::uint8_t> demoProxy() {
    return sampleBytes(7, 10 * 2048 + 333);
}

std::string demoSerialNumber(unsigned index) {
    char number[32];
    std::snprintf(number, sizeof number, "VRL2600%08u", index);
    return number;
}

std::string demoSerialNumbers(unsigned count) {
    std::string rows;
    for (unsigned i = 1; i <= count; ++i)
        rows += demoSerialNumber(i) + ",0\r\n";
    return rows;
}

bool writeDemoFiles(const SamplePackage& package, const std::string& packagePath,
                    const std::string& csvPath, unsigned serialNumbers) {
    std::ofstream csv(csvPath, std::ios::binary);
    csv << demoSerialNumbers(serialNumbers);
    std::filesystem::create_directories("ramloader");
    std::ofstream proxy("ramloader/flash_proxy.img", std::ios::binary);
    for (const std::uint8_t byte : demoProxy())
        proxy.put(static_cast<char>(byte));
    return csv.flush().good() && proxy.flush().good() && package.writeZip(packagePath);
}

}  // namespace simulator
