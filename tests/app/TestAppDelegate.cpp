// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"
#include "LogCapture.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "Settings.h"
#include "SSDPMessages.h"
#include "SystemSleep.h"

#include <QApplication>
#include <QTest>

namespace {
// Discovery and the bridge as the controller sees them: each call records itself and posts
// the events the real services would post.
struct FakeWorld
{
    int searches = 0;
    int searchStops = 0;
    int starts = 0;
    int bridgeStops = 0;
    int shutdowns = 0;
    bool running = false;
    bool launchFails = false;
    std::vector<DeviceSettings> configured;
    std::unique_ptr<Settings> settings = Settings::load(std::make_unique<MemorySettingsStorage>());

    static void post(const QString &name, const QVariantMap &info = {})
    {
        NotificationCenter::defaultCenter().post(name, info);
    }

    AppServices services()
    {
        AppServices s;
        s.searchRunning = [] {
            return false;
        };
        s.searchForDevices = [this](std::optional<double> seconds) {
            QCOMPARE(seconds.value_or(0), 8.0);
            ++searches;
            settings->markAllDevicesNotActive();
            post(Notifications::discoveryStarted);
        };
        s.stopSearching = [this] {
            ++searchStops;
            post(Notifications::discoveryComplete);
        };
        s.bridgeRunning = [this] {
            return running;
        };
        s.startBridge = [this](const std::vector<DeviceSettings> &records) {
            ++starts;
            configured = records;
            running = true; // a failed launch still counts as running until its watchdog
            if (!launchFails)
                post(Notifications::serviceStarted);
        };
        s.stopBridge = [this] {
            ++bridgeStops;
            if (running) {
                running = false;
                mainQueueAsync([] { post(Notifications::serviceTerminated); });
            }
        };
        s.shutdownBridge = [this] {
            ++shutdowns;
        };
        s.settings = [this]() -> Settings & {
            return *settings;
        };
        return s;
    }

    static DeviceInfo speaker(int n)
    {
        DeviceInfo info;
        info.location =
            QUrl(QStringLiteral("http://127.0.1.%1:1400/xml/device_description.xml").arg(n));
        info.roomName = QStringLiteral("Room %1").arg(n);
        info.displayName = QStringLiteral("One");
        info.udn = QStringLiteral("uuid:RINCON_%1").arg(n);
        return info;
    }

    static void discover(int n, bool coordinator = true)
    {
        SSDPMSearchResponse response;
        response.location = speaker(n).location;
        post(Notifications::deviceDiscovered,
             {{UserInfoKey::response, QVariant::fromValue(response)},
              {UserInfoKey::deviceInfo, QVariant::fromValue(speaker(n))},
              {UserInfoKey::deviceTopology,
               QVariant::fromValue(DeviceTopology{coordinator, QStringLiteral("G")})}});
    }
};

// Counts lock creations and releases; can be told to fail.
struct FakeInhibitor : IdleInhibitor
{
    int *creates;
    int *releases;
    FakeInhibitor(int *c, int *r) : creates(c), releases(r) {}
    int create(const QString &, quint32 *id) override
    {
        *id = 7;
        ++*creates;
        return 0;
    }
    int release(quint32) override
    {
        ++*releases;
        return 0;
    }
};

void settle()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::sendPostedEvents();
}

QStringList titles(const AppDelegate &app)
{
    return {app.firstMenuItem()->text(), app.onOffMenuItem()->text()};
}
} // namespace

class TestAppDelegate : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void launchStartsASearch();
    void stateTable_data();
    void stateTable();
    void onOffTitleRule_data();
    void onOffTitleRule();
    void turningOffWithoutSpeakers();
    void turningOffWhileRunning();
    void searchEndingWhileBridgeRunsStartsNoSecond();
    void speakerAfterSearchCompletedWaitsForNextStart();
    void menuPositionsAndCheckMarks();
    void malformedDiscoveryIsIgnored_data();
    void malformedDiscoveryIsIgnored();
    void idleSleepFollowsTheBridge();
    void quitStopsTheBridge();

