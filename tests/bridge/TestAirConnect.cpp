// SPDX-License-Identifier: GPL-3.0-or-later
#include "AirConnect.h"
#include "BridgeLocator.h"
#include "ConfigWriter.h"
#include "LogCapture.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "ProcessCensus.h"
#include "StaleBridges.h"

#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
// Records the bridge events in the order they were posted.
class EventRecorder
{
public:
    EventRecorder()
    {
        for (const QString &name : {Notifications::serviceStarted, Notifications::serviceReady,
                                    Notifications::serviceTerminated}) {
            m_tokens << NotificationCenter::defaultCenter().addObserver(
                name, [this](const Notification &n) { events << n.name; });
        }
    }
    ~EventRecorder()
    {
        for (auto token : m_tokens)
            NotificationCenter::defaultCenter().removeObserver(token);
    }
    QStringList events;

private:
    QList<NotificationCenter::Token> m_tokens;
};

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

using census::childProcesses;
using census::openDescriptors;

DeviceSettings speaker()
{
    DeviceSettings record;
    record.name = QStringLiteral("Living Room");
    record.info.location = QUrl(QStringLiteral("http://127.0.1.1:1400/xml/device_description.xml"));
    record.info.udn = QStringLiteral("uuid:RINCON_A");
    record.topology = DeviceTopology{true, QStringLiteral("RINCON_A:1")};
    record.active = true;
    return record;
}
} // namespace

class TestAirConnect : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void handleOutput_data();
    void handleOutput();
    void readyBridgeGetsExactlyThreeArguments();
    void watchdogStopsBridgeThatNeverGetsReady();
    void stopCancelsTheWatchdog();
    void stopWhenIdlePostsNothing();
    void configWriteFailureStillLaunches();
    void bridgeExitingBeforeReadyLeavesWatchdogHarmless();
    void lateExitOfOlderBridgeKeepsNewerOne();
    void staleBridgeIsEndedOthersAreLeftAlone();
    void bridgeRunsAtLowestPriority();
    void bridgeDiesWithCorvel();
    void shutdownKillsBridgeIgnoringTerm();
    void missingBridgeIsReportedNotCrashed();
    void failedLaunchPostsNothingUntilWatchdog();
    void locatorOrder_data();
    void locatorOrder();
    void startStopCyclesLeakNothing();

private:
    void configure(AirConnect &bridge) const
    {
        bridge.setConfigPath(m_dir.filePath(QStringLiteral("airupnp.xml")));
        // Long enough that a loaded machine never trips it by accident; the suites about the
        // watchdog itself shorten it.
        bridge.setWatchdogDelay(5000);
    }
    QString recordDir() const { return m_dir.filePath(QStringLiteral("record")); }

    QTemporaryDir m_dir;
    QString m_bridge; // a copy of the fake bridge under a name only this run uses
};

void TestAirConnect::initTestCase()
{
    m_bridge = m_dir.filePath(QStringLiteral("fake-airupnp-%1").arg(getpid()));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_BRIDGE), m_bridge));
    QVERIFY(QFile::setPermissions(m_bridge, QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther |
                                                QFile::ExeOther));
    QVERIFY(QDir().mkpath(recordDir()));
}

void TestAirConnect::init()
{
    qputenv("CORVEL_BRIDGE", m_bridge.toUtf8());
    qputenv("FAKE_BRIDGE_RECORD_DIR", recordDir().toUtf8());
    QFile::remove(recordDir() + "/args.txt");
    QFile::remove(recordDir() + "/pid");
}

void TestAirConnect::cleanup()
{
    for (const char *name :
         {"FAKE_BRIDGE_READY_MS", "FAKE_BRIDGE_EXIT_MS", "FAKE_BRIDGE_IGNORE_TERM",
          "FAKE_BRIDGE_TERM_DELAY_MS", "FAKE_BRIDGE_INVALID_UTF8"})
        qunsetenv(name);
    StaleBridges::endAll(QFileInfo(m_bridge).fileName(), 500);
}

