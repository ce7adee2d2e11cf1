#include "ui/refresher.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimerEvent>
#include <utility>

namespace {

constexpr int kPeriodMs = 100;
constexpr QEvent::Type kRequest = QEvent::User;

}  // namespace

Refresher::Refresher(std::function<void()> refresh) : refresh_(std::move(refresh)) {}

void Refresher::request() {
    if (!requested_.exchange(true))
        QCoreApplication::postEvent(this, new QEvent(kRequest));
}

bool Refresher::event(QEvent* event) {
    if (event->type() != kRequest)
        return QObject::event(event);
    const qint64 elapsed = sinceLast_.isValid() ? sinceLast_.elapsed() : kPeriodMs;
    if (elapsed >= kPeriodMs)
        refreshNow();
    else
        timer_.start(static_cast<int>(kPeriodMs - elapsed), Qt::PreciseTimer, this);
    return true;
}

void Refresher::timerEvent(QTimerEvent* /*event*/) {
    timer_.stop();
    refreshNow();
}

void Refresher::refreshNow() {
    // A change from here on makes a request of its own.
    requested_ = false;
    sinceLast_.start();
    refresh_();
}
