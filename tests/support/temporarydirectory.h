// A fresh directory that goes away with its owner. The program's own paths are relative to the
// current directory, so a test often works inside one.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

// A file's bytes; empty if it cannot be read.
inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Makes the file anew, with its directory.
inline void writeContent(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::absolute(path).parent_path());
    // Some file systems flush to the disk what takes the place of old content.
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary) << content;
}

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::random_device random;
        do {
            path_ = std::filesystem::temp_directory_path() / ("vorlan-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(path_));
    }

    ~TemporaryDirectory() {
        std::error_code error;
        if (!previous_.empty())
            std::filesystem::current_path(previous_, error);
        std::filesystem::remove_all(path_, error);
    }

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Makes it the current directory until the end.
    void enter() {
        previous_ = std::filesystem::current_path();
        std::filesystem::current_path(path_);
    }

    // Writes a file in it, into the same file if there is one, and returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        const std::filesystem::path file = path_ / name;
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }

    // Content of a file in it.
    std::string read(const std::string& name) const { return contentOf(path_ / name); }

  private:
    std::filesystem::path path_;
    std::filesystem::path previous_;
};

// One that is the current directory as long as it exists.
class EnteredDirectory : public TemporaryDirectory {
  public:
    EnteredDirectory() { enter(); }
};
