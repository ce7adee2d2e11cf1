// How many burns are running, as a number on the program's icon in the task bar, for an operator
// who has another window in front. Desktops that know "com.canonical.Unity.LauncherEntry" show it
// (Plasma, Ubuntu Dock, Dash to Dock, Plank); on others nothing happens.
#pragma once

// To be called once, when the application has been made and before the first burn: what it needs
// may be lacking later. User-interface thread.
void connectTaskBar();

// While one lives, a burn is running. Any thread; waits for nothing.
class RunningBurn {
  public:
    RunningBurn();
    ~RunningBurn();
    RunningBurn(const RunningBurn&) = delete;
    RunningBurn& operator=(const RunningBurn&) = delete;
};
