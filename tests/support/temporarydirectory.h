// A fresh directory for one test, gone with all it holds at the end of the scope.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryDirectory {
  public:
    enum class Use { kOnly, kEnter };

    // With kEnter it is the current directory as long as it exists.
    explicit TemporaryDirectory(Use use = Use::kOnly) : previous_(std::filesystem::current_path()) {
        std::string name = (std::filesystem::temp_directory_path() / "vorlan-test-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        path_ = name;
        if (use == Use::kEnter)
            std::filesystem::current_path(path_);
    }

    ~TemporaryDirectory() {
        std::error_code error;
        std::filesystem::current_path(previous_, error);
        std::filesystem::remove_all(path_, error);
    }

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Path of a file in it, with the content it is to have.
    std::string write(const std::string& name, const std::string& content) const {
        const std::filesystem::path file = path_ / name;
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }

    // Content of a file in it.
    std::string read(const std::string& name) const {
        std::ifstream file(path_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::filesystem::path previous_;
    std::filesystem::path path_;
};
