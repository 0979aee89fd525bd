// SPDX-License-Identifier: GPL-3.0-or-later
// The controller with discovery and the bridge faked as it sees them: events in, services
// called, titles and notices out; and the speaker commands of the command line.
#include "ConfigWriter.h"
#include "Controller.h"
#include "DeviceDiscovery.h"
#include "FakePlatform.h"
#include "Log.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "ServiceManager.h"
#include "SessionBus.h"
#include "Settings.h"
#include "SingleInstance.h"
#include "SpeakerCommands.h"
#include "StartMode.h"
#include "SystemSleep.h"
#include "TestSpeakers.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <sys/socket.h>
#include <sys/un.h>

namespace {
void post(const QString &name, const QVariantMap &info = {})
{
    NotificationCenter::defaultCenter().post(name, info);
}

// Discovery and the bridge as the controller sees them: each call records itself and posts
// the events the real services would post.
struct FakeWorld
{
    int searches = 0, starts = 0, shutdowns = 0;
    std::map<QString, BridgeSpeakerState> said; // what the bridge says of the speakers
    bool running = false;
    bool watching = false;
    bool slowStop = false;   // a stopped bridge exits only when the test says so
    bool unwritable = false; // its file cannot be written: told as started and ended at once
    bool bridgePresent = true;
    quint64 launch = 0, stopped = 0;
    std::vector<DeviceSettings> configured;
    BridgeOptions options;
    std::unique_ptr<Settings> settings = Settings::load(std::make_unique<MemorySettingsStorage>());

    AppServices services()
    {
        AppServices s;
        s.searchRunning = [] {
            return false;
        };
        s.searchForDevices = [this](std::optional<double> seconds) {
            QCOMPARE(seconds.value_or(0), DeviceDiscovery::defaultSearchSeconds);
            ++searches;
            post(Notifications::discoveryStarted);
        };
        s.stopSearching = [] {
            post(Notifications::discoveryComplete);
        };
        s.bridgeRunning = [this] {
            return running;
        };
        s.startBridge = [this](const std::vector<DeviceSettings> &records,
                               const BridgeOptions &options) {
            this->options = options;
            ++starts;
            configured = records;
            running = !unwritable;
            post(Notifications::serviceStarted, {{UserInfoKey::launch, ++launch}});
            if (unwritable)
                post(Notifications::serviceTerminated, {{UserInfoKey::launch, launch}});
        };
        s.stopBridge = [this] {
            if (running) {
                running = false;
                stopped = launch;
                if (!slowStop)
                    mainQueueAsync([l = launch] {
                        post(Notifications::serviceTerminated, {{UserInfoKey::launch, l}});
                    });
            }
        };
        s.restartBridge = [s](const std::vector<DeviceSettings> &records,
                              const BridgeOptions &options) {
            s.stopBridge();
            s.startBridge(records, options);
        };
        s.bridgeConfigDiffers = [this](const std::vector<DeviceSettings> &records,
                                       const BridgeOptions &options) {
            return configFileText(records, options) != configFileText(configured, this->options);
        };
        s.bridgeOutput = [] {
            return QStringList{"last words"};
        };
        s.bridgeSpeakers = [this] {
            return said;
        };
        s.watch = [this](bool on) {
            watching = on;
        };
        s.shutdownBridge = [this] {
            ++shutdowns;
        };
        s.locateBridge = [this] {
            return BridgeLocation{bridgePresent ? QStringLiteral("/opt/airupnp") : QString(),
                                  {QStringLiteral("/opt/airupnp")}};
        };
        s.settings = [this]() -> Settings & {
            return *settings;
        };
        return s;
    }
};

void discover(int n, bool coordinator = true)
{
    post(Notifications::deviceDiscovered,
         {{UserInfoKey::deviceInfo, QVariant::fromValue(speaker(n))},
          {UserInfoKey::deviceTopology, QVariant::fromValue(DeviceTopology{coordinator, "G"})}});
}

void settle()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::sendPostedEvents();
}
} // namespace

class TestApp : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // A session bus and runtime folder of the suite's own, for the one-copy lock and name.
        qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address.toUtf8());
        qputenv("XDG_RUNTIME_DIR", m_runtime.path().toUtf8());
        qputenv("PULSE_SERVER", "unix:" + m_runtime.filePath("none").toUtf8()); // no server
    }
    void init();
    void cleanup();
    void launch();
    void wiring_data();
    void wiring();
    void idleSleepFollowsTheBridge();
    void tellsTheServiceManager();
    void speakerCommands();
    void startMode();

