// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences window with the controller faked behind its Controls interface.
#include "EditableTextField.h"
#include "FakePlatform.h"
#include "Notifications.h"
#include "PreferencesTableViewItem.h"
#include "Settings.h"
#include "TestSupport.h"
#include "ViewController.h"

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

namespace {
QUrl location(int n)
{
    return QUrl(QStringLiteral("http://127.0.1.%1:1400/xml/device_description.xml").arg(n));
}

struct FakeControls : Controls
{
    std::unique_ptr<Settings> document = Settings::load(std::make_unique<MemorySettingsStorage>());
    bool bridge = false;
    bool searching = false;
    bool stopped = false;
    int searches = 0;
    int bridgeStops = 0;

    Settings &settings() override { return *document; }
    bool searchRunning() const override { return searching; }
    bool bridgeRunning() const override { return bridge; }
    bool stoppedByUser() const override { return stopped; }
    bool bridgeMissing() const override { return missing; }
    void setUpBridge() override { ++setups; }
    bool missing = false;
    int setups = 0;
    void startSearching() override
    {
        stopped = false;
        searching = true;
        ++searches;
    }
    void stopBridge() override
    {
        bridge = false;
        ++bridgeStops;
    }
    void add(int n, bool coordinator = true, bool active = true)
    {
        DeviceInfo info;
        info.location = location(n);
        info.roomName = QStringLiteral("Room %1").arg(n);
        info.displayName = QStringLiteral("One");
        document->mergeDiscoveredSpeaker(info, DeviceTopology{coordinator, QStringLiteral("G")});
        document->devices.at(location(n)).active = active;
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
    void iconsAreFetchedOnce();
    void button_data();
    void button();
    void buttonFollowsBridgeEventsOnly();
    void startStopAndObservers();
    void editsGoToTheSpeakersRecord();
    void startAtLoginAndSoundOutputs();
    void nameFieldEditsWithItsOwnKeys();

private:
    QPushButton *startStop() const { return m_window->findChild<QPushButton *>("startStopButton"); }
    std::unique_ptr<FakeControls> m_controls;
    std::unique_ptr<FakePlatform> m_platform;
    std::unique_ptr<ViewController> m_window;
};

void TestPreferences::init()
{
    m_controls = std::make_unique<FakeControls>();
    m_platform = std::make_unique<FakePlatform>();
    m_window = std::make_unique<ViewController>(*m_controls, m_platform->platform());
}

void TestPreferences::cleanup()
{
    m_window.reset();
    settle();
}

void TestPreferences::rows_data()
{
    QTest::addColumn<int>("speakers");
    QTest::addColumn<int>("rows");
    QTest::newRow("none: the no-speakers row") << 0 << 1;
    QTest::newRow("three") << 3 << 3;
}

void TestPreferences::rows()
{
    QFETCH(int, speakers);
    QFETCH(int, rows);
    for (int n = 1; n <= speakers; ++n)
        m_controls->add(n);
    m_controls->add(20, false);       // a group member: no row
    m_controls->add(21, true, false); // not found in this run: no row
    m_controls->settings().setDeviceEnabled(location(speakers), false);
    m_window->reloadData();
    QCOMPARE(m_window->rowCount(), rows);
    QCOMPARE(m_window->row(0)->noSpeakersFound()->isVisibleTo(m_window.get()), speakers == 0);
    for (int i = 0; i < speakers; ++i) {
        PreferencesTableViewItem *row = m_window->row(i);
        QCOMPARE(row->titleField()->text(), QStringLiteral("Room %1 - One").arg(i + 1));
        QCOMPARE(*row->deviceLocation, location(i + 1));
        QCOMPARE(row->subtitleLabel()->text(), QStringLiteral("127.0.1.%1").arg(i + 1));
        QCOMPARE(row->checkbox()->isChecked(), i + 1 != speakers);
    }
}

void TestPreferences::iconsAreFetchedOnce()
{
    // A loopback server that never has the icon: reloads during a search must not ask again.
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    int requests = 0;
    connect(&server, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        ++requests;
        socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
    });
    m_controls->add(1);
    auto icon = std::make_shared<DeviceInfo::Icon>();
    icon->url = QUrl(QStringLiteral("http://127.0.0.1:%1/icon.png").arg(server.serverPort()));
    m_controls->settings().devices.at(location(1)).info.iconList = {icon};
    for (int i = 0; i < 5; ++i)
        m_window->reloadData();
    CORVEL_WAIT(requests == 1);
    m_window->reloadData();
    QTest::qWait(200);
    QCOMPARE(requests, 1);
}

void TestPreferences::button_data()
{
    QTest::addColumn<bool>("stopped");
    QTest::addColumn<bool>("bridge");
    QTest::addColumn<bool>("searching");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("spinner");
    QTest::newRow("turned off by the user") << true << true << true << "Start" << false;
    QTest::newRow("bridge present") << false << true << true << "Stop" << true;
    QTest::newRow("search running") << false << false << true << "Searching..." << true;
    QTest::newRow("idle, nothing found") << false << false << false << "Search Again" << false;
}

void TestPreferences::button()
{
    QFETCH(bool, stopped);
    QFETCH(bool, bridge);
    QFETCH(bool, searching);
    QFETCH(QString, title);
    QFETCH(bool, spinner);
    m_controls->stopped = stopped;
    m_controls->bridge = bridge;
    m_controls->searching = searching;
    m_window->show();
    QCOMPARE(startStop()->text(), title);
    QCOMPARE(startStop()->isEnabled(), title != QLatin1String("Searching..."));
    QCOMPARE(m_window->canStop(), title == QLatin1String("Stop"));
    QCOMPARE(m_window->findChild<QProgressBar *>("spinner")->isVisible(), spinner);
}

void TestPreferences::buttonFollowsBridgeEventsOnly()
{
    m_controls->searching = true;
    m_window->show();
    m_controls->searching = false; // the search ended without a bridge
    NotificationCenter::defaultCenter().post(Notifications::discoveryComplete);
    settle();
    QVERIFY(!m_window->findChild<QProgressBar *>("spinner")->isVisible());
    QCOMPARE(startStop()->text(), QStringLiteral("Search Again")); // nothing found: try again
    QVERIFY(startStop()->isEnabled());
    m_controls->add(1);
    NotificationCenter::defaultCenter().post(Notifications::serviceTerminated);
    settle();
    QCOMPARE(startStop()->text(), QStringLiteral("Start"));
    // No bridge: the button leads to its setup instead of a search that cannot start it.
    m_controls->missing = true;
    NotificationCenter::defaultCenter().post(Notifications::bridgeMissing);
    settle();
    QCOMPARE(startStop()->text(), QStringLiteral("Install Bridge…"));
    startStop()->click();
    QCOMPARE(m_controls->setups, 1);
    QCOMPARE(m_controls->searches, 0);
    // Without a tray, closing the window quits, and the window says so.
    QSignalSpy quit(m_window.get(), &ViewController::closedToQuit);
    m_window->close();
    QCOMPARE(quit.size(), 0);
    m_window->setClosingQuits(true);
    m_window->show();
    QVERIFY(m_window->findChild<QLabel *>("noTrayLabel")->isVisible());
    m_window->close();
    QCOMPARE(quit.size(), 1);
}

void TestPreferences::startStopAndObservers()
{
    const int before = NotificationCenter::defaultCenter().observerCount();
    m_controls->add(1);
    m_controls->bridge = true;
    m_window->show();
    QCOMPARE(m_window->observerCount(), 8);
    startStop()->click();
    QCOMPARE(m_controls->bridgeStops, 1);
    QCOMPARE(startStop()->text(), QStringLiteral("Start"));
    m_controls->stopped = true;
    startStop()->click();
    QVERIFY(!m_controls->stopped);
    QCOMPARE(m_controls->searches, 1);
    QCOMPARE(startStop()->text(), QStringLiteral("Searching..."));
    m_window->hide();
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before);
    m_window->show();
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before + 8);
}

