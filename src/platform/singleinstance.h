// Keeps a second copy of the program from running in the user's session. Held by the process start.
#pragma once

#include <string>

#include "platform/file.h"

namespace platform {

// The claim ends with the object, and with the process whatever way that ends; programs that the
// process starts do not take it over.
class SingleInstance {
  public:
    enum class Claim {
        kFirst,        // no other copy runs, and none gets this result while the object lives
        kAnotherRuns,  // another copy has claimed the name
        kUnguarded,    // nobody can tell, for want of a place to keep the claim: the program may
                       // run, and lastErrorText() says why
    };

    // Once for each object. `name` is the program's, and may serve as a file's.
    Claim claim(const std::string& name);

  private:
    File file_;
};

}  // namespace platform