private:
    QStringList titles() const
    {
        return {m_app->tray().statusLine()->text(), m_app->tray().onOffItem()->text()};
    }
    QTemporaryDir m_runtime;
    SessionBus m_bus{m_runtime.path()};
    std::unique_ptr<FakeWorld> m_world;
    std::unique_ptr<FakePlatform> m_platform;
    std::unique_ptr<Controller> m_app;
};

void TestApp::init()
{
    m_world = std::make_unique<FakeWorld>();
    m_platform = std::make_unique<FakePlatform>();
    m_app = std::make_unique<Controller>(m_world->services(), m_platform->platform(), false);
    m_app->setRetryUnit(1);
}

void TestApp::cleanup()
{
    m_app.reset();
    settle();
}

void TestApp::launch()
{
    m_platform->helper->running = true;
    m_world->settings->mergeDiscoveredSpeaker(speaker(1), {true, "G"});
    LogCapture capture;
    m_app->start();
    QVERIFY(m_world->searches == 1 && m_platform->helper->stopped == 1);
    // Known speakers were marked not found before the search could report any.
    QVERIFY(m_world->settings->activeDevices().empty());
    settle();
    QCOMPARE(titles(),
             QStringList({TrayPresenter::statusSearching, TrayPresenter::commandTurnOff}));
    QCOMPARE(capture.lines().mid(0, 2),
             QStringList({"Info - applicationDidFinishLaunching", "Info - Stopping launcher app"}));
    Log::shared().log(LogLevel::Info, std::nullopt, QStringLiteral("last words"));
    QVERIFY(m_app->recentLog().endsWith("last words")); // what a crash report carries
    // A deviceDiscovered event without a topology is ignored with a line.
    post(Notifications::deviceDiscovered,
         {{UserInfoKey::deviceInfo, QVariant::fromValue(speaker(2))}});
    settle();
    QCOMPARE(capture.count(QStringLiteral("Warning - Ignoring a deviceDiscovered event")), 1);
    for (const QString text : {"Port taken", "Port taken", ""}) // told once; empty: never
        post(Notifications::bridgeProblem, {{UserInfoKey::problem, text}});
    settle();
    QCOMPARE(capture.count("Warning - Notice: Corvel - "), 1);
    QCOMPARE(m_world->settings->activeDevices().size(), 0u);
    // The menu's Quit asks the program to quit; quitting shuts the bridge down.
    QSignalSpy quits(m_app.get(), &Controller::quitRequested);
    m_app->tray().menu()->actions().constLast()->trigger();
    QCOMPARE(quits.count(), 1);
    // A save that failed during the session is tried once more at quit.
    auto &store = static_cast<MemorySettingsStorage &>(m_world->settings->storage());
    store.failure = QStringLiteral("Read-only file system");
    m_world->settings->setDeviceEnabled(speaker(1).location, false);
    store.failure.reset();
    m_app->shutdown();
    QVERIFY(!m_world->settings->saveError() && store.text->contains("\"enabled\":false"));
    QCOMPARE(m_world->shutdowns, 1);
    // With a tray, its icon shows from the start.
    m_app = std::make_unique<Controller>(m_world->services(), m_platform->platform(), true);
    m_app->start();
    QVERIFY(m_app->tray().trayIcon() && m_app->tray().trayIcon()->isVisible());
}

void TestApp::wiring_data()
{
    // The cases are a table, one a line: see its head for the columns.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("starts");
    QTest::addColumn<QString>("line");
    const QStringList states = {"StartingUp", "Searching", "NoSpeakers", "Starting",     "Running",
                                "Retrying",   "Stopped",   "Off",        "BridgeMissing"};
    const QHash<QString, QString> commands = {{"on", TrayPresenter::commandTurnOn},
                                              {"off", TrayPresenter::commandTurnOff},
                                              {"install", TrayPresenter::commandInstallBridge}};
    for (const QStringList &column : tableRows(QStringLiteral("app/wiring.txt"))) {
        QVERIFY2(column.size() >= 5 && states.contains(column[2]) && commands.contains(column[3]),
                 qPrintable(column.join('|')));
        QTest::addRow("%s", qPrintable(column[0]))
            << column[1].split(' ') << int(states.indexOf(column[2])) << commands[column[3]]
            << column[4].toInt() << column.value(5).replace(QStringLiteral("\\n"), "\n");
    }
}

