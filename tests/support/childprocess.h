// A second process of the same program, for tests of what a kill leaves behind.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

// Runs `body` in a process of its own, until it is killed at the latest.
class ChildProcess {
  public:
    template <typename Body>
    explicit ChildProcess(Body body) : id_(::fork()) {
        if (id_ != 0)
            return;
        body();
        ::_exit(0);
    }
    ~ChildProcess() { kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t id() const { return id_; }

    void kill() {
        if (id_ <= 0)
            return;
        ::kill(id_, SIGKILL);
        ::waitpid(id_, nullptr, 0);
        id_ = -1;
    }

  private:
    pid_t id_;
};