void TestAirConnect::handleOutput_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<bool>("ready");
    QTest::addColumn<QStringList>("logged");
    QTest::newRow("marker among other lines is one message")
        << QList<QByteArray>{"  line one\nAddMRDevice: adding renderer (Den)\nline three\n\n"}
        << true << QStringList{"line one\nAddMRDevice: adding renderer (Den)\nline three"};
    QTest::newRow("no marker") << QList<QByteArray>{"starting\n", "still starting"} << false
                               << QStringList{"starting", "still starting"};
    QTest::newRow("marker is case-sensitive")
        << QList<QByteArray>{"Adding Renderer"} << false << QStringList{"Adding Renderer"};
    QTest::newRow("white space only is dropped")
        << QList<QByteArray>{" \n\t\r\n", ""} << false << QStringList{};
    QTest::newRow("invalid UTF-8 is dropped whole")
        << QList<QByteArray>{"adding renderer \xff"} << false << QStringList{};
    QTest::newRow("marker split across reads")
        << QList<QByteArray>{"x adding ren", "derer (Den)"} << true
        << QStringList{"x adding ren", "derer (Den)"};
    QTest::newRow("non-ASCII name")
        << QList<QByteArray>{"adding renderer (K\xc3\xbc"
                             "che)"}
        << true << QStringList{QStringLiteral("adding renderer (K\u00fcche)")};
}

void TestAirConnect::handleOutput()
{
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(bool, ready);
    QFETCH(QStringList, logged);
    AirConnect bridge;
    EventRecorder recorder;
    LogCapture capture;
    for (const QByteArray &chunk : chunks)
        bridge.handleOutput(chunk);
    bridge.handleOutput("adding renderer again"); // a second marker changes nothing more
    QCOMPARE(bridge.isReady(), true);
    QCOMPARE(recorder.events, QStringList(QStringLiteral("serviceReady")));
    QStringList debug = capture.messages(LogLevel::Debug);
    QCOMPARE(debug.takeLast(), QStringLiteral("adding renderer again"));
    QCOMPARE(debug, logged);
    for (const auto &entry : capture.entries())
        QCOMPARE(entry.category, std::optional<QString>("AirConnect"));
    Q_UNUSED(ready);
    AirConnect fresh;
    EventRecorder freshRecorder;
    for (const QByteArray &chunk : chunks)
        fresh.handleOutput(chunk);
    QCOMPARE(fresh.isReady(), ready);
    QCOMPARE(freshRecorder.events.size(), ready ? 1 : 0);
}

void TestAirConnect::readyBridgeGetsExactlyThreeArguments()
{
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    AirConnect bridge;
    configure(bridge);
    EventRecorder recorder;
    LogCapture capture;
    const std::vector<DeviceSettings> records = {speaker()};
    bridge.start(records);
    QVERIFY(bridge.process());
    QTRY_COMPARE(recorder.events, QStringList({"serviceStarted", "serviceReady"}));
    QVERIFY(!bridge.watchdogPending());
    const QString config = bridge.configPath();
    QTRY_COMPARE(readFile(recordDir() + "/args.txt"), ("-Z\n-x\n" + config + "\n").toUtf8());
    QCOMPARE(readFile(recordDir() + "/config.xml"), configFileText(records).toUtf8());
    QVERIFY(capture.contains(LogLevel::Info, QStringLiteral("AirConnect"),
                             QStringLiteral("Wrote config file to ") + config));
    bridge.stop();
    QTRY_COMPARE(recorder.events.size(), 3);
    QCOMPARE(recorder.events.last(), QStringLiteral("serviceTerminated"));
    QVERIFY(capture.contains(LogLevel::Info, QStringLiteral("AirConnect"),
                             QStringLiteral("Terminated")));
}

void TestAirConnect::watchdogStopsBridgeThatNeverGetsReady()
{
    AirConnect bridge;
    configure(bridge);
    bridge.setWatchdogDelay(400);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({speaker()});
    QTRY_COMPARE(recorder.events, QStringList({"serviceStarted", "serviceTerminated"}));
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("AirConnect"),
                             QStringLiteral("airupnp is not in a usable state, terminating")));
    QVERIFY(!bridge.process());
    QVERIFY(!bridge.isReady());
}