private:
    std::unique_ptr<FakeWorld> m_world;
    std::unique_ptr<AppDelegate> m_app;
    int m_creates = 0;
    int m_releases = 0;
};

void TestAppDelegate::init()
{
    m_world = std::make_unique<FakeWorld>();
    m_app = std::make_unique<AppDelegate>(m_world->services(), false);
    m_creates = m_releases = 0;
    SystemSleep::assertionResult.reset();
    SystemSleep::setBackend(std::make_unique<FakeInhibitor>(&m_creates, &m_releases));
}

void TestAppDelegate::cleanup()
{
    m_app.reset();
    settle();
    m_world.reset();
}

void TestAppDelegate::launchStartsASearch()
{
    LogCapture capture;
    stoppedByUser = true;
    m_app->applicationDidFinishLaunching();
    QVERIFY(!stoppedByUser);
    QCOMPARE(m_world->searches, 1);
    settle();
    QCOMPARE(titles(*m_app),
             QStringList({AppDelegate::statusSearching, AppDelegate::commandTurnOff}));
    QVERIFY(m_app->deviceMenuItems().isEmpty());
    QCOMPARE(m_app->statusMenu()->actions().size(), 10); // only the fixed entries
    QCOMPARE(capture.messages(LogLevel::Info).first(),
             QStringLiteral("applicationDidFinishLaunching"));
}

void TestAppDelegate::stateTable_data()
{
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("starts");
    using L = QStringList;
    QTest::newRow("searching") << L{"launch"} << AppDelegate::statusSearching
                               << AppDelegate::commandTurnOff << 0;
    QTest::newRow("no speakers") << L{"launch", "complete"} << AppDelegate::statusNoSpeakers
                                 << AppDelegate::commandTurnOff << 0;
    QTest::newRow("starting") << L{"launch", "speaker", "complete"} << AppDelegate::statusStarting
                              << AppDelegate::commandTurnOff << 1;
    QTest::newRow("running") << L{"launch", "speaker", "complete", "ready"}
                             << AppDelegate::statusRunning << AppDelegate::commandTurnOff << 1;
    QTest::newRow("stopped by itself")
        << L{"launch", "speaker", "complete", "ready", "exit"} << AppDelegate::statusStopped
        << AppDelegate::commandTurnOn << 1;
    QTest::newRow("off") << L{"launch", "speaker", "complete", "ready", "onoff"}
                         << AppDelegate::statusStopped << AppDelegate::commandTurnOn << 1;
    QTest::newRow("on again") << L{"launch", "speaker", "complete", "onoff", "onoff"}
                              << AppDelegate::statusSearching << AppDelegate::commandTurnOff << 1;
    QTest::newRow("on again until running")
        << L{"launch", "speaker", "complete", "onoff", "onoff", "speaker", "complete", "ready"}
        << AppDelegate::statusRunning << AppDelegate::commandTurnOff << 2;
    QTest::newRow("failed launch keeps the titles")
        << L{"launch", "failing", "speaker", "complete"} << AppDelegate::statusSearching
        << AppDelegate::commandTurnOff << 1;
}

void TestAppDelegate::stateTable()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, status);
    QFETCH(QString, command);
    QFETCH(int, starts);
    for (const QString &step : steps) {
        if (step == "launch")
            m_app->applicationDidFinishLaunching();
        else if (step == "speaker")
            FakeWorld::discover(1);
        else if (step == "complete")
            FakeWorld::post(Notifications::discoveryComplete);
        else if (step == "ready")
            FakeWorld::post(Notifications::serviceReady);
        else if (step == "exit")
            m_world->services().stopBridge();
        else if (step == "onoff")
            m_app->onOffClicked();
        else if (step == "failing")
            m_world->launchFails = true;
        settle();
    }
    QCOMPARE(titles(*m_app), QStringList({status, command}));
    QCOMPARE(m_world->starts, starts);
}

