// A number on the program's icon in the task bar, for an operator who has another window in front.
// Desktops that know "com.canonical.Unity.LauncherEntry" show it (Plasma, Ubuntu Dock, Dash to
// Dock, Plank); on others nothing happens. All on the user-interface thread.
#pragma once

// To be called once, when the application has been made: what it needs may be lacking later.
void connectTaskBar();

// How many burns are running; none takes the number away. Waits for nothing.
void showInTaskBar(int runningBurns);
