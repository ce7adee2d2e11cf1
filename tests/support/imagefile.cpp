#include "support/imagefile.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

struct ImageFile::Callbacks {
    static ssize_t read(void* cookie, char* buffer, std::size_t size) {
        ImageFile& file = *static_cast<ImageFile*>(cookie);
        if (file.position_ == 0)
            ++file.pass_;
        const bool bad = file.pass_ == file.badPass_;
        const std::size_t end = bad ? file.at_ : file.content_.size();
        if (bad && file.error_ != 0 && file.position_ == end) {
            errno = file.error_;
            return -1;
        }
        const std::size_t count = std::min(size, end - file.position_);
        file.content_.copy(buffer, count, file.position_);
        file.position_ += count;
        return static_cast<ssize_t>(count);
    }

    static int seek(void* cookie, off64_t* offset, int origin) {
        ImageFile& file = *static_cast<ImageFile*>(cookie);
        std::size_t position = static_cast<std::size_t>(*offset);
        if (origin == SEEK_CUR)
            position += file.position_;
        if (origin == SEEK_END)
            position += file.content_.size();
        file.position_ = position;
        *offset = static_cast<off64_t>(position);
        return 0;
    }
};

ImageFile::ImageFile(std::string content, int pass, std::size_t at, int error)
    : content_(std::move(content)),
      badPass_(pass),
      at_(at),
      error_(error),
      file_(fopencookie(this, "rb", {Callbacks::read, nullptr, Callbacks::seek, nullptr})) {
    if (file_ == nullptr)
        throw std::runtime_error("no file can be made");
    std::setvbuf(file_, nullptr, _IONBF, 0);  // a buffer would hide the second pass
}

ImageFile::~ImageFile() {
    std::fclose(file_);
}
