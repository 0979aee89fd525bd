// SPDX-License-Identifier: GPL-3.0-or-later
// The whole program: build/bin/corvel --headless as a server runs it, against a simulated
// household answering from this process and the stand-in bridge, in a private network
// namespace.
#include "HeadlessCorvel.h"
#include "SessionBus.h"
#include "Settings.h"
#include "SpeakerSimulator.h"
#include "TestSupport.h"

#include <csignal>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

namespace {
QByteArray deviceBlock(const char *udn, const char *name, int enabled)
{
    return QByteArray("<device>\n  <udn>uuid:") + udn + "</udn>\n  <name>" + name +
           "</name>\n  <enabled>" + QByteArray::number(enabled) + "</enabled>\n</device>";
}

// corvel --headless with the stand-in bridge under a name only this run of the suite uses.
struct Corvel : HeadlessCorvel
{
    explicit Corvel(const QString &home, const QStringList &environment = {},
                    const QStringList &arguments = {QStringLiteral("--headless")})
        : HeadlessCorvel(
              QStringLiteral(CORVEL), QStringLiteral(FAKE_BRIDGE), home,
              QStringLiteral("airupnp-endtoend-%1").arg(QCoreApplication::applicationPid()),
              environment, arguments)
    {
    }
};

} // namespace

class TestEndToEnd : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { CORVEL_REQUIRE_PRIVATE_NETWORK(); }
    void headlessLifecycle();
    void killedCorvelTakesItsBridgeAndKeepsItsSettings();
    void keepsWatchingAndAppliesChangesAtOnce();
    void servesTheSpeakersNetworkOnceItHasAnAddress();
    void commandLineRefusesWhatItDoesNotTake();
    void desktopStartWaitsForThePanelsTray();
};

void TestEndToEnd::commandLineRefusesWhatItDoesNotTake()
{
    // A stray word is a mistake, not a start (with a search); the version prints alone, even
    // on a server without a runtime folder.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_RUNTIME_DIR", "DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
        env.remove(QString::fromLatin1(name)); // the bus: no running Corvel to reach
    QTemporaryDir home;
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.filePath(QStringLiteral("state")));
    const auto run = [&env](const QStringList &arguments, QByteArray *out, QByteArray *err) {
        QProcess corvel;
        corvel.setProcessEnvironment(env);
        corvel.start(QStringLiteral(CORVEL), arguments);
        const bool ended = corvel.waitForFinished(10000); // else killed as it goes
        *out = corvel.readAllStandardOutput();
        *err = corvel.readAllStandardError();
        return ended ? corvel.exitCode() : -1;
    };
    QByteArray out, err;
    QCOMPARE(run({QStringLiteral("Kitchen")}, &out, &err), 2);
    QVERIFY2(err.contains("Unknown argument \"Kitchen\"") && !err.contains("searchForDevices"),
             err.constData());
    // The rest never open a window: a screen that cannot be reached does not stop them.
    env.insert(QStringLiteral("DISPLAY"), QStringLiteral("unreachable:9"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    QCOMPARE(run({"--rename", "Kitchen", "Den"}, &out, &err), 1); // no such speaker stored
    QVERIFY2(err.contains("No known speaker has the location or name \"Kitchen\"") &&
                 err.contains("[Warning][Qt] QStandardPaths: XDG_RUNTIME_DIR not set"), // logged
             err);
    QVERIFY(run({"--help"}, &out, &err) == 0 && out.contains("audio on Sonos speakers.\n"));
    QVERIFY2(run({"--version"}, &out, &err) == 0 && out.startsWith("Corvel ") &&
                 out.count('\n') == 1 && err.isEmpty(),
             out + err);
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("de_DE.UTF-8")); // told in German
    QCOMPARE(run({"--rename", "Kitchen"}, &out, &err), 2);
    QVERIFY2(err.contains("--rename braucht den neuen Namen nach dem Lautsprecher"), err);
}