void TestApp::wiring()
{
    QFETCH(QStringList, steps);
    QFETCH(int, state);
    QFETCH(QString, command);
    QFETCH(int, starts);
    QFETCH(QString, line);
    LogCapture capture;
    for (const QString &step : steps) {
        if (step == "launch")
            m_app->start();
        else if (step == "speaker")
            discover(1);
        else if (step == "complete")
            post(Notifications::discoveryComplete);
        else if (step == "search")
            post(Notifications::discoveryStarted);
        else if (step == "ready")
            post(Notifications::serviceReady, {{UserInfoKey::launch, m_world->launch}});
        else if (step == "slow" || step == "unwritable")
            (step == "slow" ? m_world->slowStop : m_world->unwritable) = true;
        else if (step == "exited")
            post(Notifications::serviceTerminated, {{UserInfoKey::launch, m_world->stopped}});
        else if (step == "crash" || step == "cannot" || step == "notready") {
            // The bridge ended by itself, or at once (its network has no address yet), or the
            // watchdog ended it.
            m_world->running = false;
            post(Notifications::serviceTerminated, {{UserInfoKey::launch, m_world->launch},
                                                    {UserInfoKey::cannotStart, step == "cannot"},
                                                    {UserInfoKey::notReady, step == "notready"}});
        } else if (step == "retried") // started again, or given up
            CORVEL_WAIT(m_world->running || m_app->state() == Controller::State::Stopped);
        else if (step == "sound")
            m_world->settings->setSoundOutputs(true);
        else if (step == "delay") { // chosen in Preferences
            m_world->settings->setBridgeDelay(BridgeDelay::Steady);
            post(Notifications::deviceSettingsChanged);
        } else if (step == "resumed")
            m_platform->resume->resumed();
        else if (step == "rename" && m_world->settings->renameDevice(speaker(1).location, "Den"))
            post(Notifications::deviceSettingsChanged);
        else if (step == "depart")
            post(Notifications::deviceDeparted, {{UserInfoKey::location, speaker(1).location}});
        else if (step == "apply" && m_app->changesPending())
            m_app->handle(Controller::Event::ApplyTimerFired);
        else if (step == "onoff")
            m_app->onOffClicked();
        else if (step == "absent" || step == "present")
            m_world->bridgePresent = step == "present";
        else if (step == "missing") {
            m_world->running = false;
            m_world->bridgePresent = false;
            post(Notifications::bridgeMissing, {{UserInfoKey::lookedIn, QStringList{"/a"}}});
        }
        settle();
    }
    QCOMPARE(int(m_app->state()), state);
    QCOMPARE(titles(),
             QStringList({TrayPresenter::statusTitle(Controller::State(state)), command}));
    QCOMPARE(m_app->lifecycle().onOffTurnsOn(), command == TrayPresenter::commandTurnOn);
    QCOMPARE(m_app->stoppedByUser(), steps.count("onoff") % 2 == 1);
    QCOMPARE(m_world->watching, !m_app->stoppedByUser()); // off stops watching for speakers
    QCOMPARE(m_world->starts, starts);
    if (!line.isEmpty())
        QVERIFY2(capture.has(line), capture.dump());
    QVERIFY(capture.count("Warning - Notice: AirConnect bridge needed") <= 1); // once per run
    QCoreApplication::processEvents(); // the outputs follow on a zero timer
    QCOMPARE(capture.count("Info stream Speakers as sound outputs: on"),
             int(steps.contains("sound") && !m_app->stoppedByUser())); // only when chosen
    if (steps.contains("sound")) // and the user is told when no sound server answers
        CORVEL_WAIT(capture.count("Warning - Notice: Corvel - No sound server answered") == 1);
    QVERIFY(capture.count("Warning - No AirConnect bridge on this computer") <= 1);
    QVERIFY(capture.count("Warning - Notice: AirConnect bridge stopped") <= 1);
    QCOMPARE(capture.count("Warning - Notice: AirConnect bridge stopped - The bridge stopped "
                           "unexpectedly"),
             int(steps.contains("crash") || steps.contains("unwritable")));
    if (starts > 0)
        QCOMPARE(m_world->configured.size(), 1u);
    QCOMPARE(m_world->options.latency,
             BridgeOptions::bridgeLatency(steps.contains("delay") ? BridgeDelay::Steady
                                                                  : BridgeDelay::Balanced));
}

