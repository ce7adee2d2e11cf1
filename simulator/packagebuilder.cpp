#include "simulator/packagebuilder.h"

#include <zip.h>
#include <zlib.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace simulator {
namespace {

constexpr std::uint32_t kDefaultDate = 0x58A66000;  // 2024-05-06 12:00
constexpr std::uint64_t kFourGigabytes = 0xFFFFFFFF;
constexpr std::string_view kLocalHeader("PK\x03\x04", 4);
constexpr std::string_view kCentralHeader("PK\x01\x02", 4);

void require(bool done) {
    if (!done)
        throw std::runtime_error("cannot write the package");
}

const Bytef* bytesOf(const std::string& text) {
    return reinterpret_cast<const Bytef*>(text.data());
}

// The content as it lies in the archive.
std::string pack(const std::string& content) {
    z_stream stream{};
    require(deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, MAX_MEM_LEVEL,
                         Z_DEFAULT_STRATEGY) == Z_OK);
    std::string packed(deflateBound(&stream, static_cast<uLong>(content.size())), '\0');
    stream.next_in = const_cast<Bytef*>(bytesOf(content));
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const bool finished = deflate(&stream, Z_FINISH) == Z_STREAM_END;
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    require(finished);
    return packed;
}

// The library takes names that end at a NUL, so such a name goes in with this byte in its place.
constexpr char kNulStandIn = '\x01';

std::string nameForLibrary(const std::string& name) {
    std::string result = name;
    for (char& c : result) {
        if (c == '\0')
            c = kNulStandIn;
    }
    return result;
}

void addTo(zipFile archive, const PackageFile& file) {
    zip_fileinfo info{};
    info.dosDate = file.dosDate != 0 ? file.dosDate : kDefaultDate;
    info.external_fa = (static_cast<uLong>(file.unixMode) << 16) | (file.readOnly ? 1U : 0U);
    const auto crc = static_cast<std::uint32_t>(
        crc32(0, bytesOf(file.content), static_cast<uInt>(file.content.size())));
    // The library is handed finished data, so that size and checksum can be told freely.
    const std::uint64_t size = file.declaredSize.value_or(file.content.size());
    const std::string data = file.stored ? file.content : pack(file.content);
    require(zipOpenNewFileInZip2_64(archive, nameForLibrary(file.name).c_str(), &info, nullptr, 0,
                                    nullptr, 0, nullptr, file.stored ? 0 : Z_DEFLATED,
                                    Z_DEFAULT_COMPRESSION, 1,
                                    size >= kFourGigabytes ? 1 : 0) == ZIP_OK);
    require(zipWriteInFileInZip(archive, data.data(), static_cast<unsigned>(data.size())) ==
            ZIP_OK);
    require(zipCloseFileInZipRaw64(archive, size, file.declaredCrc.value_or(crc)) == ZIP_OK);
}

void putLittleEndian(std::string& bytes, std::size_t at, std::uint16_t value) {
    bytes.at(at) = static_cast<char>(value & 0xFF);
    bytes.at(at + 1) = static_cast<char>(value >> 8);
}

// Calls change(index, offset of the header, offset of its name) for the headers of one kind, one
// after the other.
template <typename Change>
void forEachHeader(std::string& bytes, std::string_view signature, std::size_t nameOffset,
                   std::size_t count, Change change) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        at = bytes.find(signature, at);
        require(at != std::string::npos);
        change(i, at, at + nameOffset);
        at += nameOffset;
    }
}

}  // namespace

PackageBuilder& PackageBuilder::add(PackageFile file) {
    files_.push_back(std::move(file));
    return *this;
}

PackageBuilder& PackageBuilder::add(const std::string& name, const std::string& content) {
    return add({.name = name, .content = content});
}

void PackageBuilder::write(const std::filesystem::path& path) const {
    zipFile archive = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
    require(archive != nullptr);
    try {
        for (const PackageFile& file : files_)
            addTo(archive, file);
    } catch (...) {
        zipClose(archive, nullptr);
        throw;
    }
    require(zipClose(archive, nullptr) == ZIP_OK);

    std::ifstream in(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), {}};
    in.close();
    const auto patch = [&](std::size_t flagsOffset) {
        return [&, flagsOffset](std::size_t i, std::size_t header, std::size_t name) {
            const PackageFile& file = files_[i];
            bytes.replace(name, file.name.size(), file.name);
            if (file.declaredFlags)
                putLittleEndian(bytes, header + flagsOffset, *file.declaredFlags);
            if (file.declaredMethod)
                putLittleEndian(bytes, header + flagsOffset + 2, *file.declaredMethod);
        };
    };
    forEachHeader(bytes, kLocalHeader, 30, files_.size(), patch(6));
    forEachHeader(bytes, kCentralHeader, 46, files_.size(), patch(8));
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace simulator