void TestEndToEnd::desktopStartWaitsForThePanelsTray()
{
    // At login Corvel may start before the panel (trayer, from scripts/setup): it waits for
    // the panel's tray, then lives there without a window until a second start asks for one.
    QProcess display, panel;
    display.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-nolisten", "tcp"});
    QVERIFY2(display.waitForReadyRead(10000), "Xvfb did not start (scripts/setup installs it)");
    const QString screen = QLatin1Char(':') + display.readLine().trimmed();
    QTemporaryDir home;
    SessionBus bus(home.path());
    Corvel corvel(home.path(),
                  {"DISPLAY=" + screen, "QT_QPA_PLATFORM=xcb",
                   "DBUS_SESSION_BUS_ADDRESS=" + bus.address, "CORVEL_BRIDGE=/nonexistent/airupnp"},
                  {QStringLiteral("--autostart")});
    QVERIFY(corvel.waitFor("applicationWillFinishLaunching"));
    // Started by hand where no tray runs at all: the window at once, and why in the log.
    Corvel alone(home.filePath("alone"), {"DISPLAY=" + screen, "QT_QPA_PLATFORM=xcb"}, {});
    QVERIFY(alone.waitFor("viewWillAppear", 10000) && alone.output.contains("No system tray"));
    QVERIFY(!corvel.waitFor("applicationDidFinishLaunching", 1500));
    panel.start(QStringLiteral("env"), {"DISPLAY=" + screen, "trayer"});
    QVERIFY2(corvel.waitFor("Listening for announcements"), corvel.output.constData());
    // No bridge here: said in the tray's balloon, not in the desktop's notifications (which
    // this bus does not have).
    QVERIFY(corvel.waitFor("Notice: AirConnect bridge needed"));
    QVERIFY(!corvel.waitFor("viewWillAppear", 1000) && !corvel.output.contains("No system tray"));
    QVERIFY2(!corvel.output.contains("No notification service"), corvel.output.constData());
    QByteArray out;
    QVERIFY(corvel.run({}, &out) == 0 && corvel.waitFor("viewWillAppear") && corvel.end(SIGTERM));
}

void TestEndToEnd::headlessLifecycle()
{
    QTemporaryDir home;
    SpeakerSimulator simulator(SpeakerSimulator::household(3, 2, true));
    QString error;
    QVERIFY2(simulator.start(&error), qPrintable(error));
    // The user switched the first speaker off in an earlier run.
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    {
        auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
        DeviceInfo known;
        known.location = simulator.players()[0].location();
        settings->mergeDiscoveredSpeaker(known, DeviceTopology{true, QStringLiteral("G")});
        settings->setDeviceEnabled(known.location, false);
    }
    Corvel corvel(home.path());
    QVERIFY2(corvel.waitFor("adding renderer"), corvel.output.right(3000));
    // Coordinators on, the group member and the speaker switched off as 0, no BOOST.
    const QByteArray config = corvel.bridgeRecord("config.xml");
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000101400", "Living Room - PLAY:3", 0)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 1)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000301400", "Bedroom - PLAY:3", 0)));
    QCOMPARE(config.count("<device>"), 3);
    QCOMPARE(corvel.bridgeRecord("args.txt"),
             "-Z\n-x\n" + home.filePath(QStringLiteral("airupnp.xml")).toUtf8() + "\n");
    const QList<QByteArray> milestones = {
        "[Info][default] Adding menu item Kitchen - PLAY:3", "[Info][SSDP] closedSession(",
        "[Info][default] Discovery complete, starting AirConnect", "adding renderer"};
    qsizetype at = 0;
    for (const QByteArray &milestone : milestones) {
        at = corvel.output.indexOf(milestone, at);
        QVERIFY2(at >= 0, milestone.constData());
    }
    const pid_t bridge = corvel.bridgeRecord("pid").toInt();
    QVERIFY(bridge > 0 && corvel.end(SIGTERM)); // as a service manager stops it: exit 0
    QVERIFY(::kill(bridge, 0) != 0);            // the bridge is gone, and reaped
    // With no Corvel running, the commands work on the stored settings; --list searches first.
    QVERIFY(QFile::remove(home.filePath(QStringLiteral("config/Corvel/Corvel.conf"))));
    QByteArray out;
    QCOMPARE(corvel.run({"--list"}, &out), 0);
    QVERIFY2(out.contains("enabled   \"Kitchen - PLAY:3\"") && !out.contains("[Info]"),
             out.constData()); // the list alone
    QCOMPARE(corvel.run({"--disable", "Kitchen - PLAY:3"}, &out), 0);
    QCOMPARE(corvel.run({"--rename", "Kitchen - PLAY:3", "Den"}, &out), 0);
    QVERIFY(corvel.run({"--list"}, &out) == 0 && out.contains("disabled  \"Den\""));
}