void TestApp::idleSleepFollowsTheBridge()
{
    // Started twice: one lock; released twice: one release; a release asked for while the
    // lock is still being taken follows it.
    m_app->start();
    LogCapture capture;
    SystemSleep &sleep = m_app->systemSleep();
    post(Notifications::serviceStarted);
    post(Notifications::serviceStarted);
    settle();
    CORVEL_WAIT(sleep.assertionResult.has_value());
    post(Notifications::serviceTerminated);
    post(Notifications::serviceTerminated);
    settle();
    sleep.disableIdleSleep();
    sleep.enableIdleSleep();
    CORVEL_WAIT(m_platform->idle->calls.size() == 4);
    QCOMPARE(m_platform->idle->calls,
             QStringList({"create Corvel", "release 7", "create Corvel", "release 8"}));
    QVERIFY(!sleep.assertionResult);
    m_platform->idle->result = -1;
    sleep.disableIdleSleep();
    CORVEL_WAIT(sleep.assertionResult == -1);
    QCOMPARE(capture.count("Info - Preventing system from idle sleeping"), 2);
    QCOMPARE(capture.count("Info - Allowing user idle sleep again"), 2);
    QCOMPARE(capture.count("Warning - Failed to disable system idle sleep"), 1);
    // A lock that arrives after its owner is gone is not taken for it.
    auto gone = std::make_unique<SystemSleep>(m_platform->idle);
    gone->disableIdleSleep();
    gone.reset();
    CORVEL_WAIT(m_platform->idle->calls.size() == 6);
    settle();
    QCOMPARE(capture.count("Warning - Failed to disable system idle sleep"), 1);
}

void TestApp::tellsTheServiceManager()
{
    // An abstract socket ("@…" in the variable) whose name fills the whole address.
    sockaddr_un address{};
    const QByteArray path = ("@corvel-" + QByteArray::number(QCoreApplication::applicationPid()))
                                .leftJustified(sizeof address.sun_path, '-');
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, path.constData() + 1, size_t(path.size() - 1));
    QCOMPARE(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    qputenv("NOTIFY_SOCKET", path);
    m_world->said = {{QStringLiteral("Room 1"), BridgeSpeakerState::Playing}};
    m_app->start();
    discover(1);
    post(Notifications::discoveryComplete);
    settle();
    post(Notifications::serviceReady, {{UserInfoKey::launch, m_world->launch}});
    settle();
    // The bridge says the speaker stopped playing: told at once.
    m_world->said = {{QStringLiteral("Room 1"), BridgeSpeakerState::Ready}};
    EventRecorder views({Notifications::speakerStatesChanged});
    for (int told = 0; told < 2; ++told) // the second changes nothing: not passed on
        post(Notifications::bridgeSpeakersChanged);
    settle();
    QCOMPARE(views.count(Notifications::speakerStatesChanged), 1);
    notifyServiceManager("WATCHDOG=1");
    qputenv("NOTIFY_SOCKET", QByteArray(5000, 'x')); // longer than a socket address holds
    notifyServiceManager("STATUS=x");
    qunsetenv("NOTIFY_SOCKET");
    QStringList messages;
    char buffer[512];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
        messages << QString::fromUtf8(buffer, int(n));
    ::close(fd);
    // The bridge names the speaker by its room: it is told as playing.
    QCOMPARE(messages,
             QStringList({"STATUS=Looking For Speakers...", "STATUS=Starting...\nREADY=1",
                          "STATUS=Running: 1 speaker offered, 1 ready, 1 playing",
                          "STATUS=Running: 1 speaker offered, 1 ready, 0 playing", "WATCHDOG=1"}));
}