void TestAppDelegate::onOffTitleRule_data()
{
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("turnsOn");
    QTest::newRow("Turn Corvel On") << "Turn Corvel On" << true;
    QTest::newRow("Turn Corvel Off") << "Turn Corvel Off" << false;
    QTest::newRow("On elsewhere") << "Turn On Corvel" << false;
    QTest::newRow("suffix alone") << "Carry On" << true;
    QTest::newRow("lower case") << "turn corvel on" << false;
}

void TestAppDelegate::onOffTitleRule()
{
    QFETCH(QString, title);
    QFETCH(bool, turnsOn);
    LogCapture capture;
    m_app->applicationDidFinishLaunching();
    settle();
    const int searches = m_world->searches;
    m_app->onOffMenuItem()->setText(title);
    m_app->onOffClicked();
    QCOMPARE(capture.messages(LogLevel::Info).last(),
             turnsOn ? QStringLiteral("onClicked") : QStringLiteral("offClicked"));
    QCOMPARE(m_world->searches, searches + (turnsOn ? 1 : 0));
    QCOMPARE(m_world->searchStops, turnsOn ? 0 : 1);
    QCOMPARE(stoppedByUser, !turnsOn);
}

void TestAppDelegate::turningOffWithoutSpeakers()
{
    m_app->applicationDidFinishLaunching();
    settle();
    QStringList shown;
    connect(m_app->firstMenuItem(), &QAction::changed, this,
            [&] { shown << m_app->firstMenuItem()->text(); });
    QStringList events;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        Notifications::appStopped, [&](const Notification &n) { events << n.name; });
    const auto token2 = NotificationCenter::defaultCenter().addObserver(
        Notifications::discoveryComplete, [&](const Notification &n) { events << n.name; });
    m_app->onOffClicked();
    settle();
    NotificationCenter::defaultCenter().removeObserver(token);
    NotificationCenter::defaultCenter().removeObserver(token2);
    QCOMPARE(shown, QStringList({AppDelegate::statusOff, AppDelegate::statusNoSpeakers}));
    QCOMPARE(events, QStringList({"appStopped", "discoveryComplete"}));
    QCOMPARE(m_app->onOffMenuItem()->text(), AppDelegate::commandTurnOn);
}

void TestAppDelegate::turningOffWhileRunning()
{
    m_app->applicationDidFinishLaunching();
    FakeWorld::discover(1);
    FakeWorld::post(Notifications::discoveryComplete);
    FakeWorld::post(Notifications::serviceReady);
    settle();
    LogCapture capture;
    m_app->onOffClicked();
    QCOMPARE(titles(*m_app), QStringList({AppDelegate::statusOff, AppDelegate::commandTurnOn}));
    settle();
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             QStringLiteral("Discovery complete, bridge is stopped")));
    QCOMPARE(m_world->bridgeStops, 1);
    QCOMPARE(titles(*m_app), QStringList({AppDelegate::statusStopped, AppDelegate::commandTurnOn}));
    QCOMPARE(m_world->starts, 1);
}

void TestAppDelegate::searchEndingWhileBridgeRunsStartsNoSecond()
{
    m_app->applicationDidFinishLaunching();
    FakeWorld::discover(1);
    FakeWorld::post(Notifications::discoveryComplete);
    settle();
    LogCapture capture;
    FakeWorld::post(Notifications::discoveryStarted);
    FakeWorld::discover(1);
    FakeWorld::post(Notifications::discoveryComplete);
    settle();
    QCOMPARE(m_world->starts, 1);
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             QStringLiteral("Discovery complete, AirConnect already running")));
}

void TestAppDelegate::speakerAfterSearchCompletedWaitsForNextStart()
{
    m_app->applicationDidFinishLaunching();
    FakeWorld::discover(1);
    FakeWorld::post(Notifications::discoveryComplete);
    settle();
    FakeWorld::discover(2); // its description arrived after the search ended
    settle();
    QCOMPARE(m_world->starts, 1);
    QCOMPARE(m_world->configured.size(), 1u);
    QCOMPARE(m_app->deviceMenuItems().size(), 2);
    QCOMPARE(m_app->deviceMenuItems()[1]->text(), QStringLiteral("Room 2 - One"));
}

