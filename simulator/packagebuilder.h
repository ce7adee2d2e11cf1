// Makes firmware packages, sound ones for the demo and ones that no honest tool would write.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace simulator {

// One entry. What is left at its default is what a plain archiver writes.
struct PackageFile {
    std::string name = {};  // bytes as they go into the archive; NUL is possible
    std::string content = {};
    bool stored = false;  // not deflated
    bool readOnly = false;
    std::uint32_t unixMode = 0;  // as in st_mode; 0: none stored
    std::uint32_t dosDate = 0;   // date in the upper 16 bits, time in the lower; 0: 2024-05-06

    // Lies: what the archive says in place of the truth.
    std::optional<std::uint64_t> declaredSize = {};
    std::optional<std::uint32_t> declaredCrc = {};
    std::optional<std::uint16_t> declaredMethod = {};
    std::optional<std::uint16_t> declaredFlags = {};
};

class PackageBuilder {
  public:
    PackageBuilder& add(PackageFile file);
    PackageBuilder& add(const std::string& name, const std::string& content);

    // Writes the archive. Throws std::runtime_error if that fails.
    void write(const std::filesystem::path& path) const;

  private:
    std::vector<PackageFile> files_;
};

}  // namespace simulator
