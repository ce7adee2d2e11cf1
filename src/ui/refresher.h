// Brings to the screen what worker threads have changed: any number of requests lead to one refresh
// on the user-interface thread, at most ten times a second, so that busy workers cost the screen
// next to nothing and never wait for it.
#pragma once

#include <QBasicTimer>
#include <QElapsedTimer>
#include <QObject>
#include <atomic>
#include <functional>

// Made and destroyed on the user-interface thread, when no other thread requests any more.
class Refresher final : public QObject {
  public:
    // `refresh` shows the latest state; it runs on the user-interface thread.
    explicit Refresher(std::function<void()> refresh);

    // To be called behind each change of the state. Any thread; waits for nothing.
    void request();

  private:
    bool event(QEvent* event) override;
    void timerEvent(QTimerEvent* event) override;
    void refreshNow();

    const std::function<void()> refresh_;
    std::atomic<bool> requested_{false};
    QBasicTimer timer_;
    QElapsedTimer sinceLast_;  // refresh
};
