#include "ui/longwork.h"

#include <QEventLoop>
#include <QProgressDialog>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <stop_token>
#include <thread>

#include "utils/interruption.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kMoment = 300ms;
constexpr auto kStep = 50ms;  // between two looks at the percentage

}  // namespace

bool runLongWork(QWidget& parent, const QString& text,
                 const std::function<void(const PercentReport& report)>& work) {
    QEventLoop loop;
    std::atomic<int> percent = -1;  // nothing told
    std::atomic<bool> ended = false;
    std::jthread worker([&](std::stop_token token) {
        const interruption::Scope scope(std::move(token));
        work([&](int now) { percent = now; });
        ended = true;
        QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
    });
    bool momentOver = false;
    QTimer::singleShot(kMoment, &loop, [&] {
        momentOver = true;
        loop.quit();
    });
    if (!ended)
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    bool cancelled = false;
    if (!ended && momentOver) {
        QProgressDialog box(text, QStringLiteral("取消"), 0, 0, &parent);
        box.setWindowModality(Qt::ApplicationModal);
        box.setAutoClose(false);
        box.setAutoReset(false);
        QObject::connect(&box, &QProgressDialog::canceled, [&] {
            cancelled = true;
            worker.request_stop();
        });
        QTimer look;
        QObject::connect(&look, &QTimer::timeout, [&] {
            if (percent < 0)
                return;
            box.setMaximum(100);
            box.setValue(percent);
        });
        look.start(kStep);
        box.show();
        loop.exec();
    }
    // The loop has ended before the work only if the whole program is to end.
    if (!ended)
        worker.request_stop();
    worker.join();
    return !cancelled;
}
