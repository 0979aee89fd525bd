// SPDX-License-Identifier: GPL-3.0-or-later
// The tray shows the lifecycle and the records: titles, on/off command, icon look and tool tip
// per state; one menu item per speaker found, kept in place across updates.
#include "FakeFacts.h"
#include "Notices.h"
#include "SessionBus.h"
#include "TestSpeakers.h"
#include "TestSupport.h"
#include "TrayIcon.h"
#include "TrayPresenter.h"

#include "Settings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVirtualObject>
#include <QMenu>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTemporaryDir>

namespace {
using E = Lifecycle::Event;
using S = Lifecycle::State;

// The desktop's notification service: what it was asked to show, each notice numbered.
struct FakeNotifications : QDBusVirtualObject
{
    QList<QVariantList> shown;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() != QLatin1String("Notify"))
            return false;
        shown << message.arguments();
        return connection.send(message.createReply(uint(shown.size())));
    }
    QString introspect(const QString &) const override { return {}; }
};

} // namespace

class TestTray : public QObject
{
    Q_OBJECT

private slots:
    void showsTheState_data();
    void showsTheState();
    void speakerItems();
    void noticesWithoutATray();
    void iconLooks_data();
    void iconLooks();

private:
    QTemporaryDir m_busFolder;
    SessionBus m_bus{m_busFolder.path()};
};

void TestTray::showsTheState_data()
{
    QTest::addColumn<QList<int>>("events");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("look");
    QTest::addColumn<QString>("toolTip");
    const QStringList looks = {"Idle", "Busy", "Running", "Problem"};
    for (const QStringList &column : tableRows(QStringLiteral("tray/states.txt"), 6)) {
        QList<int> codes;
        for (const QString &word : column[1].split(u' '))
            codes << int(eventWords.indexOf(word));
        QTest::addRow("%s", qPrintable(column[0]))
            << codes << column[2] << column[3] << int(looks.indexOf(column[4]))
            << (column[5] == "=" ? column[2] : QString::fromUtf8(unescaped(column[5])));
    }
}

void TestTray::showsTheState()
{
    QFETCH(QList<int>, events);
    QFETCH(QString, title);
    QFETCH(QString, command);
    QFETCH(int, look);
    QFETCH(QString, toolTip);
    FakeFacts world;
    world.bridge = true;
    Lifecycle lifecycle(world, [] { return qint64(0); });
    auto settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    for (int n : {1, 2, 3})
        settings->mergeDiscoveredSpeaker(speaker(n), {n != 3, "G"}); // 3 is a group member
    TrayPresenter tray(lifecycle, [&]() -> Settings & { return *settings; });
    tray.showTrayIcon();
    QCOMPARE(tray.trayIcon()->contextMenu(), tray.menu());  // the right button's
    QSignalSpy clicked(&tray, &TrayPresenter::iconClicked); // a left click, not the menu's
    emit tray.trayIcon()->activated(QSystemTrayIcon::Context);
    QCOMPARE(clicked.size(), 0);
    emit tray.trayIcon()->activated(QSystemTrayIcon::Trigger);
    QCOMPARE(clicked.size(), 1);
    for (const int event : events) {
        if (E(event) == E::BridgeEnded)
            world.bridge = false;
        lifecycle.handle(E(event), 0);
    }
    tray.refresh();
    QCOMPARE(tray.statusLine()->text() + " | " + tray.onOffItem()->text(), title + " | " + command);
    QCOMPARE(int(tray.trayLook()), look);
    QCOMPARE(tray.trayIcon()->toolTip(), toolTip);
    QCOMPARE(tray.trayIcon()->icon().pixmap(22).toImage(),
             trayIcon(TrayLook(look)).pixmap(22).toImage());
    settings->setDeviceEnabled(speaker(2).location, false);
    settings->devices.at(speaker(1).location).bridgeView = BridgeView::Playing; // and ready
    tray.updateSpeakerItems(); // the tool tip follows the speakers: one offered is one
    QCOMPARE(tray.trayIcon()->toolTip().endsWith("— 1 speaker\n1 ready, 1 playing"),
             look == int(TrayLook::Running));
}