void TestAirConnect::stopCancelsTheWatchdog()
{
    AirConnect bridge;
    configure(bridge);
    bridge.setWatchdogDelay(400);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({});
    QCOMPARE(recorder.events, QStringList({"serviceStarted"}));
    bridge.stop();
    QVERIFY(!bridge.process());
    QVERIFY(!bridge.watchdogPending());
    QTRY_COMPARE(recorder.events, QStringList({"serviceStarted", "serviceTerminated"}));
    QTest::qWait(600); // past the watchdog delay
    QVERIFY(capture.messages(LogLevel::Error).isEmpty());
    QCOMPARE(recorder.events.size(), 2);
}

void TestAirConnect::stopWhenIdlePostsNothing()
{
    AirConnect bridge;
    EventRecorder recorder;
    bridge.stop();
    bridge.stop();
    QTest::qWait(50);
    QVERIFY(recorder.events.isEmpty());
    QVERIFY(!bridge.process() && !bridge.isReady() && !bridge.watchdogPending());
}

void TestAirConnect::configWriteFailureStillLaunches()
{
    AirConnect bridge;
    configure(bridge);
    const QString config = m_dir.filePath(QStringLiteral("missing/airupnp.xml"));
    bridge.setConfigPath(config);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({speaker()});
    const QStringList errors = capture.messages(LogLevel::Error);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(
        errors[0].startsWith(QStringLiteral("Failed to write config file to ") + config + " - "),
        qPrintable(errors[0]));
    QVERIFY(errors[0].size() >
            (QStringLiteral("Failed to write config file to ") + config + " - ").size());
    QCOMPARE(recorder.events, QStringList({"serviceStarted"}));
    QTRY_COMPARE(readFile(recordDir() + "/args.txt"), ("-Z\n-x\n" + config + "\n").toUtf8());
    bridge.stop();
    QTRY_COMPARE(recorder.events.size(), 2);
}

void TestAirConnect::bridgeExitingBeforeReadyLeavesWatchdogHarmless()
{
    qputenv("FAKE_BRIDGE_EXIT_MS", "50");
    AirConnect bridge;
    configure(bridge);
    bridge.setWatchdogDelay(2000);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({});
    QTRY_COMPARE(recorder.events, QStringList({"serviceStarted", "serviceTerminated"}));
    QVERIFY(!bridge.process());
    QVERIFY(bridge.watchdogPending()); // an exit does not cancel it
    QTRY_VERIFY(capture.contains(LogLevel::Error, QStringLiteral("AirConnect"),
                                 QStringLiteral("airupnp is not in a usable state, terminating")));
    QTest::qWait(50);
    QCOMPARE(recorder.events.size(), 2);
}

void TestAirConnect::lateExitOfOlderBridgeKeepsNewerOne()
{
    // The first bridge takes 300 ms to exit; the stale-bridge sweep of the second start waits
    // for it, so its exit is only reported after the second bridge has started.
    qputenv("FAKE_BRIDGE_TERM_DELAY_MS", "300");
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    AirConnect bridge;
    configure(bridge);
    bridge.setWatchdogDelay(5000);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({});
    QTRY_COMPARE(recorder.events, QStringList({"serviceStarted", "serviceReady"}));
    bridge.stop();
    bridge.start({});
    QProcess *newer = bridge.process();
    QVERIFY(newer);
    QTRY_VERIFY(capture.contains(LogLevel::Info, QStringLiteral("AirConnect"),
                                 QStringLiteral("Terminated (an earlier bridge)")));
    QTRY_COMPARE(recorder.events,
                 QStringList({"serviceStarted", "serviceReady", "serviceStarted", "serviceReady"}));
    QCOMPARE(bridge.process(), newer);
    QVERIFY(bridge.isReady());
    bridge.shutdown();
}

