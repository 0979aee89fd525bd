// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"
#include "EditableTextField.h"
#include "LaunchOnLogin.h"
#include "LogCapture.h"
#include "Notifications.h"
#include "PreferencesTableViewItem.h"
#include "Settings.h"
#include "ViewController.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace {
QUrl location(int n)
{
    return QUrl(QStringLiteral("http://127.0.1.%1:1400/xml/device_description.xml").arg(n));
}

struct World
{
    std::unique_ptr<Settings> settings;
    MemorySettingsStorage *storage = nullptr;
    bool bridge = false;
    bool searching = false;
    int searches = 0;
    int bridgeStops = 0;

    World()
    {
        auto memory = std::make_unique<MemorySettingsStorage>();
        storage = memory.get();
        settings = Settings::load(std::move(memory));
    }
    AppServices services()
    {
        AppServices s;
        s.searchForDevices = [this](std::optional<double>) {
            ++searches;
            searching = true;
        };
        s.stopSearching = [] {
        };
        s.searchRunning = [this] {
            return searching;
        };
        s.bridgeRunning = [this] {
            return bridge;
        };
        s.startBridge = [](const std::vector<DeviceSettings> &) {
        };
        s.stopBridge = [this] {
            ++bridgeStops;
            bridge = false;
        };
        s.shutdownBridge = [] {
        };
        s.settings = [this]() -> Settings & {
            return *settings;
        };
        return s;
    }
    void add(int n, bool coordinator = true, bool active = true,
             std::optional<QString> friendly = std::nullopt)
    {
        DeviceInfo info;
        info.location = location(n);
        info.roomName = QStringLiteral("Room %1").arg(n);
        info.displayName = QStringLiteral("One");
        info.friendlyName = friendly;
        settings->mergeDiscoveredSpeaker(info, DeviceTopology{coordinator, QStringLiteral("G")});
        settings->devices.at(location(n)).active = active;
    }
};

void settle()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::sendPostedEvents();
}
} // namespace

class TestPreferences : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void rows_data();
    void rows();
    void subtitles();
    void iconsAreFetchedOnce();
    void button_data();
    void button();
    void appStoppedDuringSearch();
    void discoveryEventsDoNotRedrawTheButton();
    void reopeningAddsObserversOnce();
    void startStopClicked();
    void renameAndEnableReachTheTray();
    void unchangedOrVanishedEditsDoNothing();
    void launchOnLogin_data();
    void launchOnLogin();
    void launchOnLoginFailureIsLogged();
    void saveLogFailureShowsTheAlert();

private:
    std::unique_ptr<World> m_world;
    std::unique_ptr<ViewController> m_window;
    QTemporaryDir m_config;
};

void TestPreferences::init()
{
    qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
    stoppedByUser = false;
    m_world = std::make_unique<World>();
    m_window = std::make_unique<ViewController>(m_world->services());
}

void TestPreferences::cleanup()
{
    m_window.reset();
    settle();
    QDir(m_config.filePath("autostart")).removeRecursively();
}

void TestPreferences::rows_data()
{
    QTest::addColumn<int>("speakers");
    QTest::addColumn<int>("rows");
    QTest::newRow("none") << 0 << 1;
    QTest::newRow("one") << 1 << 1;
    QTest::newRow("three") << 3 << 3;
}

void TestPreferences::rows()
{
    QFETCH(int, speakers);
    QFETCH(int, rows);
    for (int n = 1; n <= speakers; ++n)
        m_world->add(n);
    m_world->add(20, false);       // a group member: no row
    m_world->add(21, true, false); // not found in this run: no row
    m_world->settings->devices.at(location(21)).topology.reset();
    m_window->reloadData();
    QCOMPARE(m_window->rowCount(), rows);
    QCOMPARE(int(m_window->listedDevices().size()), speakers);
    PreferencesTableViewItem *first = m_window->row(0);
    QCOMPARE(first->noSpeakersFound()->isVisibleTo(m_window.get()), speakers == 0);
    QCOMPARE(first->titleField()->isVisibleTo(m_window.get()), speakers > 0);
    for (int i = 0; i < speakers; ++i) {
        QCOMPARE(m_window->row(i)->titleField()->text(),
                 QStringLiteral("Room %1 - One").arg(i + 1));
        QCOMPARE(*m_window->row(i)->deviceLocation, location(i + 1));
        QVERIFY(m_window->row(i)->checkbox()->isChecked());
    }
}

void TestPreferences::subtitles()
{
    m_world->add(1, true, true, QStringLiteral("192.0.2.1 - Sonos One"));
    m_world->add(2);
    m_window->reloadData();
    QCOMPARE(m_window->row(0)->subtitleLabel()->text(), QStringLiteral("192.0.2.1 - Sonos One"));
    QCOMPARE(m_window->row(1)->subtitleLabel()->text(), QStringLiteral("127.0.1.2"));
}

