// File system operations on the program's paths. They hold no state, never throw and report failure
// by their result.
//
// A path that begins with "/" is the operator's and is taken as it stands. All others are the
// program's own, such as ".\temp_image\" or "log\run.log": relative to the current directory, with
// the backslash as separator. They keep that form wherever they are stored, joined or shown.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace fileutil {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// The path as the system takes it. Every call of the system goes through here, and nobody but this
// and inCurrentDirectory converts paths.
std::string nativePath(std::wstring_view path);
std::string nativePath(std::string_view path);

// The absolute path, in the system's form, of a path of the program that brings its own leading
// backslash: L"\\images\\burner.img" gives L"/home/op/images/burner.img". Begins with "." instead
// if the current directory has gone.
std::wstring inCurrentDirectory(std::wstring_view path);

// As fopen, with a path of the program. A directory counts as not opened. Programs that the process
// starts do not inherit the file.
FilePtr openFile(std::wstring_view path, const char* mode);
FilePtr openFile(std::string_view path, const char* mode);

// Size in bytes of an open file, which is then at its start; nothing if it has none, like a pipe,
// or one that does not fit.
std::optional<std::uint32_t> sizeOf(std::FILE* file);

// Whether a file or directory of that path exists; false for an empty path.
bool fileExists(const std::wstring& path);

// False also for a path that does not exist.
bool isDirectory(const std::wstring& path);

// Creates a directory with its parents. True if it exists in the end.
bool createDirectories(const std::wstring& path);

// Deletes a file, or a directory with all it holds, read-only files included. A link is removed,
// not what it points to. What cannot be deleted stays, and so does the root of the disk.
void removePath(const std::wstring& path);

// Gives a file or directory another path, where it takes the place of a file. True if it is there.
bool movePath(std::string_view from, std::string_view to);

// All bytes of a file; nothing if it cannot be opened or read to its end.
std::optional<std::string> readBytes(const std::wstring& path);

// The bytes of a text file as its text: CR LF is a line feed, and the first NUL byte ends it.
std::string textOf(std::string bytes);

// The whole text of a file. Empty if it cannot be read.
std::string readFile(const std::wstring& path);

// Whether some directory directly below `parent` whose name begins with `prefix` holds `file`, a
// relative path that brings its own leading backslash. An operation of this layer that looks for a
// driver's files; on this system the check of the driver needs none.
bool findInSubdirs(const std::wstring& parent, const std::wstring& prefix,
                   const std::wstring& file);

// Whether the file can be opened for reading; if not, the trace says why. An operation of this
// layer that no page calls now.
bool isFileReadable(const std::wstring& path);

}  // namespace fileutil