void TestApp::speakerCommands()
{
    auto settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    for (int n : {1, 2, 3})
        settings->mergeDiscoveredSpeaker(speaker(n > 1 ? 2 : 1), {n != 3, "G"});
    DeviceInfo den = speaker(3);
    den.roomName = QStringLiteral("Room 2");
    settings->mergeDiscoveredSpeaker(den, {true, "G"});
    QString error;
    QCOMPARE(SpeakerCommands::rename(*settings, QStringLiteral("room 1 - one"), "x", &error), 1);
    QVERIFY(!SpeakerCommands::findSpeaker(*settings, QStringLiteral("Room 2 - One"), &error));
    QVERIFY(error.startsWith(QStringLiteral("More than one speaker")));
    LogCapture capture;
    // A copy with a runtime folder of its own owns the bus name: that one runs, not this one.
    auto elsewhere = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "elsewhere");
    QVERIFY(elsewhere.registerService(SingleInstance::serviceName));
    QCOMPARE(SingleInstance(*settings, {}).claim(), SingleInstance::Claim::OtherRunning);
    QVERIFY(elsewhere.unregisterService(SingleInstance::serviceName));
    SingleInstance(*settings, {}).claim(); // owned, then gone with its name
    QVERIFY(!elsewhere.interface()->isServiceRegistered(SingleInstance::serviceName));
    // The running copy holds the lock and the name; the commands of others reach it on the bus.
    int shown = 0;
    SingleInstance running(*settings, [&shown] { ++shown; });
    QCOMPARE(running.claim(), SingleInstance::Claim::Owned);
    QCOMPARE(QFileInfo(m_runtime.filePath("corvel.lock")).permissions() & 0x7777, 0x6600);
    QCOMPARE(SingleInstance(*settings, {}).claim(), SingleInstance::Claim::OtherRunning);
    const auto status = [](const QString &method, const QVariantList &arguments) {
        const auto answer = SingleInstance::ask(method, arguments); // none without a bus
        return answer ? answer->status : -1;
    };
    EventRecorder changes({Notifications::deviceSettingsChanged}); // the window follows
    QCOMPARE(status("SetEnabled", {"Room 1 - One", false}), 0);
    QCOMPARE(status("SetEnabled", {"Nowhere", true}), 1); // the running copy's refusal
    QCOMPARE(status("Rename", {speaker(3).location.toString(), "Attic \"A\""}), 0);
    QCOMPARE(changes.count(Notifications::deviceSettingsChanged), 2);
    QVERIFY(status("ShowPreferences", {}) == 0 && shown == 1);
    QCOMPARE(SpeakerCommands::rename(*settings, "Room 1 - One", QString(51, 'x'), &error), 2);
    QVERIFY(error.startsWith(QStringLiteral("A speaker name can be at most 50 bytes")));
    // Arguments over a few KiB (they come over the bus too) are refused before any work.
    QCOMPARE(SpeakerCommands::setEnabled(*settings, QString(5000, 'x'), true, &error), 2);
    QCOMPARE(SpeakerCommands::rename(*settings, "Room 1 - One", QString(5000, 'x'), &error), 2);
    QVERIFY(error.size() < 100);
    // Listed as the window lists them (by name, members under their coordinator), each name
    // quoted as a shell reads it back.
    const QString list = SpeakerCommands::formatList(*settings);
    QVERIFY2(list.startsWith(QStringLiteral("enabled   \"Attic \\\"A\\\"\"  ")), qPrintable(list));
    QVERIFY2(list.contains(QStringLiteral("disabled  \"Room 1 - One\"  Not offered\n    "
                                          "http://127.0.1.1:1400/xml/device_description.xml\n"
                                          "enabled   \"Room 2 - One\"  In Room 1 - One's group\n")),
             qPrintable(list));
    // A change that could not be saved is no success (a full or read-only disk).
    auto &store = static_cast<MemorySettingsStorage &>(settings->storage());
    store.failure = QStringLiteral("No space left on device");
    QCOMPARE(SpeakerCommands::rename(*settings, "Room 1 - One", "Study 2", &error), 3);
    QVERIFY(error.endsWith(QStringLiteral("could not be saved: No space left on device")));
    QCOMPARE(SpeakerCommands::setEnabled(*settings, speaker(3).location.toString(), true, &error),
             3);
}

void TestApp::startMode()
{
    for (QStringList column : tableRows(QStringLiteral("app/start-modes.txt"), 5)) {
        column.replaceInStrings(QRegularExpression(QStringLiteral("^-$")), QString()); // none
        qputenv("DISPLAY", column[2].toUtf8());
        qputenv("WAYLAND_DISPLAY", column[3].toUtf8());
        const StartMode got =
            startModeFor(QByteArrayList{"corvel"} + column[1].toUtf8().split(' '));
        QVERIFY2(got.printsOnly == column[4].contains("prints") &&
                     got.headless == column[4].contains("headless") &&
                     got.noDisplay == column[4].contains("no screen"),
                 qPrintable(column[0]));
    }
}

QTEST_MAIN(TestApp)
#include "TestApp.moc"
