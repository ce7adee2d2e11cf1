// An image in memory behind a C file that goes wrong while it is read.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

class ImageFile {
  public:
    // Read for the `pass`th time from its start, the file ends at byte `at`; with an `error`, a
    // value of errno, reading on from there fails with it instead.
    ImageFile(std::string content, int pass, std::size_t at, int error);
    ~ImageFile();
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    std::FILE* get() const { return file_; }

  private:
    struct Callbacks;

    const std::string content_;
    const int badPass_;
    const std::size_t at_;
    const int error_;
    int pass_ = 0;
    std::size_t position_ = 0;
    std::FILE* file_;
};
