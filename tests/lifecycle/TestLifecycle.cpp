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

const QHash<QString, E> events = {{"launch", E::Launched},
                                  {"onoff", E::OnOff},
                                  {"searchAsked", E::SearchAsked},
                                  {"stopAsked", E::StopAsked},
                                  {"installed", E::BridgeInstalled},
                                  {"searchStarted", E::SearchStarted},
                                  {"searchEnded", E::SearchEnded},
                                  {"found", E::SpeakerFound},
                                  {"departed", E::SpeakerDeparted},
                                  {"changed", E::SpeakerChanged},
                                  {"started", E::BridgeStarted},
                                  {"ready", E::BridgeReady},
                                  {"exit", E::BridgeEnded},
                                  {"missing", E::BridgeMissing},
                                  {"apply", E::ApplyTimerFired},
                                  {"retry", E::RetryTimerFired},
                                  {"quit", E::Quit},
                                  {"cannotStart", E::BridgeCannotStart},
                                  {"notReady", E::BridgeNotReady},
                                  {"resumed", E::Resumed}};

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
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("state");
    QTest::addColumn<QStringList>("commands"); // of the last step
    QTest::addColumn<bool>("turnsOn");
    using L = QStringList;
    const auto row = [](const char *name, L steps, S state, L commands, bool turnsOn = false) {
        QTest::addRow("%s", name) << steps << int(state) << commands << turnsOn;
    };
    row("start-up, launched -> search and watch", {"launch"}, S::StartingUp, {"Search", "Watch"},
        true);
    row("start-up, search started -> searching", {"launch", "searchStarted"}, S::Searching, {});
    row("searching, ended without speakers -> no speakers",
        {"@searching", "-search", "searchEnded"}, S::NoSpeakers, {});
    row("searching, ended with speakers -> start the bridge",
        {"@searching", "+speakers", "-search", "searchEnded"}, S::Searching, {"StartBridge"});
    row("searching, an older search ended -> the running one decides",
        {"@searching", "+speakers", "searchEnded"}, S::Searching, {});
    row("searching, ended while the bridge runs -> apply what it changed",
        {"@running", "searchStarted", "searchEnded"}, S::Searching, {"StartApplyTimer"});
    row("off, a search ends with speakers -> nothing starts",
        {"@running", "onoff", "+speakers", "searchEnded"}, S::Off, {}, true);
    row("starting, an older launch ready -> still starting", {"@starting", "started", "readyOld"},
        S::Starting, {});
    row("starting, an older launch not ready -> still starting",
        {"@starting", "started", "notReadyOld"}, S::Starting, {});
    row("running, the bridge ends by itself -> retry in 2 s, told once",
        {"@running", "-bridge", "exit"}, S::Retrying,
        {"AllowSleep", "TellRetrying", "StartRetryTimer"});
    row("starting, not ready in time -> stopped by Corvel, said so, retried",
        {"@starting", "-bridge", "notReady"}, S::Retrying,
        {"AllowSleep", "TellNotReady", "StartRetryTimer"});
    row("off, then the watchdog's stop -> no failure",
        {"@starting", "onoff", "-bridge", "notReady"}, S::Stopped, {"AllowSleep"}, true);
    row("four ends, off and on, one more -> a first failure again, not the give-up",
        {"@crashed",      "retry",       "+bridge", "started", "-bridge", "exit",
         "retry",         "+bridge",     "started", "-bridge", "exit",    "retry",
         "+bridge",       "started",     "-bridge", "exit",    "onoff",   "onoff",
         "searchStarted", "searchEnded", "+bridge", "started", "-bridge", "exit"},
        S::Retrying, {"AllowSleep", "TellRetrying", "StartRetryTimer"});
    row("retrying, ends again -> retry, not told again", {"@crashed", "retry", "started", "exit"},
        S::Retrying, {"AllowSleep", "StartRetryTimer"});
    row("retrying, turned off -> the retry is cancelled", {"@crashed", "onoff"}, S::Off,
        {"StopRetryTimer", "StopApplyTimer", "AnnounceStopped", "StopWatching", "StopSearching",
         "StopBridge"},
        true);
    row("off, the retry timer fires late -> nothing", {"@crashed", "onoff", "retry"}, S::Off, {},
        true);
    row("off, the bridge exits -> stopped", {"@running", "onoff", "-bridge", "exit"}, S::Stopped,
        {"AllowSleep"}, true);
    row("off, turned on -> search again", {"@running", "onoff", "onoff"}, S::Searching,
        {"StopRetryTimer", "Search", "Watch"});
    row("on again, the old bridge exits during the search -> searching stays",
        {"@running", "onoff", "onoff", "-bridge", "exit"}, S::Searching, {"AllowSleep"});
    row("on again, an older launch exits after the new one started -> ignored",
        {"@running", "onoff", "onoff", "started", "exitOld"}, S::Starting, {});
    row("running, stopped from the window -> no failure",
        {"@running", "stopAsked", "-bridge", "exit"}, S::Stopped, {"AllowSleep"}, true);
    row("turned off, a search asked for in the window -> its end starts the bridge",
        {"@running", "onoff", "-bridge", "exit", "searchAsked", "searchStarted", "searchEnded"},
        S::Searching, {"StartBridge"});
    row("running, a speaker renamed -> wait for quiet", {"@running", "changed"}, S::Running,
        {"StartApplyTimer"});
    row("a steady trickle of changes -> no longer restarts the quiet time after 10 s",
        {"@running", "changed", "t+4", "changed", "t+4", "changed", "t+2", "changed"}, S::Running,
        {});
    row("applied after a trickle -> the next change waits for quiet again",
        {"@running", "changed", "t+10", "changed", "apply", "t+1", "changed"}, S::Running,
        {"StartApplyTimer"});
    row("running, quiet after a change -> restart", {"@running", "+differs", "apply"}, S::Starting,
        {"RestartBridge"});
    row("running, quiet, nothing the bridge sees -> no restart", {"@running", "apply"}, S::Running,
        {});
    row("searching, quiet -> the search decides",
        {"@running", "searchStarted", "+search", "+differs", "apply"}, S::Searching, {});
    row("off, quiet -> nothing", {"@running", "onoff", "+differs", "apply"}, S::Off, {}, true);
    row("no speakers, one appears -> start",
        {"@searching", "-search", "searchEnded", "+speakers", "apply"}, S::NoSpeakers,
        {"StartBridge"});
    row("no speakers, quiet with none -> nothing",
        {"@searching", "-search", "searchEnded", "apply"}, S::NoSpeakers, {});
    row("no bridge again -> told once", {"@searching", "missing", "searchStarted", "missing"},
        S::BridgeMissing, {});
    row("no bridge, the on/off command -> the setup", {"@searching", "missing", "onoff"},
        S::BridgeMissing, {"ShowBridgeSetup"});
    row("no bridge, installed -> search", {"@searching", "missing", "installed"}, S::Searching,
        {"Search", "Watch"});
    row("installed, missing again -> told again", {"@searching", "missing", "installed", "missing"},
        S::BridgeMissing, {"TellBridgeMissing"});
    row("starting, the network has no address -> wait for it, no failure",
        {"@starting", "-bridge", "cannotStart"}, S::WaitingForNetwork, {"AllowSleep"});
    row("waiting for the network, the next search -> start",
        {"@starting", "-bridge", "cannotStart", "searchStarted", "searchEnded"}, S::Searching,
        {"StartBridge"});
    row("no address six times in a row -> still waiting, never given up",
        {"@starting", "-bridge", "cannotStart", "started", "cannotStart", "started", "cannotStart",
         "started", "cannotStart", "started", "cannotStart", "started", "cannotStart"},
        S::WaitingForNetwork, {"AllowSleep"});
    row("running, the machine wakes -> search and restart the bridge", {"@running", "resumed"},
        S::Running, {"Search", "RestartBridge"});
    row("no speakers, the machine wakes -> search",
        {"@searching", "-search", "searchEnded", "resumed"}, S::NoSpeakers, {"Search"});
    row("off, the machine wakes -> nothing", {"@running", "onoff", "resumed"}, S::Off, {}, true);
    row("quit -> shut the bridge down", {"@running", "quit"}, S::Running, {"ShutdownBridge"});
    row("quit, the bridge exits -> stopped, no failure", {"@running", "quit", "-bridge", "exit"},
        S::Stopped, {"AllowSleep"}, true);
}

void TestLifecycle::rules()
{
    QFETCH(QStringList, steps);
    QFETCH(int, state);
    QFETCH(QStringList, commands);
    QFETCH(bool, turnsOn);
    World world;
    qint64 now = 0;
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
        QVERIFY2(events.contains(event), qPrintable(s));
        if (event == "started")
            ++launch;
        last.clear();
        for (const C command : lifecycle.handle(events[event], old ? launch - 1 : launch))
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
        << QList<int>{0, 0, 0, 601, 0} << QList<int>{2, 4, 8, 2, 4} << false;
}

void TestLifecycle::backOffGivesUpWithinTenMinutesOnly()
{
    QFETCH(QList<int>, gaps);
    QFETCH(QList<int>, delays);
    QFETCH(bool, gaveUp);
    World world;
    world.speakers = world.bridge = true;
    qint64 now = 0;
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
    QCOMPARE(told, 1 + int(gaps.contains(601)));
    QCOMPARE(lifecycle.onOffTurnsOn(), gaveUp);
}

QTEST_GUILESS_MAIN(TestLifecycle)
#include "TestLifecycle.moc"
