// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogCapture.h"
#include "MainQueue.h"
#include "NotificationCenter.h"
#include "Notifications.h"

#include <atomic>
#include <QTest>
#include <thread>

class TestNotificationCenter : public QObject
{
    Q_OBJECT

private slots:
    void deliversSynchronouslyInOrder();
    void deliversOnlyToItsName();
    void removedObserverIsNotCalled();
    void observerRemovingALaterOneDuringDelivery();
    void observerAddedDuringDeliverySeesOnlyLaterPosts();
    void concurrentPostsAndObserverChanges();
    void mainQueueRunsLaterInOrder();
};

void TestNotificationCenter::deliversSynchronouslyInOrder()
{
    NotificationCenter center;
    QStringList calls;
    center.addObserver(Notifications::deviceDiscovered, [&calls](const Notification &n) {
        calls << QStringLiteral("first ") + n.userInfo.value(UserInfoKey::deviceInfo).toString();
    });
    center.addObserver(Notifications::deviceDiscovered, [&calls](const Notification &n) {
        calls << QStringLiteral("second ") + n.name;
    });
    center.post(Notifications::deviceDiscovered, {{UserInfoKey::deviceInfo, QStringLiteral("x")}});
    // Both observers ran before post returned, in the order they were added.
    QCOMPARE(calls, QStringList({"first x", "second deviceDiscovered"}));
}

void TestNotificationCenter::deliversOnlyToItsName()
{
    NotificationCenter center;
    int started = 0, complete = 0;
    center.addObserver(Notifications::discoveryStarted, [&](const Notification &) { ++started; });
    center.addObserver(Notifications::discoveryComplete, [&](const Notification &) { ++complete; });
    center.post(Notifications::discoveryStarted);
    center.post(Notifications::discoveryStarted);
    center.post(QStringLiteral("somethingElse"));
    QCOMPARE(started, 2);
    QCOMPARE(complete, 0);
}

void TestNotificationCenter::removedObserverIsNotCalled()
{
    NotificationCenter center;
    int calls = 0;
    const auto token =
        center.addObserver(Notifications::serviceReady, [&](const Notification &) { ++calls; });
    center.post(Notifications::serviceReady);
    center.removeObserver(token);
    center.removeObserver(token); // twice is harmless
    center.removeObserver(12345);
    center.post(Notifications::serviceReady);
    QCOMPARE(calls, 1);
    QCOMPARE(center.observerCount(), 0);
}

void TestNotificationCenter::observerRemovingALaterOneDuringDelivery()
{
    NotificationCenter center;
    QStringList calls;
    NotificationCenter::Token second = 0;
    center.addObserver(Notifications::appStopped, [&](const Notification &) {
        calls << QStringLiteral("first");
        center.removeObserver(second);
    });
    second = center.addObserver(Notifications::appStopped,
                                [&](const Notification &) { calls << QStringLiteral("second"); });
    center.post(Notifications::appStopped);
    QCOMPARE(calls, QStringList({"first"}));
}

void TestNotificationCenter::observerAddedDuringDeliverySeesOnlyLaterPosts()
{
    NotificationCenter center;
    int lateCalls = 0;
    bool added = false;
    center.addObserver(Notifications::serviceStarted, [&](const Notification &) {
        if (!added) {
            added = true;
            center.addObserver(Notifications::serviceStarted,
                               [&](const Notification &) { ++lateCalls; });
        }
    });
    center.post(Notifications::serviceStarted);
    QCOMPARE(lateCalls, 0);
    center.post(Notifications::serviceStarted);
    QCOMPARE(lateCalls, 1);
}

void TestNotificationCenter::concurrentPostsAndObserverChanges()
{
    NotificationCenter center;
    std::atomic<int> delivered{0};
    center.addObserver(Notifications::serviceTerminated,
                       [&](const Notification &) { delivered.fetch_add(1); });
    constexpr int posters = 4;
    constexpr int posts = 2000;
    std::vector<std::thread> threads;
    for (int i = 0; i < posters; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < posts; ++n)
                center.post(Notifications::serviceTerminated);
        });
    }
    threads.emplace_back([&] {
        for (int n = 0; n < posts; ++n) {
            const auto token =
                center.addObserver(Notifications::serviceTerminated, [](const Notification &) {});
            center.removeObserver(token);
        }
    });
    for (auto &thread : threads)
        thread.join();
    QCOMPARE(delivered.load(), posters * posts);
    QCOMPARE(center.observerCount(), 1);
}

void TestNotificationCenter::mainQueueRunsLaterInOrder()
{
    QStringList order;
    mainQueueAsync([&order] { order << QStringLiteral("a"); });
    mainQueueAsync([&order] { order << QStringLiteral("b"); });
    std::thread([&order] { mainQueueAsync([&order] { order << QStringLiteral("c"); }); }).join();
    QVERIFY(order.isEmpty()); // nothing runs inside the call
    QTRY_COMPARE(order, QStringList({"a", "b", "c"}));
}

QTEST_GUILESS_MAIN(TestNotificationCenter)
#include "TestNotificationCenter.moc"
