#include "platform/singleinstance.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "support/helpers.h"
#include "support/systemlimits.h"
#include "support/temporarydirectory.h"

using platform::SingleInstance;
using Claim = platform::SingleInstance::Claim;
namespace fs = std::filesystem;

namespace {

// A variable of the environment with another value, or none, until the end. The tests here have one
// thread.
// NOLINTBEGIN(concurrency-mt-unsafe)
class ChangedVariable {
  public:
    ChangedVariable(const char* name, const char* value) : name_(name) {
        if (const char* const previous = std::getenv(name))
            previous_ = previous;
        set(value);
    }
    ~ChangedVariable() { set(previous_ ? previous_->c_str() : nullptr); }
    ChangedVariable(const ChangedVariable&) = delete;
    ChangedVariable& operator=(const ChangedVariable&) = delete;

    void set(const char* value) {
        if (value != nullptr)
            ::setenv(name_, value, 1);
        else
            ::unsetenv(name_);
    }

  private:
    const char* const name_;
    std::optional<std::string> previous_;
};
// NOLINTEND(concurrency-mt-unsafe)

Claim claimOnce() {
    return SingleInstance().claim("tool");
}

class SingleInstanceTest : public testing::Test {
  protected:
    fs::path temporaryLock() const {
        return temporary_.path() / ("tool-" + std::to_string(::geteuid()) + ".lock");
    }

    TemporaryDirectory session_;
    TemporaryDirectory temporary_;
    ChangedVariable sessionVariable_{"XDG_RUNTIME_DIR", session_.path().c_str()};
    ChangedVariable temporaryVariable_{"TMPDIR", temporary_.path().c_str()};
};

}  // namespace

// That a killed copy is not in the way is tried with the program itself.
TEST_F(SingleInstanceTest, OneCopyOfAToolRunsInEachSession) {
    SingleInstance first;
    EXPECT_EQ(first.claim("tool"), Claim::kFirst);
    EXPECT_EQ(claimOnce(), Claim::kAnotherRuns);
    EXPECT_EQ(SingleInstance().claim("other tool"), Claim::kFirst);
    sessionVariable_.set(temporary_.path().c_str());
    EXPECT_EQ(claimOnce(), Claim::kFirst);
}

TEST_F(SingleInstanceTest, StartedProgramDoesNotTakeTheClaimOver) {
    std::optional<SingleInstance> instance(std::in_place);
    ASSERT_EQ(instance->claim("tool"), Claim::kFirst);
    std::FILE* const program = ::popen("cat >/dev/null", "w");
    ASSERT_NE(program, nullptr);
    EXPECT_EQ(claimOnce(), Claim::kAnotherRuns);
    instance.reset();
    // The kernel lets go of the started program's copies a moment after its start.
    EXPECT_TRUE(eventually([&] { return claimOnce() == Claim::kFirst; }));
    ::pclose(program);
}

TEST_F(SingleInstanceTest, WithoutASessionDirectoryTheTemporaryOneServes) {
    const mode_t mask = ::umask(0);  // as careless as an account can be set up
    for (const char* const session :
         {static_cast<const char*>(nullptr), "", "relative", "/dev/null"}) {
        SCOPED_TRACE(session == nullptr ? "none" : session);
        sessionVariable_.set(session);
        SingleInstance first;
        EXPECT_EQ(first.claim("tool"), Claim::kFirst);
        EXPECT_EQ(claimOnce(), Claim::kAnotherRuns);
        EXPECT_EQ(fs::status(temporaryLock()).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write);
    }
    ::umask(mask);
}

TEST_F(SingleInstanceTest, WhatOthersPlantedIsLeftAloneAndTheProgramMayRun) {
    sessionVariable_.set(nullptr);
    const std::string target = session_.write("target", "content");
    fs::create_symlink(target, temporaryLock());
    EXPECT_EQ(claimOnce(), Claim::kUnguarded);
    EXPECT_EQ(platform::lastErrorText(), "Too many levels of symbolic links");
    EXPECT_EQ(session_.read("target"), "content");

    fs::remove(temporaryLock());
    fs::create_directory(temporaryLock());
    EXPECT_EQ(claimOnce(), Claim::kUnguarded);
    fs::remove(temporaryLock());
    ASSERT_EQ(::mkfifo(temporaryLock().c_str(), 0600), 0);
    EXPECT_EQ(claimOnce(), Claim::kUnguarded);

    fs::remove(temporaryLock());
    if (::geteuid() == 0) {  // only root can make somebody else's file
        writeContent(temporaryLock(), "");
        ASSERT_EQ(::chown(temporaryLock().c_str(), 65534, 65534), 0);
        EXPECT_EQ(claimOnce(), Claim::kUnguarded);
        EXPECT_EQ(platform::lastErrorText(), "Operation not permitted");
    }
}

TEST_F(SingleInstanceTest, WithNoPlaceAtAllTheProgramMayRun) {
    for (const TemporaryDirectory* directory : {&session_, &temporary_})
        fs::permissions(directory->path(), fs::perms::owner_read | fs::perms::owner_exec);
    {
        const OrdinaryUser user;
        EXPECT_EQ(claimOnce(), Claim::kUnguarded);
        EXPECT_EQ(platform::lastErrorText(), "Permission denied");
    }
    for (const TemporaryDirectory* directory : {&session_, &temporary_})
        fs::permissions(directory->path(), fs::perms::owner_all);
    sessionVariable_.set(nullptr);
    temporaryVariable_.set((temporary_.path() / "none").c_str());
    EXPECT_EQ(claimOnce(), Claim::kUnguarded);
}