void TestEndToEnd::killedCorvelTakesItsBridgeAndKeepsItsSettings()
{
    QTemporaryDir home;
    SpeakerSimulator simulator(SpeakerSimulator::household(2, 2));
    QVERIFY(simulator.start(nullptr));
    // The first session finds a settings document it cannot read: it says so on standard
    // error (the log exists before the settings are read) and keeps a copy.
    QVERIFY(QDir(home.path()).mkpath(QStringLiteral("config/Corvel")));
    QVERIFY(writeFile(home.filePath(QStringLiteral("config/Corvel/Corvel.conf")),
                      "[General]\nsettings=\"{\\\"devices\\\": [\"\n"));
    for (int round = 0; round < 2; ++round) {
        Corvel corvel(home.path());
        QVERIFY2(corvel.waitFor("adding renderer"), corvel.output.right(3000));
        const pid_t bridge = corvel.bridgeRecord("pid").toInt();
        corvel.end(round == 0 ? SIGABRT : SIGKILL); // a crash, then a kill
        CORVEL_WAIT_MS(::kill(bridge, 0) != 0, 10000);
        // The next session reads what the killed one left, and finds no bridge left over.
        QCOMPARE(corvel.output.contains("[Error][settings] Failed to deserialize settings, "),
                 round == 0);
        QVERIFY(!corvel.output.contains("stale bridge"));
    }
    QCOMPARE(QDir(home.filePath(QStringLiteral("config/Corvel")))
                 .entryList({QStringLiteral("Corvel.conf.unreadable-*")})
                 .size(),
             1);
    // The crash left its report, kept with nobody to ask.
    QCOMPARE(QDir(home.filePath("state/corvel/reports")).entryList(QDir::Files).size(), 1);
}

void TestEndToEnd::keepsWatchingAndAppliesChangesAtOnce()
{
    QTemporaryDir home;
    SessionBus bus(home.path());
    QVERIFY2(!bus.address.isEmpty(), "dbus-daemon did not start");
    // The bridge plays on its first speaker, and says another program holds its ports.
    Corvel corvel(home.path(), {"DBUS_SESSION_BUS_ADDRESS=" + bus.address,
                                "FAKE_BRIDGE_SAY=[@0]: uPNP playing\nCannot bind or listen RTSP "
                                "listener: Address in use"});
    QVERIFY(corvel.waitFor("Discovery finished with no speakers found"));
    // The speakers come up after Corvel and announce themselves: three groups, one member.
    SpeakerSimulator simulator(SpeakerSimulator::household(4, 3));
    QVERIFY(simulator.start(nullptr));
    QVERIFY2(corvel.waitFor("uPNP playing"), corvel.output.right(3000));
    QByteArray out;
    QCOMPARE(corvel.run({"--list"}, &out), 0);
    for (const char *line :
         {"enabled   \"Living Room - PLAY:3\"  Playing", "enabled   \"Kitchen - PLAY:3\"  Ready",
          "enabled   \"Office - PLAY:3\"  In Living Room - PLAY:3's group"})
        QVERIFY2(out.contains(line), out.constData());
    const QByteArray notice = "Notice: Corvel - Another program holds the bridge's ports";
    QVERIFY(corvel.waitFor(notice));
    QVERIFY(corvel.bridgeRecord("config.xml")
                .contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 1)));
    // A command goes to the running Corvel, which restarts the bridge with the change.
    QCOMPARE(corvel.run({"--disable", "Kitchen - PLAY:3"}, &out), 0);
    CORVEL_WAIT_MS(corvel.bridgeRecord("config.xml")
                       .contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 0)),
                   10000);
    // The file may change before Corvel's own line about it has been read.
    QVERIFY(corvel.waitFor("Speakers changed, restarting AirConnect"));
    QCOMPARE(corvel.run({"--list"}, &out), 0);
    QVERIFY2(out.contains("disabled  \"Kitchen - PLAY:3\"  Not offered"), out.constData());
    // The restarted bridge says it again: logged again, told once.
    QCOMPARE(corvel.output.count(notice), 1);
    // A second start leaves the first one, and its bridge, alone.
    const pid_t bridge = corvel.bridgeRecord("pid").toInt();
    QCOMPARE(corvel.run({"--headless"}, &out), 0);
    QVERIFY(out.contains("Corvel is already running."));
    QVERIFY(corvel.waitFor("Another copy of Corvel was started"));
    QCOMPARE(::kill(bridge, 0), 0);
    QVERIFY(corvel.end(SIGTERM));
}

