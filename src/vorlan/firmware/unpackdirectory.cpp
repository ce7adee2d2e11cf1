#include "vorlan/firmware/unpackdirectory.h"

#include <system_error>

#include "utils/text.h"
#include "vorlan/firmware/entryname.h"

namespace fs = std::filesystem;

namespace {

// Content on its way to its name. A run that was killed may have left one behind, so the name is
// always the same and taken over; entries of that name are refused.
constexpr const wchar_t* kUnfinished = L"~unpacking.tmp";

fs::file_type typeOf(const fs::path& path) {
    std::error_code error;
    return fs::symlink_status(path, error).type();
}

bool makeDirectories(const fs::path& path) {
    std::error_code error;
    fs::create_directories(path, error);
    return fs::is_directory(path, error);
}

bool fill(const fs::path& path, const std::function<bool(std::FILE*)>& write) {
    // "x": a file that was not there before, never one that a link leads to.
    fileutil::FilePtr file = fileutil::openFile(path.string(), "wbx");
    if (file == nullptr)
        return false;
    // The writer brings blocks of its own.
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    const bool written = write(file.get());
    // A full disk may show only here.
    return std::fclose(file.release()) == 0 && written;
}

void apply(const fs::path& path, const UnpackDirectory::Attributes& attributes) {
    std::error_code error;
    fs::last_write_time(path, attributes.time, error);
    if (attributes.readOnly) {
        fs::permissions(path,
                        fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                        fs::perm_options::remove, error);
    }
}

}  // namespace

UnpackDirectory::UnpackDirectory(const std::wstring& path) : root_(fileutil::nativePath(path)) {}

std::optional<fs::path> UnpackDirectory::locate(const std::wstring& name) const {
    const auto steps = entryname::components(name);
    if (!steps || root_.empty() || steps->front() == kUnfinished)
        return std::nullopt;
    fs::path path = root_;
    for (const std::wstring& step : *steps) {
        if (path != root_ && typeOf(path) == fs::file_type::symlink)
            return std::nullopt;
        path /= text::narrow(step);
    }
    return path;
}

bool UnpackDirectory::contains(const std::wstring& path) const {
    std::error_code error;
    const fs::path file = fs::canonical(fileutil::nativePath(path), error);
    if (error || root_.empty())
        return false;
    for (fs::path above = file.parent_path();; above = above.parent_path()) {
        if (fs::equivalent(above, root_, error))
            return true;
        if (above == above.parent_path())
            return false;
    }
}

bool UnpackDirectory::holds(const std::wstring& name) const {
    const auto path = locate(name);
    std::error_code error;
    return path && fs::exists(*path, error) && typeOf(*path) != fs::file_type::symlink;
}

bool UnpackDirectory::makeDirectory(const std::wstring& name) const {
    const auto path = locate(name);
    return path && typeOf(*path) != fs::file_type::symlink && makeDirectories(*path);
}

bool UnpackDirectory::writeFile(const std::wstring& name, const Attributes& attributes,
                                const std::function<bool(std::FILE*)>& write) const {
    const auto path = locate(name);
    if (!path || !makeDirectories(path->parent_path()))
        return false;
    const fs::path unfinished = root_ / text::narrow(kUnfinished);
    std::error_code error;
    fs::remove_all(unfinished, error);
    if (fill(unfinished, write)) {
        apply(unfinished, attributes);
        fs::rename(unfinished, *path, error);
        if (!error)
            return true;
    }
    fs::remove(unfinished, error);
    return false;
}

bool UnpackDirectory::discardFile(const std::wstring& name) const {
    const auto path = locate(name);
    if (!path || entryname::isDirectory(name) || typeOf(*path) == fs::file_type::directory)
        return true;
    std::error_code error;
    fs::remove(*path, error);
    const fs::file_type left = typeOf(*path);
    // Where even its type cannot be read, nobody can open it.
    return left == fs::file_type::not_found || left == fs::file_type::none;
}