void TestAppDelegate::menuPositionsAndCheckMarks()
{
    m_app->applicationDidFinishLaunching();
    settle();
    QAction *formerFourth = m_app->statusMenu()->actions().at(4);
    FakeWorld::discover(3);
    FakeWorld::discover(1, false);
    FakeWorld::discover(2);
    m_world->settings->setDeviceEnabled(FakeWorld::speaker(2).location, false);
    settle();
    const QList<QAction *> actions = m_app->statusMenu()->actions();
    QCOMPARE(actions.size(), 13);
    QCOMPARE(actions.at(4)->text(), QStringLiteral("Room 1 - One")); // location order
    QCOMPARE(actions.at(5)->text(), QStringLiteral("Room 2 - One"));
    QCOMPARE(actions.at(6)->text(), QStringLiteral("Room 3 - One"));
    QCOMPARE(actions.at(7), formerFourth);
    QCOMPARE(m_app->deviceMenuItems(), actions.mid(4, 3));
    // Rebuilt on the next trigger: check marks follow enabled; every item is greyed out.
    FakeWorld::post(Notifications::deviceSettingsChanged);
    settle();
    const QList<QAction *> items = m_app->deviceMenuItems();
    QCOMPARE(items.size(), 3);
    QVERIFY(items[0]->isChecked() && !items[1]->isChecked() && items[2]->isChecked());
    for (QAction *item : items)
        QVERIFY(item->isCheckable() && !item->isEnabled());
    // A new search clears the items until its speakers are found again.
    FakeWorld::post(Notifications::discoveryStarted);
    m_world->settings->markAllDevicesNotActive();
    FakeWorld::post(Notifications::deviceSettingsChanged);
    settle();
    QVERIFY(m_app->deviceMenuItems().isEmpty());
    QCOMPARE(m_app->statusMenu()->actions().size(), 10);
}

void TestAppDelegate::malformedDiscoveryIsIgnored_data()
{
    QTest::addColumn<QVariantMap>("userInfo");
    QTest::newRow("empty") << QVariantMap();
    QTest::newRow("wrong types") << QVariantMap{{UserInfoKey::deviceInfo, QStringLiteral("x")},
                                                {UserInfoKey::deviceTopology, 5}};
    QTest::newRow("topology missing")
        << QVariantMap{{UserInfoKey::deviceInfo, QVariant::fromValue(FakeWorld::speaker(1))}};
}

void TestAppDelegate::malformedDiscoveryIsIgnored()
{
    QFETCH(QVariantMap, userInfo);
    m_app->applicationDidFinishLaunching();
    LogCapture capture;
    FakeWorld::post(Notifications::deviceDiscovered, userInfo);
    settle();
    QCOMPARE(capture.messages(LogLevel::Warning).size(), 1);
    QVERIFY(m_world->settings->devices.empty());
    QVERIFY(m_app->deviceMenuItems().isEmpty());
}

void TestAppDelegate::idleSleepFollowsTheBridge()
{
    m_app->applicationDidFinishLaunching();
    LogCapture capture;
    FakeWorld::post(Notifications::serviceStarted);
    FakeWorld::post(Notifications::serviceStarted);
    settle();
    QCOMPARE(m_creates, 1);
    FakeWorld::post(Notifications::serviceTerminated);
    FakeWorld::post(Notifications::serviceTerminated);
    settle();
    QCOMPARE(m_releases, 1);
    QCOMPARE(capture.messages(LogLevel::Info), QStringList({"Preventing system from idle sleeping",
                                                            "Allowing user idle sleep again"}));
}

void TestAppDelegate::quitStopsTheBridge()
{
    LogCapture capture;
    bool quit = false;
    connect(m_app.get(), &AppDelegate::quitRequested, this, [&quit] { quit = true; });
    m_app->quitClicked();
    QVERIFY(quit);
    m_app->applicationWillTerminate();
    QCOMPARE(m_world->shutdowns, 1);
    QCOMPARE(capture.messages(LogLevel::Info),
             QStringList({"quitClicked", "applicationWillTerminate"}));
}

QTEST_MAIN(TestAppDelegate)
#include "TestAppDelegate.moc"
