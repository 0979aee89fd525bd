// SPDX-License-Identifier: GPL-3.0-or-later
// The Linux backends that work on files, programs and a bus: the XDG autostart entry, the sound
// outputs through pactl (a stand-in script that keeps the loaded modules in a file), and the
// resume watcher on a private D-Bus daemon standing in for the system bus.
#include "BuildConfig.h"
#include "DBusLauncherHelper.h"
#include "LinuxIdleInhibitor.h"
#include "LogindResumeWatcher.h"
#include "PactlSoundOutputs.h"
#include "Platform.h"
#include "SessionBus.h"
#include "TestSupport.h"
#include "XdgAutostart.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QTemporaryDir>
#include <sys/poll.h>
#include <unistd.h>

// The desktop's and logind's sleep locks, as the services answer them: a cookie each for the
// session's, a descriptor held open for logind's.
class FakeLocks : public QDBusVirtualObject
{
public:
    ~FakeLocks() override { ::close(pipeEnds[1]); }
    QStringList calls;
    int pipeEnds[2] = {-1, -1};
    bool refuse = false; // every call answered with an error
    bool hosted = true;  // as the tray's watcher: a panel hosts

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (refuse) {
            calls << message.member();
            return connection.send(message.createErrorReply(QDBusError::AccessDenied, "No"));
        }
        const QVariantList arguments = message.arguments();
        QDBusMessage reply = message.createReply();
        if (message.interface() == QLatin1String("org.freedesktop.login1.Manager")) {
            calls << "logind " + arguments.value(0).toString() + " " +
                         arguments.value(3).toString();
            if (::pipe(pipeEnds) != 0)
                return false;
            reply << QVariant::fromValue(QDBusUnixFileDescriptor(pipeEnds[0])); // a duplicate
            ::close(pipeEnds[0]);
        } else if (message.member() == QLatin1String("Inhibit")) {
            const bool gnome = message.interface() == QLatin1String("org.gnome.SessionManager");
            calls << (gnome ? "GNOME " + arguments.value(1).toString() + " " +
                                  arguments.value(3).toString()
                            : "Inhibit " + arguments.value(0).toString());
            reply << (gnome ? 9u : 7u);
        } else {
            calls << message.member() + " " + arguments.value(0).toString();
            if (message.member() == QLatin1String("Get")) // the tray's watcher
                reply << QVariant::fromValue(
                    QDBusVariant(arguments.value(1) == "IsStatusNotifierHostRegistered" && hosted));
        }
        return connection.send(reply);
    }
    QString introspect(const QString &) const override { return {}; }
};

class TestPlatform : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8()); }
    void autostartEntry();
    void enableAndDisable_data();
    void enableAndDisable();
    void refusalsAreSaid_data();
    void refusalsAreSaid();
    void resumeIsToldOncePerWake();
    void sleepLocks_data();
    void sleepLocks();
    void launcherHelperAndTrayHost();

public slots:
    void killLauncher(const QString &app) { m_killed << app; }

private:
    SoundOutputs::Status status(PactlSoundOutputs &outputs)
    {
        std::optional<SoundOutputs::Status> result;
        outputs.status([&result](const SoundOutputs::Status &s) { result = s; });
        waitFor([&result] { return result.has_value(); }, 5000); // a missing answer fails below
        return result.value_or(SoundOutputs::Status());
    }
    std::pair<bool, QString> setEnabled(PactlSoundOutputs &outputs, bool enable)
    {
        std::optional<std::pair<bool, QString>> result;
        outputs.setEnabled(enable, [&result](bool ok, const QString &e) { result = {ok, e}; });
        waitFor([&result] { return result.has_value(); }, 5000); // a missing answer fails below
        return result.value_or(std::pair(false, QStringLiteral("no answer")));
    }
    void serve(const QByteArray &server, const QByteArray &refused = {})
    {
        qputenv("FAKE_PACTL_SERVER", server);
        qputenv("FAKE_PACTL_REFUSE", refused);
        qputenv("FAKE_PACTL_STATE", m_config.filePath(QStringLiteral("modules")).toUtf8());
        QFile::remove(m_config.filePath(QStringLiteral("modules")));
    }

    QTemporaryDir m_config;
    QStringList m_killed;
    const QString m_pactl = QStringLiteral(CORVEL_TEST_DATA "/platform/fake-pactl");
};