void TestPreferences::iconsAreFetchedOnce()
{
    // A loopback server that never has the icon: every reload during a search must not ask again.
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    int requests = 0;
    connect(&server, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        ++requests;
        socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
    });
    m_world->add(1);
    auto icon = std::make_shared<DeviceInfo::Icon>();
    icon->url =
        QUrl(QStringLiteral("http://127.0.0.1:%1/img/icon-S3.png").arg(server.serverPort()));
    m_world->settings->devices.at(location(1)).info.iconList = {icon};
    for (int i = 0; i < 5; ++i)
        m_window->reloadData();
    QTRY_COMPARE(requests, 1);
    for (int i = 0; i < 5; ++i)
        m_window->reloadData();
    QTest::qWait(200);
    QCOMPARE(requests, 1);
    QVERIFY(m_window->row(0)->icon()->pixmap().isNull() == false); // the placeholder stays
}

void TestPreferences::button_data()
{
    QTest::addColumn<bool>("stopped");
    QTest::addColumn<bool>("bridge");
    QTest::addColumn<bool>("searching");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<bool>("spinner");
    QTest::newRow("turned off by the user") << true << true << true << "Start" << true << false;
    QTest::newRow("bridge present") << false << true << true << "Stop" << true << true;
    QTest::newRow("search running") << false << false << true << "Searching..." << false << true;
    QTest::newRow("idle") << false << false << false << "Start" << true << false;
}

void TestPreferences::button()
{
    QFETCH(bool, stopped);
    QFETCH(bool, bridge);
    QFETCH(bool, searching);
    QFETCH(QString, title);
    QFETCH(bool, enabled);
    QFETCH(bool, spinner);
    stoppedByUser = stopped;
    m_world->bridge = bridge;
    m_world->searching = searching;
    m_window->show();
    auto *button = m_window->findChild<QPushButton *>("startStopButton");
    QCOMPARE(button->text(), title);
    QCOMPARE(button->isEnabled(), enabled);
    QCOMPARE(m_window->canStop(), title == QLatin1String("Stop"));
    QCOMPARE(m_window->findChild<QProgressBar *>("spinner")->isVisible(), spinner);
}

void TestPreferences::appStoppedDuringSearch()
{
    m_world->searching = true;
    m_window->show();
    auto *button = m_window->findChild<QPushButton *>("startStopButton");
    QCOMPARE(button->text(), QStringLiteral("Searching..."));
    stoppedByUser = true;
    NotificationCenter::defaultCenter().post(Notifications::appStopped);
    settle();
    QCOMPARE(button->text(), QStringLiteral("Start"));
    QVERIFY(button->isEnabled());
    QVERIFY(!m_window->findChild<QProgressBar *>("spinner")->isVisible());
}

void TestPreferences::discoveryEventsDoNotRedrawTheButton()
{
    m_world->searching = true;
    m_window->show();
    auto *button = m_window->findChild<QPushButton *>("startStopButton");
    m_world->searching = false; // the search ended without a bridge
    NotificationCenter::defaultCenter().post(Notifications::discoveryComplete);
    settle();
    QVERIFY(!m_window->findChild<QProgressBar *>("spinner")->isVisible());
    QCOMPARE(button->text(), QStringLiteral("Searching..."));
    QVERIFY(!button->isEnabled());
    NotificationCenter::defaultCenter().post(Notifications::serviceTerminated);
    settle();
    QCOMPARE(button->text(), QStringLiteral("Start"));
}

void TestPreferences::reopeningAddsObserversOnce()
{
    const int before = NotificationCenter::defaultCenter().observerCount();
    m_window->show();
    QCOMPARE(m_window->observerCount(), 7);
    m_window->hide();
    QCOMPARE(m_window->observerCount(), 0);
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before);
    m_window->show();
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before + 7);
}

void TestPreferences::startStopClicked()
{
    m_world->bridge = true;
    m_window->show();
    m_window->startStopClicked();
    QCOMPARE(m_world->bridgeStops, 1);
    QCOMPARE(m_window->findChild<QPushButton *>("startStopButton")->text(),
             QStringLiteral("Start"));
    stoppedByUser = true;
    m_window->startStopClicked();
    QVERIFY(!stoppedByUser);
    QCOMPARE(m_world->searches, 1);
    QCOMPARE(m_window->findChild<QPushButton *>("startStopButton")->text(),
             QStringLiteral("Searching..."));
}

