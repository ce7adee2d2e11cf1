#include "ui/refresher.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>
#include <atomic>
#include <thread>
#include <vector>

TEST(RefresherTest, FloodFromAllWorkersCostsFewRefreshesAndLosesNothing) {
    constexpr int kWorkers = 16;
    constexpr int kChanges = 20'000;
    std::atomic<int> state = 0;
    int shown = 0;
    int refreshes = 0;
    Refresher refresher([&] {
        shown = state;
        ++refreshes;
    });

    QElapsedTimer time;
    time.start();
    std::vector<std::jthread> workers(kWorkers);
    for (std::jthread& worker : workers)
        worker = std::jthread([&] {
            for (int n = 0; n < kChanges; ++n) {
                ++state;
                refresher.request();
            }
        });
    ASSERT_TRUE(QTest::qWaitFor([&] { return shown == kWorkers * kChanges; }, 60'000));
    EXPECT_LE(refreshes, time.elapsed() / 100 + 1);
    workers.clear();

    const int before = refreshes;
    QTest::qWait(250);
    EXPECT_LE(refreshes, before + 1) << "nothing has changed";
}

TEST(RefresherTest, LoneRequestIsShownAtOnce) {
    int refreshes = 0;
    Refresher refresher([&] { ++refreshes; });
    for (int i = 1; i <= 2; ++i) {
        refresher.request();
        QCoreApplication::processEvents();
        EXPECT_EQ(refreshes, i);
        QTest::qWait(120);  // an idle period
    }
}

TEST(RefresherTest, RequestDuringARefreshLeadsToAnother) {
    int refreshes = 0;
    Refresher* self = nullptr;
    Refresher refresher([&] {
        if (++refreshes == 1)
            self->request();
    });
    self = &refresher;
    refresher.request();
    EXPECT_TRUE(QTest::qWaitFor([&] { return refreshes == 2; }));
    QTest::qWait(250);
    EXPECT_EQ(refreshes, 2) << "nobody has asked for more";
}