void TestPreferences::editsGoToTheSpeakersRecord()
{
    m_controls->add(1);
    m_window->show();
    PreferencesTableViewItem *row = m_window->row(0);
    int changes = 0;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        Notifications::deviceSettingsChanged, [&changes](const Notification &) { ++changes; });
    LogCapture capture;
    row->titleEdited();                           // Return without a change
    row->titleField()->setText(QString(51, 'x')); // longer than the bridge can announce
    row->titleEdited();
    QCOMPARE(row->titleField()->text(), QStringLiteral("Room 1 - One"));
    QVERIFY(row->titleField()->toolTip().startsWith(QStringLiteral("A speaker name can be")));
    row->titleField()->setText(QStringLiteral(" Terrace "));
    row->titleEdited();
    row->checkbox()->click();
    const DeviceSettings &record = m_controls->settings().devices.at(location(1));
    QCOMPARE(record.name, QStringLiteral(" Terrace "));
    QVERIFY(record.nameChanged && !record.enabled);
    QCOMPARE(changes, 2);
    m_controls->settings().devices.clear(); // the speaker vanished: edits do nothing
    row->titleField()->setText(QStringLiteral("Gone"));
    row->titleEdited();
    row->checkboxClicked();
    NotificationCenter::defaultCenter().removeObserver(token);
    QCOMPARE(changes, 2);
    QCOMPARE(capture.lines().size(), 3);
}