void TestEndToEnd::servesTheSpeakersNetworkOnceItHasAnAddress()
{
    // docker0 comes first, as with Docker; the speakers are behind lan0, a veth into their own
    // namespace, whose address comes only after Corvel's first search.
    const auto ip = [](const QString &command) {
        return QProcess::execute(QStringLiteral("ip"), command.split(QLatin1Char(' '))) == 0;
    };
    if (!ip("link add docker0 type veth peer name docker0p"))
        QSKIP("No veth interfaces can be made in this namespace");
    QVERIFY(ip("addr add 198.51.100.1/24 dev docker0") && ip("link set docker0p up") &&
            ip("link set docker0 up"));
    QProcess speakers; // a namespace of their own, lan1 moved in from here
    speakers.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    speakers.start(QStringLiteral("unshare"), {"--net", SPEAKERS_NETNS, SPEAKER_SIM, "--players",
                                               "3", "--groups", "2", "--model", "1:S18:Sonos One"});
    // lan1 can move in once the helper has its own namespace.
    QVERIFY(speakers.waitForReadyRead(10000) && speakers.readLine().startsWith("unshared"));
    const auto cleanUp = qScopeGuard([&] {
        ip("link del docker0"); // lan0 goes with the speakers' namespace, killed as they go
    });
    QVERIFY(ip(QStringLiteral("link add lan0 type veth peer name lan1 netns %1")
                   .arg(speakers.processId())) &&
            ip("link set lan0 up"));
    QByteArray listed;
    CORVEL_WAIT_MS((listed += speakers.readAllStandardOutput()).contains("ready\n"), 10000);

    QTemporaryDir home;
    Corvel corvel(home.path());
    QVERIFY2(corvel.waitFor("Discovery finished with no speakers found"),
             corvel.output.right(3000));
    QVERIFY(ip("addr add 192.0.2.1/24 dev lan0"));
    QVERIFY2(corvel.waitFor("adding renderer"), corvel.output.right(3000));
    QCOMPARE(corvel.bridgeRecord("args.txt"),
             "-Z\n-x\n" + home.filePath("airupnp.xml").toUtf8() + "\n-b\nlan0\n");
    const QByteArray config = corvel.bridgeRecord("config.xml");
    QVERIFY(config.contains("<latency>1000:1000</latency>") &&
            config.contains("<ports>49200:64</ports>"));
    // Two coordinators: the PLAY:3 is offered, the One (an AirPlay speaker itself) is not.
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000101400", "Living Room - PLAY:3", 1)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 0)));
    QVERIFY(corvel.output.contains("plays AirPlay itself: not offered until chosen"));
    QVERIFY(!corvel.output.contains("not restarting it") && corvel.end(SIGTERM));
}

QTEST_MAIN(TestEndToEnd)
#include "TestEndToEnd.moc"
