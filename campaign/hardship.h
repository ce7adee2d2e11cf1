// Something that the machine is short of for as long as the object lives. One at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace campaign {

class Hardship {
  public:
    // No file can be written beyond so many bytes, as on a full disk.
    static std::unique_ptr<Hardship> fullDisk(std::uint64_t bytes);
    // A directory, and all that is in it, is somewhere else.
    static std::unique_ptr<Hardship> lostDirectory(const std::string& path);

    explicit Hardship(std::function<void()> end) : end_(std::move(end)) {}
    ~Hardship() { end_(); }
    Hardship(const Hardship&) = delete;
    Hardship& operator=(const Hardship&) = delete;

  private:
    const std::function<void()> end_;
};

}  // namespace campaign
