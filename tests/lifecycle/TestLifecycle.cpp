// SPDX-License-Identifier: GPL-3.0-or-later
// The lifecycle's rules as rows: the events that lead to a state, one more event, and the
// state and commands that must follow. The facts and the clock are fields of the test.
#include "FakeFacts.h"
#include "TestSupport.h"

namespace {
using E = Lifecycle::Event;
using C = Lifecycle::Command;
using S = Lifecycle::State;

using World = FakeFacts;
constexpr qint64 bootedADayAgo = 86'400'000; // the clock reads as on a machine up for a day

QString name(C command)
{
    static const char *const names[] = {"Search",          "StopSearching",     "Watch",
                                        "StopWatching",    "StartBridge",       "RestartBridge",
                                        "StopBridge",      "ShutdownBridge",    "StartApplyTimer",
                                        "StopApplyTimer",  "StartRetryTimer",   "StopRetryTimer",
                                        "PreventSleep",    "AllowSleep",        "AnnounceStopped",
                                        "ShowBridgeSetup", "TellBridgeMissing", "TellRetrying",
                                        "TellNotReady",    "TellGaveUp"};
    return QString::fromLatin1(names[int(command)]);
}

// Shorthands for the usual ways into a state; "+x"/"-x" set a fact, "t+N" lets N s pass.
const QHash<QString, QStringList> paths = {
    {"@searching", {"launch", "searchStarted", "+search"}},
    {"@starting",
     {"@searching", "+speakers", "found", "-search", "searchEnded", "+bridge", "started"}},
    {"@running", {"@starting", "ready"}},
    {"@crashed", {"@running", "-bridge", "exit"}}, // the bridge ended by itself once
};
} // namespace

class TestLifecycle : public QObject
{
    Q_OBJECT

private slots:
    void rules_data();
    void rules();
    void backOffGivesUpWithinTenMinutesOnly_data();
    void backOffGivesUpWithinTenMinutesOnly();
};

void TestLifecycle::rules_data()
{
    // The rules are a table, one a line: see its head for the columns.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("state");
    QTest::addColumn<QStringList>("commands"); // of the last step
    QTest::addColumn<bool>("turnsOn");
    const QStringList states = {"StartingUp",    "Searching",        "NoSpeakers", "Starting",
                                "Running",       "Retrying",         "Stopped",    "Off",
                                "BridgeMissing", "WaitingForNetwork"};
    const auto words = [](const QString &text) {
        return text.split(u' ', Qt::SkipEmptyParts);
    };
    for (const QStringList &column : tableRows(QStringLiteral("lifecycle/rules.txt"))) {
        QVERIFY2(column.size() >= 4 && states.contains(column[2]), qPrintable(column.join('|')));
        QTest::addRow("%s", qPrintable(column[0]))
            << words(column[1]) << int(states.indexOf(column[2]))
            << (column[3] == QLatin1String("none") ? QStringList() : words(column[3]))
            << (column.value(4) == QLatin1String("on"));
    }
}

void TestLifecycle::rules()
{
    QFETCH(QStringList, steps);
    QFETCH(int, state);
    QFETCH(QStringList, commands);
    QFETCH(bool, turnsOn);
    World world;
    qint64 now = bootedADayAgo;
    Lifecycle lifecycle(world, [&now] { return now; });
    quint64 launch = 0;
    QStringList last;
    std::function<void(const QString &)> step = [&](const QString &s) {
        if (paths.contains(s)) {
            for (const QString &inner : paths[s])
                step(inner);
            return;
        }
        if (s.startsWith('+') || s.startsWith('-')) {
            bool &fact = s.mid(1) == "search"     ? world.search
                         : s.mid(1) == "bridge"   ? world.bridge
                         : s.mid(1) == "speakers" ? world.speakers
                                                  : world.differs;
            fact = s.startsWith('+');
            return;
        }
        if (s.startsWith("t+")) {
            now += s.mid(2).toLongLong() * 1000;
            return;
        }
        const bool old = s.endsWith("Old");
        const QString event = old ? s.chopped(3) : s;
        QVERIFY2(eventWords.contains(event), qPrintable(s));
        if (event == "started")
            ++launch;
        last.clear();
        for (const C command :
             lifecycle.handle(E(eventWords.indexOf(event)), old ? launch - 1 : launch))
            last << name(command);
    };
    for (const QString &s : steps)
        step(s);
    QCOMPARE(last, commands);
    QCOMPARE(int(lifecycle.state()), state);
    QCOMPARE(lifecycle.onOffTurnsOn(), turnsOn);
}

void TestLifecycle::backOffGivesUpWithinTenMinutesOnly_data()
{
    QTest::addColumn<QList<int>>("gaps"); // seconds between one end and the next
    QTest::addColumn<QList<int>>("delays");
    QTest::addColumn<bool>("gaveUp");
    QTest::addRow("five ends in a row -> 2, 4, 8, 16 s, then give up")
        << QList<int>{0, 0, 0, 0, 0} << QList<int>{2, 4, 8, 16} << true;
    QTest::addRow("ends spread over more than ten minutes -> keeps retrying, up to 60 s")
        << QList<int>{0, 200, 200, 200, 200, 200, 200, 200}
        << QList<int>{2, 4, 8, 16, 32, 60, 60, 60} << false;
    QTest::addRow("ten minutes of running between ends -> starts again from 2 s")
        << QList<int>{0, 0, 0, 600, 0} << QList<int>{2, 4, 8, 2, 4} << false;
    QTest::addRow("the first of five ends exactly ten minutes before the last -> give up")
        << QList<int>{0, 150, 150, 150, 150} << QList<int>{2, 4, 8, 16} << true;
}

void TestLifecycle::backOffGivesUpWithinTenMinutesOnly()
{
    QFETCH(QList<int>, gaps);
    QFETCH(QList<int>, delays);
    QFETCH(bool, gaveUp);
    World world;
    world.speakers = world.bridge = true;
    qint64 now = bootedADayAgo;
    Lifecycle lifecycle(world, [&now] { return now; });
    lifecycle.setRetryUnit(1);
    lifecycle.handle(E::Launched);
    lifecycle.handle(E::SearchStarted);
    lifecycle.handle(E::SearchEnded);
    quint64 launch = 0;
    QList<int> seen;
    int told = 0;
    for (const int gap : gaps) {
        lifecycle.handle(E::BridgeStarted, ++launch);
        lifecycle.handle(E::BridgeReady, launch);
        now += qint64(gap) * 1000;
        const Lifecycle::Commands commands = lifecycle.handle(E::BridgeEnded, launch);
        told += int(std::count(commands.begin(), commands.end(), C::TellRetrying));
        if (std::count(commands.begin(), commands.end(), C::StartRetryTimer))
            seen << lifecycle.retryDelayMs();
        const bool retrying = lifecycle.state() == S::Retrying;
        QCOMPARE(lifecycle.handle(E::RetryTimerFired).size(), size_t(retrying ? 1 : 0));
    }
    QCOMPARE(seen, delays);
    QCOMPARE(lifecycle.gaveUp(), gaveUp);
    QCOMPARE(lifecycle.state(), gaveUp ? S::Stopped : S::Retrying);
    // A running stretch of ten minutes is a fresh start and is told again.
    QCOMPARE(told, 1 + int(gaps.contains(600)));
    QCOMPARE(lifecycle.onOffTurnsOn(), gaveUp);
    lifecycle.handle(E::OnOff); // on after the give-up, or off: either way it is forgotten
    QVERIFY(!lifecycle.gaveUp());
}

QTEST_GUILESS_MAIN(TestLifecycle)
#include "TestLifecycle.moc"
