// SPDX-License-Identifier: GPL-3.0-or-later
// The controller with the real bridge supervisor and a misbehaving stand-in bridge: crashes,
// an output flood, a bridge deaf to SIGTERM, and hundreds of on/off cycles. The menu titles
// must end where the state table says, with no process, zombie or descriptor left behind and
// memory flat.
#include "AirConnect.h"
#include "AppDelegate.h"
#include "Log.h"
#include "LogCapture.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "ProcessCensus.h"
#include "Sanitizers.h"
#include "Settings.h"
#include "SSDPMessages.h"
#include "StaleBridges.h"
#include "SystemSleep.h"

#include <fcntl.h>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <unistd.h>

namespace {
using census::childProcesses;
using census::openDescriptors;

double residentMiB()
{
    return census::memoryMiB("VmRSS");
}

struct NoInhibitor : IdleInhibitor
{
    int create(const QString &, quint32 *id) override
    {
        *id = 1;
        return 0;
    }
    int release(quint32) override { return 0; }
};

// Runs a real event loop (QTest's waits sleep between rounds, which would throttle the
// bridge's output to a trickle) until the condition holds or the time is up.
bool runUntil(const std::function<bool()> &condition, int timeoutMs)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    poll.start(10);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    return condition();
}

QStringList titles(const AppDelegate &app)
{
    return {app.firstMenuItem()->text(), app.onOffMenuItem()->text()};
}
} // namespace

class TestBridgeFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void faults_data();
    void faults();
    void outputFloodKeepsMemoryBounded();
    void fiveHundredOnOffCycles();

private:
    AppServices services();
    void launch();

    QTemporaryDir m_dir;
    QString m_bridgeName;
    std::unique_ptr<Settings> m_settings;
    std::unique_ptr<AirConnect> m_bridge;
    std::unique_ptr<AppDelegate> m_app;
};

void TestBridgeFaults::initTestCase()
{
    // A name of its own: the stale-bridge sweep ends every process of the launched file's name,
    // and suites running at the same time must not end each other's bridges.
    m_bridgeName = QStringLiteral("airupnp-faults");
    const QString bridge = m_dir.filePath(m_bridgeName);
    QVERIFY(QFile::copy(QStringLiteral(FAKE_BRIDGE), bridge));
    QFile::setPermissions(bridge, QFile::ReadOwner | QFile::ExeOwner);
    qputenv("CORVEL_BRIDGE", bridge.toUtf8());
    SystemSleep::setBackend(std::make_unique<NoInhibitor>());
}

void TestBridgeFaults::init()
{
    m_settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    m_bridge = std::make_unique<AirConnect>();
    m_bridge->setConfigPath(m_dir.filePath(QStringLiteral("airupnp.xml")));
    m_bridge->setWatchdogDelay(5000);
    m_app = std::make_unique<AppDelegate>(services(), false);
}

void TestBridgeFaults::cleanup()
{
    m_app.reset();
    if (m_bridge)
        m_bridge->shutdown();
    QTRY_VERIFY_WITH_TIMEOUT(childProcesses(false).isEmpty(), 5000);
    m_bridge.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(childProcesses(true).isEmpty());
    for (const char *name : {"FAKE_BRIDGE_READY_MS", "FAKE_BRIDGE_CRASH_MS",
                             "FAKE_BRIDGE_IGNORE_TERM", "FAKE_BRIDGE_FLOOD_BYTES"})
        qunsetenv(name);
    StaleBridges::endAll(m_bridgeName, 500);
}

// A search that finds one speaker at once; the real supervisor runs the bridge.
AppServices TestBridgeFaults::services()
{
    AppServices s;
    const auto post = [](const QString &name, const QVariantMap &info = {}) {
        NotificationCenter::defaultCenter().post(name, info);
    };
    s.searchForDevices = [this, post](std::optional<double>) {
        m_settings->markAllDevicesNotActive();
        post(Notifications::discoveryStarted);
        mainQueueAsync([post] {
            DeviceInfo info;
            info.location =
                QUrl(QStringLiteral("http://127.0.1.1:1400/xml/device_description.xml"));
            info.roomName = QStringLiteral("Living Room");
            info.udn = QStringLiteral("uuid:RINCON_A");
            SSDPMSearchResponse response;
            response.location = info.location;
            post(Notifications::deviceDiscovered,
                 {{UserInfoKey::response, QVariant::fromValue(response)},
                  {UserInfoKey::deviceInfo, QVariant::fromValue(info)},
                  {UserInfoKey::deviceTopology,
                   QVariant::fromValue(DeviceTopology{true, QStringLiteral("G")})}});
            post(Notifications::discoveryComplete);
        });
    };
    s.stopSearching = [post] {
        post(Notifications::discoveryComplete);
    };
    s.searchRunning = [] {
        return false;
    };
    s.bridgeRunning = [this] {
        return m_bridge->process() != nullptr;
    };
    s.startBridge = [this](const std::vector<DeviceSettings> &records) {
        m_bridge->start(records);
    };
    s.stopBridge = [this] {
        m_bridge->stop();
    };
    s.shutdownBridge = [this] {
        m_bridge->shutdown();
    };
    s.settings = [this]() -> Settings & {
        return *m_settings;
    };
    return s;
}

void TestBridgeFaults::launch()
{
    m_app->applicationDidFinishLaunching();
    QTRY_VERIFY(m_bridge->process());
}