void TestAirConnect::staleBridgeIsEndedOthersAreLeftAlone()
{
    const QString other = m_dir.filePath(QStringLiteral("other-program-%1").arg(getpid()));
    QVERIFY(QFile::copy(m_bridge, other));
    qint64 stalePid = 0, otherPid = 0;
    QVERIFY(QProcess::startDetached(m_bridge, {}, QString(), &stalePid));
    QVERIFY(QProcess::startDetached(other, {}, QString(), &otherPid));
    QTRY_VERIFY(StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(stalePid));

    AirConnect bridge;
    configure(bridge);
    LogCapture capture;
    bridge.start({});
    QVERIFY(capture.contains(LogLevel::Info, QStringLiteral("AirConnect"),
                             QStringLiteral("Ended 1 stale bridge process(es)")));
    QVERIFY(!StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(stalePid));
    QVERIFY(StaleBridges::find(QFileInfo(other).fileName()).contains(otherPid));
    ::kill(static_cast<pid_t>(otherPid), SIGKILL);
    bridge.shutdown();
}

void TestAirConnect::bridgeRunsAtLowestPriority()
{
    AirConnect bridge;
    configure(bridge);
    bridge.start({});
    QVERIFY(bridge.process());
    const QByteArray stat =
        readFile(QStringLiteral("/proc/%1/stat").arg(bridge.process()->processId()));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    QCOMPARE(fields.value(16).toInt(), 19); // field 19 of stat: nice
    bridge.shutdown();
}

void TestAirConnect::bridgeDiesWithCorvel()
{
    QProcess child;
    child.start(QStringLiteral(SUPERVISOR_CHILD), {m_dir.filePath(QStringLiteral("child.xml"))});
    QVERIFY(child.waitForStarted());
    QTRY_VERIFY(child.canReadLine());
    const qint64 bridgePid = child.readLine().trimmed().toLongLong();
    QVERIFY(bridgePid > 0);
    QVERIFY(StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(bridgePid));
    ::kill(static_cast<pid_t>(child.processId()), SIGKILL);
    QVERIFY(child.waitForFinished());
    QTRY_VERIFY_WITH_TIMEOUT(
        !StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(bridgePid), 3000);
}

void TestAirConnect::shutdownKillsBridgeIgnoringTerm()
{
    qputenv("FAKE_BRIDGE_IGNORE_TERM", "1");
    AirConnect bridge;
    configure(bridge);
    bridge.start({});
    const qint64 pid = bridge.process()->processId();
    QTest::qWait(100); // let it install its handler
    QElapsedTimer timer;
    timer.start();
    bridge.shutdown();
    const qint64 took = timer.elapsed();
    QVERIFY2(took >= AirConnect::quitGraceMs - 100 && took < AirConnect::quitGraceMs + 1500,
             qPrintable(QString::number(took)));
    QVERIFY(!StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(pid));
}

void TestAirConnect::missingBridgeIsReportedNotCrashed()
{
    qputenv("CORVEL_BRIDGE", "/nonexistent/airupnp-linux-x86_64");
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", m_dir.filePath(QStringLiteral("empty")).toUtf8());
    AirConnect bridge;
    configure(bridge);
    EventRecorder recorder;
    LogCapture capture;
    QSignalSpy missing(&bridge, &AirConnect::bridgeNotFound);
    bridge.start({speaker()});
    qputenv("PATH", path);
    QCOMPARE(missing.size(), 1);
    QVERIFY(bridge.bridgeMissing());
    const QStringList errors = capture.messages(LogLevel::Error);
    QCOMPARE(errors.size(), 1);
    QVERIFY(errors[0].contains(QStringLiteral("/nonexistent/airupnp-linux-x86_64")));
    QVERIFY(errors[0].contains(m_dir.filePath(QStringLiteral("empty")) + "/airupnp"));
    QVERIFY(errors[0].contains(QStringLiteral("/usr/local/bin")));
    QVERIFY(!bridge.process() && !bridge.watchdogPending());
    QTest::qWait(20);
    QVERIFY(recorder.events.isEmpty());
}

