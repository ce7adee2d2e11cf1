// A fresh directory that goes away with its owner. The program's own paths are relative to the
// current directory, so a test usually works inside one.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

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

  private:
    std::filesystem::path path_;
    std::filesystem::path previous_;
};

// A file's bytes; empty if it cannot be read.
inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeContent(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::absolute(path).parent_path());
    // Some file systems flush to the disk what takes the place of old content.
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary) << content;
}