void TestBridgeFaults::faults_data()
{
    QTest::addColumn<QByteArrayList>("environment");
    QTest::addColumn<bool>("turnOff"); // the user turns Corvel off once it runs
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("command");
    QTest::newRow("crash at start")
        << QByteArrayList{"FAKE_BRIDGE_CRASH_MS=0"} << false << "Terminated"
        << AppDelegate::statusStopped << AppDelegate::commandTurnOn;
    QTest::newRow("crash after readiness")
        << QByteArrayList{"FAKE_BRIDGE_READY_MS=20", "FAKE_BRIDGE_CRASH_MS=400"} << false
        << "Terminated" << AppDelegate::statusStopped << AppDelegate::commandTurnOn;
    QTest::newRow("deaf to SIGTERM, turned off")
        << QByteArrayList{"FAKE_BRIDGE_READY_MS=20", "FAKE_BRIDGE_IGNORE_TERM=1"} << true
        << "Bridge did not exit when asked; killing it" << AppDelegate::statusStopped
        << AppDelegate::commandTurnOn;
}

void TestBridgeFaults::faults()
{
    QFETCH(QByteArrayList, environment);
    QFETCH(bool, turnOff);
    QFETCH(QString, line);
    QFETCH(QString, status);
    QFETCH(QString, command);
    for (const QByteArray &variable : environment)
        qputenv(variable.split('=')[0], variable.split('=')[1]);
    LogCapture capture;
    launch();
    if (turnOff) {
        QTRY_COMPARE(m_app->firstMenuItem()->text(), AppDelegate::statusRunning);
        QTest::qWait(100); // let the bridge install its SIGTERM handler
        m_app->onOffClicked();
    }
    QTRY_VERIFY2_WITH_TIMEOUT(capture.countStartingWith(line) > 0,
                              capture.allMessages().right(3000).constData(), 30000);
    QTRY_COMPARE(titles(*m_app), QStringList({status, command}));
    QVERIFY(!m_bridge->process());
    QTRY_VERIFY(childProcesses(false).isEmpty());
}

// 50 MB of output before readiness: the bridge still becomes ready, the log stays bounded,
// and so does memory.
void TestBridgeFaults::outputFloodKeepsMemoryBounded()
{
    qputenv("FAKE_BRIDGE_FLOOD_BYTES", QByteArray::number(50 * 1000 * 1000));
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    // The whole pipeline as the program runs it: every chunk into the log, which echoes it
    // to standard error (sent to /dev/null here, so the test's own output stays readable).
    Logging::attach(&Log::shared());
    Logging::setDefaultLevel(LogLevel::Verbose);
    const int savedStderr = dup(STDERR_FILENO);
    const int devNull = ::open("/dev/null", O_WRONLY);
    dup2(devNull, STDERR_FILENO);
    ::close(devNull);
    const double before = residentMiB();
    QElapsedTimer elapsed;
    elapsed.start();
    m_app->applicationDidFinishLaunching();
    // Fall behind at once, as a busy machine would: the pipe fills while nothing reads it.
    QTRY_VERIFY(m_bridge->process());
    QVERIFY(m_bridge->process()->waitForStarted());
    QThread::msleep(300);
    const bool ready = runUntil(
        [this] { return m_app->firstMenuItem()->text() == AppDelegate::statusRunning; }, 30000);
    const qint64 took = elapsed.elapsed();
    const double after = residentMiB();
    dup2(savedStderr, STDERR_FILENO);
    ::close(savedStderr);
    Logging::attach(nullptr);
    QVERIFY(ready);
    qInfo("50 MB of bridge output read in %lld ms: resident memory %.1f MiB before, %.1f MiB "
          "after",
          took, before, after);
    if (!CORVEL_UNDER_SANITIZER)
        QVERIFY2(after - before < 40, qPrintable(QString::number(after - before)));
    // Each entry is one piece of output of at most 8 KiB, however far behind the reader fell.
    qsizetype longest = 0;
    for (const LogMessage &entry : Log::shared().lines())
        longest = std::max(longest, entry.message.size());
    QVERIFY2(longest <= AirConnect::maxOutputChunk, qPrintable(QString::number(longest)));
}

void TestBridgeFaults::fiveHundredOnOffCycles()
{
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Logging::setDefaultLevel(LogLevel::Warning);
    launch();
    const auto cycle = [this] {
        m_app->onOffClicked(); // off
        QCOMPARE(m_app->firstMenuItem()->text(), AppDelegate::statusOff);
        QVERIFY(!m_bridge->process());
        m_app->onOffClicked(); // on: a search, then a new bridge
        QTRY_VERIFY(m_bridge->process());
    };
    for (int i = 0; i < 20; ++i) // warm-up: caches and pools reach their size
        cycle();
    QTRY_VERIFY_WITH_TIMEOUT(childProcesses(false).size() == 1, 5000);
    const int descriptors = openDescriptors();
    const double before = residentMiB();
    QElapsedTimer elapsed;
    elapsed.start();
    for (int i = 0; i < 500; ++i)
        cycle();
    QTRY_VERIFY_WITH_TIMEOUT(childProcesses(false).size() == 1, 10000); // only the last bridge
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(childProcesses(true).isEmpty());
    QCOMPARE(openDescriptors(), descriptors);
    const double after = residentMiB();
    qInfo("500 on/off cycles in %lld ms: resident memory %.1f MiB before, %.1f MiB after; "
          "%d descriptors before and after",
          elapsed.elapsed(), before, after, descriptors);
    if (!CORVEL_UNDER_SANITIZER)
        QVERIFY2(after - before < 4, qPrintable(QString::number(after - before)));
    QTRY_COMPARE(titles(*m_app),
                 QStringList({AppDelegate::statusRunning, AppDelegate::commandTurnOff}));
    Logging::setDefaultLevel(LogLevel::Info);
}

QTEST_MAIN(TestBridgeFaults)
#include "TestBridgeFaults.moc"
