// Conditions of a factory machine that a test can bring about for as long as an object lives.
#pragma once

#include <cstdint>
#include <functional>

// Writing a file beyond `bytes` fails, as on a full disk. Counts for the whole process.
class FullDisk {
  public:
    explicit FullDisk(std::uint64_t bytes);
    ~FullDisk();
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    std::uint64_t previousLimit_;
    void (*previousHandler_)(int);
};

// Nothing can be opened. Counts for the whole process.
class NoDescriptors {
  public:
    // False in a build whose sanitizer opens something itself, for its look at an object's type.
    static bool isPossible();

    NoDescriptors();
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    std::uint64_t previousLimit_;
};

// File permissions bind the calling thread even if the test runs as root.
class OrdinaryUser {
  public:
    OrdinaryUser();
    ~OrdinaryUser();
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

  private:
    unsigned previous_;
};

// Runs the body on a thread whom file permissions bind even if the test runs as root, and with it
// all threads that the body starts.
void runBoundByPermissions(const std::function<void()>& body);