void TestPreferences::renameAndEnableReachTheTray()
{
    m_world->add(1);
    AppDelegate tray(m_world->services(), false);
    tray.applicationDidFinishLaunching(); // observes deviceSettingsChanged
    m_world->settings->devices.at(location(1)).active = true;
    tray.updateDeviceMenuItems();
    m_window->show();
    PreferencesTableViewItem *row = m_window->row(0);
    const int writes = m_world->storage->writes;
    int changes = 0;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        Notifications::deviceSettingsChanged, [&changes](const Notification &) { ++changes; });
    row->titleField()->setText(QStringLiteral(" Terrace "));
    row->titleEdited();
    row->checkbox()->click();
    settle();
    NotificationCenter::defaultCenter().removeObserver(token);
    QCOMPARE(changes, 2);
    QCOMPARE(m_world->storage->writes, writes + 2);
    const DeviceSettings &record = m_world->settings->devices.at(location(1));
    QCOMPARE(record.name, QStringLiteral(" Terrace "));
    QVERIFY(record.nameChanged && !record.enabled);
    QCOMPARE(tray.deviceMenuItems().first()->text(), QStringLiteral(" Terrace "));
    QVERIFY(!tray.deviceMenuItems().first()->isChecked());
}

void TestPreferences::unchangedOrVanishedEditsDoNothing()
{
    m_world->add(1);
    m_window->reloadData();
    PreferencesTableViewItem *row = m_window->row(0);
    const int writes = m_world->storage->writes;
    LogCapture capture;
    row->titleEdited(); // Return without a change
    m_world->settings->devices.clear();
    row->titleField()->setText(QStringLiteral("Gone"));
    row->titleEdited();
    row->checkboxClicked();
    QCOMPARE(m_world->storage->writes, writes);
    QVERIFY(capture.entries().empty());
}

void TestPreferences::launchOnLogin_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("enabled");
    QTest::newRow("no entry") << "" << QByteArray() << false;
    QTest::newRow("entry") << "org.corvel.CorvelHelper.desktop"
                           << QByteArray("[Desktop Entry]\nType=Application\n") << true;
    QTest::newRow("hidden entry") << "org.corvel.CorvelHelper.desktop"
                                  << QByteArray("[Desktop Entry]\nHidden=true\n") << false;
    QTest::newRow("name differing in case")
        << "org.corvel.corvelhelper.desktop" << QByteArray("[Desktop Entry]\n") << false;
}

void TestPreferences::launchOnLogin()
{
    QFETCH(QString, fileName);
    QFETCH(QByteArray, content);
    QFETCH(bool, enabled);
    if (!fileName.isEmpty()) {
        QDir().mkpath(m_config.filePath("autostart"));
        QFile file(m_config.filePath("autostart/" + fileName));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    QCOMPARE(LaunchOnLogin::launchOnLoginEnabled(), enabled);
    m_window->show();
    QCOMPARE(m_window->findChild<QCheckBox *>("startAtLoginCheckBox")->isChecked(), enabled);

    // Switching it on writes our entry; off removes it.
    LogCapture capture;
    m_window->findChild<QCheckBox *>("startAtLoginCheckBox")->click();
    QCOMPARE(LaunchOnLogin::launchOnLoginEnabled(), !enabled);
    QCOMPARE(capture.messages(LogLevel::Info).last(),
             enabled ? QStringLiteral("Disabled start at login")
                     : QStringLiteral("Enabled start at login"));
    if (!enabled) {
        QFile entry(LaunchOnLogin::entryPath());
        QVERIFY(entry.open(QIODevice::ReadOnly));
        const QByteArray text = entry.readAll();
        QVERIFY(text.contains("Exec=\"" + QCoreApplication::applicationFilePath().toUtf8() +
                              "\" --autostart\n"));
        QVERIFY(text.contains("X-GNOME-Autostart-enabled=true\n"));
    }
}

void TestPreferences::launchOnLoginFailureIsLogged()
{
    // "autostart" is a file, so no entry can be written into it, not even by root.
    QFile blocker(m_config.filePath("autostart"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    LogCapture capture;
    LaunchOnLogin::setLaunchOnLogin(true);
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("preferences"),
                             QStringLiteral("Failed to enable start at login")));
    QVERIFY(!LaunchOnLogin::launchOnLoginEnabled());
    QFile::remove(m_config.filePath("autostart"));
}

void TestPreferences::saveLogFailureShowsTheAlert()
{
    m_window->show();
    m_window->saveLogTo(m_config.filePath(QStringLiteral("missing/corvel-log.txt")));
    auto *alert = m_window->findChild<QMessageBox *>("saveLogErrorMessageBox");
    QVERIFY(alert);
    QCOMPARE(alert->text(), QStringLiteral("Error"));
    QVERIFY(alert->informativeText().startsWith(QStringLiteral("Failed to save log file: ")));
    QCOMPARE(alert->buttons().size(), 1);
    QCOMPARE(alert->icon(), QMessageBox::Warning);
    alert->close();
}

QTEST_MAIN(TestPreferences)
#include "TestPreferences.moc"