void TestTray::speakerItems()
{
    FakeFacts world;
    Lifecycle lifecycle(world, [] { return qint64(0); });
    auto settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    TrayPresenter tray(lifecycle, [&]() -> Settings & { return *settings; });
    QMenu *menu = tray.menu();
    QVERIFY(menu->actions().size() == 10 && !menu->actions().at(0)->isEnabled() &&
            !menu->actions().at(3)->isEnabled()); // only fixed ones; the status is no command
    QAction *formerFourth = menu->actions().at(4);
    for (int n : {3, 1, 2})
        settings->mergeDiscoveredSpeaker(speaker(n), {n != 1, "G"});
    settings->setDeviceEnabled(speaker(2).location, false);
    settings->devices.at(speaker(3).location).bridgeView = BridgeView::Playing;
    tray.updateSpeakerItems();
    const QList<QAction *> actions = menu->actions();
    QCOMPARE(actions.size(), 13);
    QStringList names;
    for (QAction *item : tray.speakerItems()) {
        names << item->text();
        QVERIFY(item->isCheckable() && !item->isEnabled());
    }
    // By location, members under their coordinator, each with what it is doing.
    QCOMPARE(names,
             QStringList({"Room 2 - One — Not offered", "Room 1 - One — In Room 2 - One's group",
                          "Room 3 - One — Playing"}));
    QCOMPARE(tray.speakerItems(), actions.mid(TrayPresenter::firstDeviceMenuIndex, 3));
    QCOMPARE(actions.at(7), formerFourth);
    QVERIFY(!tray.speakerItems()[0]->isChecked() && tray.speakerItems()[2]->isChecked());
    // Items are kept across updates; an "&" in a name is shown, not taken for a mnemonic.
    QAction *first = tray.speakerItems()[1];
    QVERIFY(settings->renameDevice(speaker(1).location, "Kids & Guests"));
    tray.updateSpeakerItems();
    QCOMPARE(tray.speakerItems()[1], first);
    QCOMPARE(first->text(), QStringLiteral("Kids && Guests — In Room 2 - One's group"));
    // It becomes a coordinator: its item moves to its own place in the menu.
    settings->mergeDiscoveredSpeaker(speaker(1), {true, "G"});
    tray.updateSpeakerItems();
    QCOMPARE(tray.speakerItems()[0], first);
    QCOMPARE(tray.speakerItems(), menu->actions().mid(TrayPresenter::firstDeviceMenuIndex, 3));
    // Past twelve speakers they move into the "Speakers" submenu; the menu keeps its length.
    for (int n = 4; n <= TrayPresenter::maxInlineSpeakers + 1; ++n)
        settings->mergeDiscoveredSpeaker(speaker(n), {true, "G"});
    tray.scheduleSpeakerItems();
    tray.scheduleSpeakerItems(); // one update for the burst
    QCOMPARE(tray.speakerItems().size(), 3);
    QCoreApplication::sendPostedEvents();
    QVERIFY(menu->actions().size() == 10 && tray.speakersMenu()->actions() == tray.speakerItems());
    QCOMPARE(menu->actions().at(3)->menu(), tray.speakersMenu());
    // Speakers not found (a new search) leave; below the limit the items come back inline.
    settings->markAllDevicesNotActive();
    tray.scheduleSpeakerItems(); // a later burst is one update too
    QCoreApplication::sendPostedEvents();
    QVERIFY(tray.speakerItems().isEmpty() && tray.speakersMenu()->actions().isEmpty());
    QVERIFY(!menu->actions().at(3)->menu());
    settings->mergeDiscoveredSpeaker(speaker(2), {true, "G"});
    tray.updateSpeakerItems();
    QCOMPARE(menu->actions().at(TrayPresenter::firstDeviceMenuIndex), tray.speakerItems().at(0));
    QCOMPARE(menu->actions().size(), 11);
}