void TestPlatform::autostartEntry()
{
    XdgAutostart autostart;
    const QString path =
        m_config.filePath(QStringLiteral("autostart/" CORVEL_HELPER_ID ".desktop"));
    QVERIFY(XdgAutostart::entryPath() == path && !autostart.enabled());
    LogCapture capture;
    QString error;
    QVERIFY(autostart.setEnabled(true, &error) && autostart.enabled());
    QCOMPARE(readFile(path), XdgAutostart::desktopEntry(QCoreApplication::applicationFilePath()));
    // Quoted and escaped as the desktop entry format asks, for any path.
    const QByteArray entryText = XdgAutostart::desktopEntry(R"(/opt/a b/$x"`\corvel)");
    QVERIFY2(entryText.startsWith("[Desktop Entry]\nType=Application\n") &&
                 entryText.contains(R"(Exec="/opt/a b/\\$x\\"\\`\\\\corvel" --autostart)"
                                    "\n"
                                    R"(TryExec=/opt/a b/$x"`\\corvel)"),
             entryText.constData());
    QVERIFY(capture.has("Info preferences Enabled start at login"));
    // Hidden=true is not enabled.
    QFile entry(path);
    QVERIFY(entry.open(QIODevice::Append) && entry.write("Hidden = true\n") > 0);
    entry.close();
    QVERIFY(!autostart.enabled() && autostart.setEnabled(false, &error) && !QFile::exists(path));
    QVERIFY(capture.has("Info preferences Disabled start at login"));
    // A file where the folder should be: enabling fails, and says so.
    const QString folder = QFileInfo(path).path();
    QVERIFY(QDir().rmdir(folder) && QFile(folder).open(QIODevice::WriteOnly));
    QVERIFY(!autostart.setEnabled(true, &error) && !error.isEmpty());
    QVERIFY(capture.has("Error preferences Failed to enable start at login"));
    QFile::remove(folder);
}

void TestPlatform::enableAndDisable_data()
{
    QTest::addColumn<QByteArray>("server");
    QTest::newRow("PipeWire") << QByteArray("PulseAudio (on PipeWire 0.3.65)");
    QTest::newRow("PulseAudio") << QByteArray("pulseaudio");
}

void TestPlatform::enableAndDisable()
{
    QFETCH(QByteArray, server);
    serve(server);
    const QString home = m_config.filePath(QStringLiteral("home"));
    PactlSoundOutputs outputs(m_pactl, home, [](auto done) { done(true); });
    QVERIFY(outputs.pipeWireDropIn().startsWith(home + "/pipewire/"));
    const bool pipeWire = server.contains("PipeWire");
    const QByteArray mine = ".include /etc/pulse/default.pa\nload-module module-echo-cancel";
    QDir().mkpath(QFileInfo(outputs.pulseAudioScript()).path());
    QVERIFY(writeFile(outputs.pulseAudioScript(), mine)); // the user's own, kept
    QCOMPARE(setEnabled(outputs, true), std::pair(true, QString()));
    QVERIFY(status(outputs).raopDiscoveryActive);
    QCOMPARE(QFile::exists(outputs.pipeWireDropIn()), pipeWire);
    QCOMPARE(readFile(outputs.pulseAudioScript()),
             pipeWire ? mine : mine + "\nload-module module-raop-discover\n");
    QCOMPARE(setEnabled(outputs, true).first, true); // twice: nothing added twice
    QCOMPARE(readFile(outputs.pulseAudioScript()).count("raop"), pipeWire ? 0 : 1);
    QCOMPARE(setEnabled(outputs, false), std::pair(true, QString()));
    QVERIFY(!status(outputs).raopDiscoveryActive && !QFile::exists(outputs.pipeWireDropIn()));
    QCOMPARE(readFile(outputs.pulseAudioScript()), mine + (pipeWire ? "" : "\n"));
}

void TestPlatform::refusalsAreSaid_data()
{
    QTest::addColumn<QByteArray>("server");
    QTest::addColumn<QByteArray>("refused"); // a pactl command, pactl itself, or the config folder
    QTest::addColumn<bool>("enable");
    QTest::addColumn<QString>("said");
    for (const QStringList &column : tableRows(QStringLiteral("platform/refusals.txt"), 5)) {
        QTest::addRow("%s", qPrintable(column[0]))
            << column[1].toUtf8() << column[2].toUtf8() << (column[3] == "on") << column[4];
    }
}

void TestPlatform::refusalsAreSaid()
{
    QFETCH(QByteArray, server);
    QFETCH(QByteArray, refused);
    QFETCH(bool, enable);
    QFETCH(QString, said);
    serve(server, refused);
    if (!enable) // loaded, to be unloaded
        QVERIFY(writeFile(m_config.filePath("modules"), "536870913\tmodule-raop-discover\t\t\n"));
    PactlSoundOutputs outputs(refused == "pactl" ? "/nonexistent/pactl" : m_pactl,
                              refused == "config" ? m_pactl + "/config"
                                                  : m_config.filePath("refusals"),
                              [refused](auto done) { done(refused != "avahi"); });
    const auto [ok, error] = setEnabled(outputs, enable);
    QVERIFY2(!ok && error.startsWith(said), qPrintable(error));
}

void TestPlatform::resumeIsToldOncePerWake()
{
    QTemporaryDir dir;
    SessionBus bus(dir.path());
    if (bus.address.isEmpty())
        QSKIP("dbus-daemon cannot run here");
    const QString &address = bus.address;
    // logind's side: the name and its signal; only logind's signals count.
    QDBusConnection logind = QDBusConnection::connectToBus(address, QStringLiteral("logind"));
    QDBusConnection other = QDBusConnection::connectToBus(address, QStringLiteral("other"));
    QVERIFY(logind.registerService(QStringLiteral("org.freedesktop.login1")));
    LogindResumeWatcher watcher(QDBusConnection::connectToBus(address, QStringLiteral("watcher")));
    int resumes = 0;
    watcher.watch([&resumes] { ++resumes; });
    const auto prepare = [](QDBusConnection &bus, bool sleeping) {
        QDBusMessage signal = QDBusMessage::createSignal(
            QStringLiteral("/org/freedesktop/login1"),
            QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"));
        signal << sleeping;
        QVERIFY(bus.send(signal));
    };
    prepare(other, false);
    prepare(logind, true); // going to sleep is no wake-up
    QTest::qWait(200);
    QCOMPARE(resumes, 0);
    prepare(logind, false);
    CORVEL_WAIT(resumes == 1);
}

void TestPlatform::sleepLocks_data()
{
    QTest::addColumn<QStringList>("services");
    QTest::addColumn<QStringList>("taken");
    QTest::addColumn<QStringList>("released");
    const auto list = [](const QString &text) {
        return text == "-" ? QStringList() : text.split(", ");
    };
    for (const QStringList &column : tableRows(QStringLiteral("platform/sleep-locks.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0]))
            << list(column[1]) << list(column[2]) << list(column[3]);
}

void TestPlatform::sleepLocks()
{
    QFETCH(QStringList, services);
    QFETCH(QStringList, taken);
    QFETCH(QStringList, released);
    QTemporaryDir dir;
    SessionBus bus(dir.path());
    if (bus.address.isEmpty())
        QSKIP("dbus-daemon cannot run here");
    // One private bus plays both the session's and the system's.
    const QString row = QString::fromUtf8(QTest::currentDataTag());
    QDBusConnection server = QDBusConnection::connectToBus(bus.address, "server " + row);
    FakeLocks locks;
    locks.refuse = services.removeAll("refused") > 0;
    const std::map<QString, QString> paths = {
        {"org.gnome.SessionManager", "/org/gnome/SessionManager"},
        {"org.freedesktop.PowerManagement", "/org/freedesktop/PowerManagement/Inhibit"},
        {"org.freedesktop.login1", "/org/freedesktop/login1"}};
    for (const QString &service : services)
        QVERIFY(server.registerService(service) &&
                server.registerVirtualObject(paths.at(service), &locks));
    const auto client = QDBusConnection::connectToBus(bus.address, "client " + row);
    auto inhibitor = std::make_unique<LinuxIdleInhibitor>(
        client, services.isEmpty() ? QDBusConnection("no system bus") : client);
    std::optional<std::pair<int, quint32>> created;
    inhibitor->create(QStringLiteral("corvel"), [&created](int result, quint32 id) {
        created = {result, id};
    });
    CORVEL_WAIT(created);
    QCOMPARE(locks.calls, taken);
    QCOMPARE(created->first, taken.isEmpty() || locks.refuse ? LinuxIdleInhibitor::noLockTaken : 0);
    if (taken.isEmpty() || locks.refuse)
        return;
    const auto logindHeld = [&locks] {
        pollfd writer{locks.pipeEnds[1], POLLOUT, 0};
        return locks.pipeEnds[1] >= 0 && ::poll(&writer, 1, 0) == 1 && !(writer.revents & POLLERR);
    };
    QCOMPARE(logindHeld(), services.contains("org.freedesktop.login1"));
    locks.calls.clear();
    inhibitor->release(created->second);
    inhibitor->release(created->second); // a second release of the same lock does nothing
    CORVEL_WAIT(locks.calls == released);
    QTest::qWait(100);
    QVERIFY(locks.calls == released && !logindHeld());
}

void TestPlatform::launcherHelperAndTrayHost()
{
    SessionBus bus(m_config.path());
    if (bus.address.isEmpty())
        QSKIP("dbus-daemon cannot run here");
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.address.toUtf8()); // this process's, from here on
    QDBusConnection helper = QDBusConnection::connectToBus(bus.address, QStringLiteral("helper"));
    QVERIFY(helper.connect({}, "/org/corvel/Corvel", CORVEL_APP_ID, "killLauncher", this,
                           SLOT(killLauncher(QString))));
    DBusLauncherHelper launcher;
    int stopping = 0;
    launcher.stopIfRunning([&stopping] { ++stopping; }); // no helper runs: nothing to stop
    QTest::qWait(300);
    QVERIFY(stopping == 0 && m_killed.isEmpty());
    QVERIFY(helper.registerService(QStringLiteral(CORVEL_HELPER_ID)));
    launcher.stopIfRunning([&stopping] { ++stopping; });
    CORVEL_WAIT(m_killed == QStringList{CORVEL_APP_ID});
    QCOMPARE(stopping, 1);
    // A tray: a panel registered as the watcher's host (no X server here for an XEmbed one).
    std::optional<bool> host;
    const auto trayHost = [&host] {
        host.reset();
        Platform::whenTrayHostRegistered([&host](bool found) { host = found; });
        return waitFor([&host] { return host.has_value(); }, 5000) && *host;
    };
    QVERIFY(!trayHost() && host);
    FakeLocks watcher;
    QVERIFY(helper.registerService("org.kde.StatusNotifierWatcher") &&
            helper.registerVirtualObject("/StatusNotifierWatcher", &watcher));
    QVERIFY(trayHost());
    watcher.hosted = false; // a watcher without a panel is no tray
    QVERIFY(!trayHost() && host);
}

QTEST_GUILESS_MAIN(TestPlatform)
#include "TestPlatform.moc"
