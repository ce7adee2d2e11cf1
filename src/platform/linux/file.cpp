#include "platform/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace platform {
namespace {

// Retries calls that a signal has interrupted.
template <typename Call>
auto restarting(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

bool sameInode(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool writeAll(int descriptor, std::uint64_t offset, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = restarting([&] {
            return ::pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        });
        if (written < 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return true;
}

// A new name is on the disk only when the directory is.
void syncDirectoryOf(const std::string& path) {
    std::string directory = std::filesystem::path(path).parent_path().string();
    if (directory.empty())
        directory = ".";
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

std::optional<File::Stamp> stampOfDescriptor(int descriptor) {
    struct stat info {};
    if (::fstat(descriptor, &info) != 0)
        return std::nullopt;
    const auto nanoseconds = [](const timespec& time) {
        return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    };
    return File::Stamp{info.st_dev, info.st_ino, static_cast<std::uint64_t>(info.st_size),
                       nanoseconds(info.st_mtim), nanoseconds(info.st_ctim)};
}

}  // namespace

std::string lastErrorText() {
    return std::generic_category().message(errno);
}

File::File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

File& File::operator=(File&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

bool File::openExisting(const std::string& path) {
    return open(path, 0);
}

bool File::openOrCreate(const std::string& path) {
    if (open(path, 0))
        return true;
    if (errno != ENOENT || !open(path, O_CREAT, 0666))
        return false;
    syncDirectoryOf(path);
    return true;
}

bool File::openLockFile(const std::string& path) {
    // Cleaners of temporary directories spare old files that are sticky.
    if (!open(path, O_CREAT | O_NOFOLLOW, S_IRUSR | S_IWUSR | S_ISVTX))
        return false;
    struct stat info {};
    if (::fstat(descriptor_, &info) == 0 && info.st_uid == ::geteuid())
        return true;
    close();
    errno = EPERM;
    return false;
}

bool File::open(const std::string& path, int flags, unsigned mode) {
    close();
    // O_NONBLOCK keeps a FIFO from holding up the caller until fstat has refused it.
    const int descriptor = restarting([&] {
        return ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags, mode);
    });
    if (descriptor < 0)
        return false;
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        errno = EINVAL;
        return false;
    }
    descriptor_ = descriptor;
    return true;
}

void File::close() {
    if (descriptor_ >= 0)
        ::close(std::exchange(descriptor_, -1));
}

File::Lock File::lockExclusively() {
    if (restarting([&] { return ::flock(descriptor_, LOCK_EX | LOCK_NB); }) == 0)
        return Lock::kTaken;
    return errno == EWOULDBLOCK ? Lock::kHeldElsewhere : Lock::kFailed;
}

bool File::isFileAt(const std::string& path) const {
    struct stat mine {};
    struct stat theirs {};
    return ::fstat(descriptor_, &mine) == 0 && ::stat(path.c_str(), &theirs) == 0 &&
           sameInode(mine, theirs);
}

bool File::isSameFile(const File& other) const {
    struct stat mine {};
    struct stat theirs {};
    return ::fstat(descriptor_, &mine) == 0 && ::fstat(other.descriptor_, &theirs) == 0 &&
           sameInode(mine, theirs);
}

std::optional<File::Stamp> File::stamp() const {
    return stampOfDescriptor(descriptor_);
}

std::optional<std::size_t> File::readAt(std::uint64_t offset, char* buffer,
                                        std::size_t size) const {
    std::size_t total = 0;
    while (total < size) {
        const ssize_t count = restarting([&] {
            return ::pread(descriptor_, buffer + total, size - total,
                           static_cast<off_t>(offset + total));
        });
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        total += static_cast<std::size_t>(count);
    }
    return total;
}

bool File::writeAt(std::uint64_t offset, std::string_view bytes) const {
    return writeAll(descriptor_, offset, bytes);
}

bool File::truncate(std::uint64_t size) const {
    return restarting([&] { return ::ftruncate(descriptor_, static_cast<off_t>(size)); }) == 0;
}

bool File::syncData() const {
    return restarting([&] { return ::fdatasync(descriptor_); }) == 0;
}

std::FILE* openStream(const std::string& path, const char* mode) {
    return std::fopen(path.c_str(), (std::string(mode) + "e").c_str());
}

std::optional<File::Stamp> stampOf(std::FILE* stream) {
    return stampOfDescriptor(::fileno(stream));
}

bool replaceFile(const std::string& path, std::string_view bytes) {
    // Always the same name, so that killed runs leave one file behind at most.
    const std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    const int descriptor = restarting(
        [&] { return ::open(temporary.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666); });
    if (descriptor < 0)
        return false;
    const bool written =
        writeAll(descriptor, 0, bytes) && restarting([&] { return ::fsync(descriptor); }) == 0;
    const int error = errno;
    ::close(descriptor);
    if (written && ::rename(temporary.c_str(), path.c_str()) == 0) {
        syncDirectoryOf(path);
        return true;
    }
    const int finalError = written ? errno : error;
    ::unlink(temporary.c_str());
    errno = finalError;
    return false;
}

}  // namespace platform
