// SPDX-License-Identifier: GPL-3.0-or-later
#include "MainQueue.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "TestSupport.h"

#include <thread>

class TestEvents : public QObject
{
    Q_OBJECT

private slots:
    void deliversSynchronouslyInOrderByName();
    void changesDuringDelivery();
    void mainQueueRunsLaterInOrder();
};

void TestEvents::deliversSynchronouslyInOrderByName()
{
    NotificationCenter center;
    QStringList calls;
    center.addObserver(Notifications::deviceDiscovered, [&calls](const Notification &n) {
        calls << QStringLiteral("a ") + n.userInfo.value(UserInfoKey::deviceInfo).toString();
    });
    center.addObserver(Notifications::discoveryStarted,
                       [&calls](const Notification &) { calls << QStringLiteral("other"); });
    center.addObserver(Notifications::deviceDiscovered,
                       [&calls](const Notification &) { calls << QStringLiteral("b"); });
    center.post(Notifications::deviceDiscovered, {{UserInfoKey::deviceInfo, QStringLiteral("x")}});
    QCOMPARE(calls, (QStringList{QStringLiteral("a x"), QStringLiteral("b")}));
}

void TestEvents::changesDuringDelivery()
{
    // An observer removed by an earlier one is not called for the rest of that post; one added
    // during delivery sees only later posts; a removed token is never called again.
    NotificationCenter center;
    QStringList calls;
    NotificationCenter::Token second = 0;
    center.addObserver(Notifications::serviceReady, [&](const Notification &) {
        calls << QStringLiteral("first");
        center.removeObserver(second);
        center.addObserver(Notifications::serviceReady,
                           [&](const Notification &) { calls << QStringLiteral("added"); });
    });
    second = center.addObserver(Notifications::serviceReady,
                                [&](const Notification &) { calls << QStringLiteral("second"); });
    center.post(Notifications::serviceReady);
    QCOMPARE(calls, QStringList{QStringLiteral("first")});
    calls.clear();
    center.post(Notifications::serviceReady);
    QCOMPARE(calls, QStringList({"first", "added"})); // the one added now waits for the next
    QCOMPARE(center.observerCount(), 3);              // the first and the two it added
}

void TestEvents::mainQueueRunsLaterInOrder()
{
    QStringList order;
    mainQueueAsync([&order] { order << QStringLiteral("1"); });
    std::thread([&order] { mainQueueAsync([&order] { order << QStringLiteral("2"); }); }).join();
    QVERIFY(order.isEmpty()); // nothing runs before the loop turns
    CORVEL_WAIT(order == QStringList({QStringLiteral("1"), QStringLiteral("2")}));
}

QTEST_GUILESS_MAIN(TestEvents)
#include "TestEvents.moc"
