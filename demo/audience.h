// For whom the demo is played, which sets its pace.
#pragma once

namespace simulator {

enum class Audience {
    kNobody,   // as fast as it goes, and with all that a script can do at a window
    kOnlooker  // at a pace that the eye can follow; the window is a person's afterwards
};

}  // namespace simulator
