// The directory that a package is unpacked into. Every entry name is resolved here, and no name
// leads outside: not through "..", not through a link that lies in the directory.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "utils/fileutil.h"

class UnpackDirectory {
  public:
    UnpackDirectory() = default;

    // `path` is a path of the program; a separator at its end makes no difference. It need not
    // exist.
    explicit UnpackDirectory(const std::wstring& path);

    // Whether the file of that path lies here or in a directory below, by whatever spelling of the
    // path or link it is reached.
    bool contains(const std::wstring& path) const;

    // Whether a file or directory of that entry name is here, and is itself no link.
    bool holds(const std::wstring& name) const;

    // Makes the directory of that entry name, with its parents.
    bool makeDirectory(const std::wstring& name) const;

    // What `writeFile` takes on besides the content.
    struct Attributes {
        std::filesystem::file_time_type time;
        bool readOnly = false;
    };

    // Gives the file of that entry name the content that `write` puts into it, in place of whatever
    // file or link had the name before. The file appears whole or not at all: until `write` has
    // returned true the content lies under another name. Parents are made as needed. A directory is
    // never replaced. On failure the old file is still there.
    bool writeFile(const std::wstring& name, const Attributes& attributes,
                   const std::function<bool(std::FILE*)>& write) const;

    // Sees to it that no file or link of that entry name is here; directories stay. False if it
    // could not be removed.
    bool discardFile(const std::wstring& name) const;

  private:
    // The native path of an entry name; nothing if the name leads elsewhere or through a link.
    std::optional<std::filesystem::path> locate(const std::wstring& name) const;

    std::filesystem::path root_;
};