void TestAirConnect::failedLaunchPostsNothingUntilWatchdog()
{
    // Executable by its mode, but not a program: exec fails.
    const QString broken = m_dir.filePath(QStringLiteral("broken-airupnp"));
    QFile file(broken);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("not a program");
    file.close();
    file.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
    qputenv("CORVEL_BRIDGE", broken.toUtf8());
    AirConnect bridge;
    configure(bridge);
    bridge.setWatchdogDelay(400);
    EventRecorder recorder;
    LogCapture capture;
    bridge.start({});
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("AirConnect"),
                             QStringLiteral("Failed to launch ") + broken));
    QVERIFY(bridge.process()); // still counts as running until the watchdog
    QVERIFY(bridge.watchdogPending());
    QTRY_VERIFY(!bridge.process());
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("AirConnect"),
                             QStringLiteral("airupnp is not in a usable state, terminating")));
    QTest::qWait(50);
    QVERIFY(recorder.events.isEmpty());
}

void TestAirConnect::locatorOrder_data()
{
    QTest::addColumn<QStringList>("present"); // files made executable, relative to a root
    QTest::addColumn<QString>("overridePath");
    QTest::addColumn<QString>("found");
    const QString name = QStringLiteral("airupnp-linux-aarch64");
    QTest::newRow("override wins") << QStringList{"opt/mine", "app/bin/" + name} << "opt/mine"
                                   << "opt/mine";
    QTest::newRow("missing override falls through") << QStringList{"app/bin/" + name} << "opt/gone"
                                                    << "app/bin/" + name;
    QTest::newRow("beside the program before libexec")
        << QStringList{"app/bin/" + name, "app/libexec/corvel/" + name} << ""
        << "app/bin/" + name;
    QTest::newRow("dynamic before static")
        << QStringList{"app/bin/" + name + "-static", "app/libexec/corvel/" + name} << ""
        << "app/bin/" + name + "-static";
    QTest::newRow("libexec") << QStringList{"app/libexec/corvel/" + name + "-static"} << ""
                             << "app/libexec/corvel/" + name + "-static";
    QTest::newRow("PATH in order") << QStringList{"p2/" + name, "p1/airupnp"} << ""
                                   << "p1/airupnp";
    QTest::newRow("nothing") << QStringList{"p1/airupnp-linux-x86_64"} << ""
                             << "";
}

void TestAirConnect::locatorOrder()
{
    QFETCH(QStringList, present);
    QFETCH(QString, overridePath);
    QFETCH(QString, found);
    QTemporaryDir root;
    for (const QString &file : present) {
        const QString path = root.filePath(file);
        QDir().mkpath(QFileInfo(path).path());
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
    }
    QDir().mkpath(root.filePath("app/bin"));
    const QString pathVariable = root.filePath("p1") + ":" + root.filePath("p2");
    const BridgeLocation location =
        findBridgeExecutable(overridePath.isEmpty() ? QString() : root.filePath(overridePath),
                             root.filePath("app/bin"), pathVariable, QStringLiteral("aarch64"));
    QCOMPARE(location.path, found.isEmpty() ? QString() : root.filePath(found));
    if (found.isEmpty()) {
        QCOMPARE(location.lookedIn.size(), 4 + 2 * 3);
        QVERIFY(location.lookedIn.contains(root.filePath("p2/airupnp")));
    }
}

void TestAirConnect::startStopCyclesLeakNothing()
{
    AirConnect bridge;
    configure(bridge);
    qunsetenv("FAKE_BRIDGE_RECORD_DIR");
    Logging::setDefaultLevel(LogLevel::Warning);
    const int descriptorsBefore = openDescriptors();
    QElapsedTimer elapsed;
    elapsed.start();
    for (int cycle = 0; cycle < 200; ++cycle) {
        bridge.start({speaker()});
        QVERIFY(bridge.process());
        bridge.stop();
        QCoreApplication::processEvents();
    }
    QTRY_VERIFY_WITH_TIMEOUT(childProcesses(false).isEmpty(), 5000);
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(childProcesses(true).isEmpty());
    QCOMPARE(openDescriptors(), descriptorsBefore);
    qInfo("200 start/stop cycles in %lld ms; %d descriptors before and after; no child left",
          elapsed.elapsed(), descriptorsBefore);
    Logging::setDefaultLevel(LogLevel::Info);
}

QTEST_GUILESS_MAIN(TestAirConnect)
#include "TestAirConnect.moc"