void TestTray::noticesWithoutATray()
{
    if (m_bus.address.isEmpty())
        QSKIP("dbus-daemon cannot run here");
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address.toUtf8());
    QDBusConnection service = QDBusConnection::connectToBus(m_bus.address, "notifications");
    FakeNotifications notifications;
    QVERIFY(service.registerService("org.freedesktop.Notifications") &&
            service.registerVirtualObject("/org/freedesktop/Notifications", &notifications));
    const auto click = [&service](uint id) {
        QDBusMessage signal = QDBusMessage::createSignal(
            "/org/freedesktop/Notifications", "org.freedesktop.Notifications", "ActionInvoked");
        signal << id << QStringLiteral("action");
        service.send(signal);
        QTest::qWait(100);
    };
    LogCapture log;
    int runs = 0;
    Notices headless(false);
    headless.show("Bridge Not Installed", "Install it.", "Install", [&runs] { ++runs; });
    QVERIFY(log.has("Warning - Notice: Bridge Not Installed - Install it."));
    Notices notices(true);
    notices.setNoTray(true);
    notices.show("Title", "Said.");
    notices.show("Bridge Not Installed", "Install it.", "Install", [&runs] { ++runs; });
    CORVEL_WAIT(notifications.shown.size() == 2); // the headless one only logged
    const QVariantList plain = notifications.shown.at(0), withAction = notifications.shown.at(1);
    QCOMPARE(
        plain.mid(0, 6) << plain.at(7), // a new one, replacing none, as long as the server's
        QVariantList({"Corvel", 0u, "org.corvel.Corvel", "Title", "Said.", QStringList(), -1}));
    QCOMPARE(withAction.at(5).toStringList(),
             QStringList({"default", "Install", "action", "Install"}));
    click(1); // a notice without an action
    click(2);
    click(2); // the action runs once
    QCOMPARE(runs, 1);
    // Only the latest 16 notices keep their actions (here those numbered 7 to 22).
    for (int i = 0; i < 20; ++i)
        notices.show("More", "Said.", "Open", [&runs] { runs += 100; });
    CORVEL_WAIT(notifications.shown.size() == 22);
    click(6);
    QCOMPARE(runs, 1);
    click(7);
    QCOMPARE(runs, 101);
    // A tray icon made, but no tray on the screen to show it: still the desktop's notices.
    QSystemTrayIcon icon;
    Notices withIcon(true);
    withIcon.setTrayIcon(&icon);
    withIcon.show("Icon", "Said.");
    CORVEL_WAIT(notifications.shown.size() == 23);
    // With a tray: the balloon, whose click runs the action unless it was for the open menu.
    QMenu menu;
    icon.setContextMenu(&menu);
    withIcon.setTrayCheck([] { return true; });
    withIcon.show("Bridge Not Installed", "Install it.", "Install", [&runs] { ++runs; });
    menu.show();
    emit icon.messageClicked();
    QCOMPARE(runs, 101);
    menu.hide();
    emit icon.messageClicked();
    emit icon.messageClicked();
    QCOMPARE(runs, 102);
    CORVEL_WAIT(notices.findChildren<QDBusPendingCallWatcher *>().isEmpty());
}

void TestTray::iconLooks_data()
{
    // Each look against its reviewed picture (tests/data/tray), at 22 and 48 pixels: dimmed
    // when idle, an amber ring busy, a green dot running, a red dot with a white "!" a problem.
    QTest::addColumn<int>("look");
    for (const int look : {0, 1, 2, 3}) // idle, busy, running, a problem
        QTest::addRow("look %d", look) << look;
}

void TestTray::iconLooks()
{
    QFETCH(int, look);
    initCorvelResources();
    const QIcon icon = trayIcon(TrayLook(look));
    for (const int size : {22, 48}) {
        const QImage drawn =
            icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
        const QImage expected =
            QImage::fromData(testData(QStringLiteral("tray/look%1-%2.png").arg(look).arg(size)))
                .convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(drawn.size(), expected.size());
        int worst = 0; // processors' drawing routines may round differently
        for (int at = 0; at < size * size; ++at) {
            const QRgb a = drawn.pixel(at % size, at / size),
                       b = expected.pixel(at % size, at / size);
            worst = std::max({worst, std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                              std::abs(qBlue(a) - qBlue(b)), std::abs(qAlpha(a) - qAlpha(b))});
        }
        QVERIFY2(worst <= 8, qPrintable(QStringLiteral("size %1: off by %2").arg(size).arg(worst)));
    }
}

QTEST_MAIN(TestTray)
#include "TestTray.moc"
