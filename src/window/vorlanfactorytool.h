// The program: one copy at a time, which lives as long as its window.
#pragma once

#include <QApplication>

class CVorlanFactoryToolApp final : public QApplication {
  public:
    using QApplication::QApplication;

    // Runs the program and returns when the operator has closed the window; at once, and silently,
    // if a copy is running already. False: nothing is left to be done.
    bool InitInstance();
};
