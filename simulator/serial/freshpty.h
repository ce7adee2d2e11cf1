// Where the ptys that stand for serial ports come from: one that no lock file stands against.
#pragma once

#include <string>

namespace simulator {

struct FreshPty {
    int master;             // the caller's to close
    std::string slavePath;  // unlocked, as in "/dev/pts/5"
};

// `flags` are those of posix_openpt. The number of a pty is free again as soon as both its ends are
// closed, while the lock file of its last owner, who removes that behind the close, may still
// stand: such a number is passed over. Throws std::system_error.
FreshPty openFreshPty(int flags);

}  // namespace simulator