void TestPreferences::startAtLoginAndSoundOutputs()
{
    m_platform->autostart->on = true;
    m_platform->sound->current = {SoundOutputs::Server::PipeWire, true, true};
    m_window->show();
    auto *login = m_window->findChild<QCheckBox *>("startAtLoginCheckBox");
    auto *sound = m_window->findChild<QCheckBox *>("soundOutputsCheckBox");
    QVERIFY(login->isChecked() && sound->isEnabled() && sound->isChecked());
    sound->click();
    QVERIFY(!m_platform->sound->current.raopDiscoveryActive);
    login->click();
    QVERIFY(!m_platform->autostart->on);
    m_platform->autostart->fails = true;
    login->click(); // a failed write shows the state that holds
    QVERIFY(!login->isChecked());
    LogCapture capture;
    sound->click();
    QVERIFY(m_platform->sound->current.raopDiscoveryActive);
    QVERIFY(capture.has("Info preferences Enabled speakers as sound outputs"));
    m_platform->sound->failure = QStringLiteral("avahi-daemon is not running");
    sound->click();
    QVERIFY(sound->isChecked());
    auto *alert = m_window->findChild<QMessageBox *>("soundOutputsErrorMessageBox");
    QVERIFY(alert && alert->informativeText() == m_platform->sound->failure);
    QVERIFY(capture.has("Error preferences avahi-daemon is not running"));
}

void TestPreferences::nameFieldEditsWithItsOwnKeys()
{
    // The field performs the editing keys itself, once, and only where it can.
    EditableTextField field;
    QApplication::clipboard()->setText(QStringLiteral("pasted"));
    QTest::keyClicks(&field, QStringLiteral("Den"));
    field.selectAll();
    QTest::keySequence(&field, QKeySequence::Copy);
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("Den"));
    field.setEchoMode(QLineEdit::Password); // never copied out of a hidden field
    QApplication::clipboard()->setText(QStringLiteral("pasted"));
    QTest::keySequence(&field, QKeySequence::Copy);
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("pasted"));
    field.setEchoMode(QLineEdit::Normal);
    QTest::keySequence(&field, QKeySequence::Paste);
    QCOMPARE(field.text(), QStringLiteral("pasted"));
    field.setReadOnly(true);
    QTest::keySequence(&field, QKeySequence::Undo);
    QCOMPARE(field.text(), QStringLiteral("pasted"));
    field.setReadOnly(false);
    QTest::keySequence(&field, QKeySequence::Undo);
    QCOMPARE(field.text(), QStringLiteral("Den"));
}

QTEST_MAIN(TestPreferences)
#include "TestPreferences.moc"
