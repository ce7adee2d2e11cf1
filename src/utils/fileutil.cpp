#include "utils/fileutil.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/file.h"
#include "utils/text.h"
#include "utils/trace.h"

namespace fs = std::filesystem;

namespace fileutil {
namespace {

// The entries of a directory, taken before anything is deleted; empty if it cannot be read.
std::vector<fs::path> entriesOf(const fs::path& directory) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
        entries.push_back(it->path());
    return entries;
}

void removeNative(const fs::path& path) {
    std::error_code error;
    if (fs::symlink_status(path, error).type() == fs::file_type::directory) {
        // A package may have left a directory that lets nobody in.
        fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, error);
        for (const fs::path& entry : entriesOf(path))
            removeNative(entry);
    }
    fs::remove(path, error);
}

}  // namespace

std::string nativePath(std::wstring_view path) {
    return nativePath(text::narrow(path));
}

std::string nativePath(std::string_view path) {
    std::string native(path);
    if (!native.starts_with('/'))
        std::replace(native.begin(), native.end(), '\\', '/');
    return native;
}

std::wstring inCurrentDirectory(std::wstring_view path) {
    std::error_code error;
    std::string directory = fs::current_path(error).string();
    if (error)
        directory = ".";
    // The root of the disk is the one directory that ends with the separator.
    if (directory == "/")
        directory.clear();
    return text::widen(directory + nativePath(path));
}

FilePtr openFile(std::wstring_view path, const char* mode) {
    return openFile(text::narrow(path), mode);
}

FilePtr openFile(std::string_view path, const char* mode) {
    const std::string native = nativePath(path);
    std::error_code error;
    if (fs::is_directory(native, error)) {
        errno = EISDIR;
        return nullptr;
    }
    return FilePtr(platform::openStream(native, mode));
}

std::optional<std::uint32_t> sizeOf(std::FILE* file) {
    const long size = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
    if (size < 0 || size > std::int64_t{UINT32_MAX} || std::fseek(file, 0, SEEK_SET) != 0)
        return std::nullopt;
    return static_cast<std::uint32_t>(size);
}

bool fileExists(const std::wstring& path) {
    std::error_code error;
    return !path.empty() && fs::exists(nativePath(path), error);
}

bool isDirectory(const std::wstring& path) {
    std::error_code error;
    return fs::is_directory(nativePath(path), error);
}

bool createDirectories(const std::wstring& path) {
    std::error_code error;
    const fs::path native = nativePath(path);
    fs::create_directories(native, error);
    return fs::exists(native, error);
}

void removePath(const std::wstring& path) {
    std::string native = nativePath(path);
    // The root of the disk is never meant, and neither is an empty path.
    if (fs::path(native).lexically_normal().relative_path().empty())
        return;
    // Behind a trailing separator the system would look through a link at what it points to.
    while (native.ends_with('/'))
        native.pop_back();
    removeNative(native);
}

bool movePath(std::string_view from, std::string_view to) {
    std::error_code error;
    fs::rename(nativePath(from), nativePath(to), error);
    return !error;
}

std::optional<std::string> readBytes(const std::wstring& path) {
    const FilePtr file = openFile(path, "rb");
    if (file == nullptr)
        return std::nullopt;
    std::string bytes;
    char buffer[4096];
    for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0;)
        bytes.append(buffer, count);
    if (std::ferror(file.get()) != 0)
        return std::nullopt;
    return bytes;
}

std::string textOf(std::string bytes) {
    bytes.resize(std::min(bytes.size(), bytes.find('\0')));

    std::string content;
    content.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const bool endsLine = bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n';
        if (!endsLine)
            content.push_back(bytes[i]);
    }
    return content;
}

std::string readFile(const std::wstring& path) {
    return textOf(readBytes(path).value_or(""));
}

bool findInSubdirs(const std::wstring& parent, const std::wstring& prefix,
                   const std::wstring& file) {
    const std::string narrowPrefix = text::narrow(prefix);
    const std::string tail = nativePath(file);
    for (const fs::path& entry : entriesOf(nativePath(parent))) {
        std::error_code error;
        if (entry.filename().string().starts_with(narrowPrefix) && fs::is_directory(entry, error) &&
            fs::exists(entry.string() + tail, error))
            return true;
    }
    return false;
}

bool isFileReadable(const std::wstring& path) {
    if (openFile(path, "rb") != nullptr)
        return true;
    TRACE("error=%s\n", std::generic_category().message(errno).c_str());
    return false;
}

}  // namespace fileutil
