// SPDX-License-Identifier: GPL-3.0-or-later
// The tray menu as a desktop panel sees it: Corvel runs under Xvfb on a private session bus
// where a stand-in StatusNotifierWatcher lets it register its item; the test reads the
// exported menu through com.canonical.dbusmenu and clicks entries, as a panel would.
#include "NetworkGuard.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
QMutex g_mutex;
QString g_itemService;

struct MenuEntry
{
    int id = 0;
    QString label;
    bool enabled = true;
    bool separator = false;
    int toggleState = -1;
};

void readLayout(const QDBusArgument &argument, QList<MenuEntry> *entries, bool top)
{
    MenuEntry entry;
    QVariantMap properties;
    argument.beginStructure();
    argument >> entry.id >> properties;
    // The children are an array of variants, each holding a nested layout structure.
    QList<QDBusArgument> children;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        children.append(child.variant().value<QDBusArgument>());
    }
    argument.endArray();
    argument.endStructure();
    entry.label = properties.value(QStringLiteral("label")).toString().remove(QLatin1Char('_'));
    entry.enabled = properties.value(QStringLiteral("enabled"), true).toBool();
    entry.separator =
        properties.value(QStringLiteral("type")).toString() == QLatin1String("separator");
    entry.toggleState = properties.value(QStringLiteral("toggle-state"), -1).toInt();
    if (!top)
        entries->append(entry);
    for (const QDBusArgument &child : children)
        readLayout(child, entries, false);
}
} // namespace

// The panel's side: accepts item registrations and says a host is present.
class StatusNotifierWatcher : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const
    {
        QMutexLocker locker(&g_mutex);
        return g_itemService.isEmpty() ? QStringList() : QStringList(g_itemService);
    }
public slots:
    void RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message)
    {
        QMutexLocker locker(&g_mutex);
        // Qt passes its item's service name; a path alone means the caller's own name.
        g_itemService = service.startsWith(QLatin1Char('/')) ? message.service() : service;
    }
    void RegisterStatusNotifierHost(const QString &) {}
};

class TestTrayMenu : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void exportedMenuShowsLifecycleAndSpeakers();

private:
    QList<MenuEntry> layout();
    int idOf(const QString &label);
    bool waitFor(const std::function<bool()> &condition, int ms);

    QProcess m_xvfb, m_bus, m_simulator, m_corvel;
    QTemporaryDir m_home;
    QString m_busAddress;
    QThread m_watcherThread;
    StatusNotifierWatcher *m_watcher = nullptr;
};

bool TestTrayMenu::waitFor(const std::function<bool()> &condition, int ms)
{
    QElapsedTimer waited;
    waited.start();
    while (!condition()) {
        if (waited.elapsed() > ms)
            return false;
        QTest::qWait(100);
    }
    return true;
}

void TestTrayMenu::initTestCase()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    m_xvfb.start(QStringLiteral("Xvfb"),
                 {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "1024x768x24"});
    if (!m_xvfb.waitForStarted(5000))
        QSKIP("Xvfb is not installed");
    QVERIFY(m_xvfb.waitForReadyRead(10000));
    const QString display = QStringLiteral(":") + QString::fromUtf8(m_xvfb.readLine().trimmed());

    m_bus.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
    if (!m_bus.waitForStarted(5000))
        QSKIP("dbus-daemon is not installed");
    QVERIFY(m_bus.waitForReadyRead(5000));
    m_busAddress = QString::fromUtf8(m_bus.readLine().trimmed());

    m_watcherThread.start();
    m_watcher = new StatusNotifierWatcher;
    m_watcher->moveToThread(&m_watcherThread);
    QDBusConnection watcherBus =
        QDBusConnection::connectToBus(m_busAddress, QStringLiteral("watcher"));
    QVERIFY(watcherBus.registerObject(QStringLiteral("/StatusNotifierWatcher"), m_watcher,
                                      QDBusConnection::ExportAllSlots |
                                          QDBusConnection::ExportAllProperties));
    QVERIFY(watcherBus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));

    m_simulator.start(QStringLiteral(SPEAKER_SIM), {"--players", "3"});
    QByteArray simulatorOutput;
    while (!simulatorOutput.contains("ready\n") && m_simulator.waitForReadyRead(5000))
        simulatorOutput += m_simulator.readAll();
    QVERIFY(simulatorOutput.contains("ready\n"));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_busAddress);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_home.path());
    env.insert(QStringLiteral("XDG_STATE_HOME"), m_home.filePath(QStringLiteral("state")));
    env.insert(QStringLiteral("CORVEL_BRIDGE"), QStringLiteral(FAKE_BRIDGE));
    env.insert(QStringLiteral("FAKE_BRIDGE_READY_MS"), QStringLiteral("100"));
    env.remove(QStringLiteral("XDG_CURRENT_DESKTOP"));
    m_corvel.setProcessEnvironment(env);
    m_corvel.setStandardOutputFile(m_home.filePath(QStringLiteral("corvel.log")));
    m_corvel.setStandardErrorFile(m_home.filePath(QStringLiteral("corvel.log")), QIODevice::Append);
    m_corvel.start(QStringLiteral(CORVEL_EXECUTABLE), {});
    QVERIFY(m_corvel.waitForStarted());
    // A sanitizer build on a loaded machine can take a while to register.
    const auto registered = [] {
        QMutexLocker locker(&g_mutex);
        return !g_itemService.isEmpty();
    };
    if (!waitFor(registered, 40000)) {
        QFile log(m_home.filePath(QStringLiteral("corvel.log")));
        log.open(QIODevice::ReadOnly);
        QFAIL(qPrintable(QStringLiteral("Corvel did not register a tray item; its output:\n") +
                         QString::fromUtf8(log.readAll().right(4000))));
    }
}

void TestTrayMenu::cleanupTestCase()
{
    if (m_corvel.state() == QProcess::Running) {
        m_corvel.terminate();
        m_corvel.waitForFinished(5000);
    }
    for (QProcess *process : {&m_simulator, &m_bus, &m_xvfb}) {
        process->terminate();
        process->waitForFinished(3000);
    }
    // Deleted in its own thread before that stops; a queued deleteLater could be dropped.
    if (m_watcher) {
        QObject *watcher = m_watcher;
        QMetaObject::invokeMethod(
            watcher, [watcher] { delete watcher; }, Qt::BlockingQueuedConnection);
        m_watcher = nullptr;
    }
    m_watcherThread.quit();
    m_watcherThread.wait();
    for (const char *name : {"watcher", "panel"})
        QDBusConnection::disconnectFromBus(QLatin1String(name));
}

QList<MenuEntry> TestTrayMenu::layout()
{
    QString service;
    {
        QMutexLocker locker(&g_mutex);
        service = g_itemService;
    }
    QDBusConnection bus = QDBusConnection::connectToBus(m_busAddress, QStringLiteral("panel"));
    QDBusInterface item(service, QStringLiteral("/StatusNotifierItem"),
                        QStringLiteral("org.kde.StatusNotifierItem"), bus);
    const QString menuPath = item.property("Menu").value<QDBusObjectPath>().path();
    QDBusMessage call = QDBusMessage::createMethodCall(
        service, menuPath, QStringLiteral("com.canonical.dbusmenu"), QStringLiteral("GetLayout"));
    call << 0 << -1 << QStringList();
    const QDBusMessage reply = bus.call(call, QDBus::Block, 3000);
    QList<MenuEntry> entries;
    if (reply.type() == QDBusMessage::ReplyMessage && reply.arguments().size() == 2)
        readLayout(reply.arguments().at(1).value<QDBusArgument>(), &entries, true);
    return entries;
}

int TestTrayMenu::idOf(const QString &label)
{
    for (const MenuEntry &entry : layout()) {
        if (entry.label == label)
            return entry.id;
    }
    return -1;
}

void TestTrayMenu::exportedMenuShowsLifecycleAndSpeakers()
{
    // After the search: the status line, the command, the header, three speakers, then the
    // fixed commands.
    QVERIFY2(waitFor([this] { return layout().size() == 13; }, 20000),
             "the three speakers never appeared");
    const QList<MenuEntry> entries = layout();
    QCOMPARE(entries[0].label.startsWith(QStringLiteral("Corvel: ")), true);
    QVERIFY(!entries[0].enabled);
    QCOMPARE(entries[1].label, QStringLiteral("Turn Corvel Off"));
    QVERIFY(entries[2].separator);
    QCOMPARE(entries[3].label, QStringLiteral("Speakers"));
    const QStringList speakers = {"Living Room - PLAY:3", "Kitchen - PLAY:3", "Bedroom - PLAY:3"};
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(entries[4 + i].label, speakers[i]);
        QVERIFY(!entries[4 + i].enabled);
        QCOMPARE(entries[4 + i].toggleState, 1);
    }
    QVERIFY(entries[7].separator);
    QCOMPARE(entries[8].label, QStringLiteral("Preferences…"));
    QCOMPARE(entries[12].label, QStringLiteral("Quit Corvel"));

    // The search ends, the bridge starts and becomes ready.
    QVERIFY(waitFor([this] { return layout().value(0).label == QStringLiteral("Corvel: Running"); },
                    20000));

    // Clicking the command turns Corvel off, as a panel click would.
    QDBusConnection bus = QDBusConnection::connectToBus(m_busAddress, QStringLiteral("panel"));
    QString service;
    {
        QMutexLocker locker(&g_mutex);
        service = g_itemService;
    }
    QDBusInterface item(service, QStringLiteral("/StatusNotifierItem"),
                        QStringLiteral("org.kde.StatusNotifierItem"), bus);
    const QString menuPath = item.property("Menu").value<QDBusObjectPath>().path();
    QDBusMessage click = QDBusMessage::createMethodCall(
        service, menuPath, QStringLiteral("com.canonical.dbusmenu"), QStringLiteral("Event"));
    click << idOf(QStringLiteral("Turn Corvel Off")) << QStringLiteral("clicked")
          << QVariant::fromValue(QDBusVariant(0)) << 0u;
    QCOMPARE(bus.call(click, QDBus::Block, 3000).type(), QDBusMessage::ReplyMessage);
    QVERIFY(waitFor([this] { return layout().value(1).label == QStringLiteral("Turn Corvel On"); },
                    5000));
    QVERIFY(waitFor([this] { return layout().value(0).label == QStringLiteral("Corvel: Stopped"); },
                    5000));
    QCOMPARE(m_corvel.state(), QProcess::Running);
}

QTEST_GUILESS_MAIN(TestTrayMenu)
#include "TestTrayMenu.moc"
