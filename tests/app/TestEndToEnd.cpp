// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel as a user runs it on a server: build/bin/corvel --headless against a simulated
// household (its own process) and the fake bridge, inside a private network namespace.
#include "NetworkGuard.h"
#include "Settings.h"

#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {
QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray deviceBlock(const QByteArray &udn, const QByteArray &name, int enabled)
{
    return "<device>\n  <udn>uuid:" + udn + "</udn>\n  <name>" + name + "</name>\n  <enabled>" +
           QByteArray::number(enabled) + "</enabled>\n</device>\n";
}
} // namespace

class TestEndToEnd : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { CORVEL_REQUIRE_PRIVATE_NETWORK(); }
    void headlessRunConfiguresAndStopsTheBridge();
};

void TestEndToEnd::headlessRunConfiguresAndStopsTheBridge()
{
    QTemporaryDir home;
    const QString record = home.filePath(QStringLiteral("record"));
    QVERIFY(QDir().mkpath(record));
    // A name of its own, so suites running beside it never sweep its bridge away as stale.
    const QString bridge = home.filePath(QStringLiteral("airupnp-endtoend"));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_BRIDGE), bridge));
    QFile::setPermissions(bridge, QFile::ReadOwner | QFile::ExeOwner);

    QProcess simulator;
    simulator.start(QStringLiteral(SPEAKER_SIM), {"--players", "3", "--groups", "2", "--boost"});
    QVERIFY(simulator.waitForStarted());
    QByteArray simulatorOutput;
    while (!simulatorOutput.contains("ready\n") && simulator.waitForReadyRead(5000))
        simulatorOutput += simulator.readAll();
    QVERIFY2(simulatorOutput.contains("ready\n"), simulatorOutput.constData());

    // The user switched the first speaker off in an earlier run.
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    {
        auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
        DeviceInfo known;
        known.location = QUrl(QStringLiteral("http://127.0.1.1:1400/xml/device_description.xml"));
        settings->mergeDiscoveredSpeaker(known, DeviceTopology{true, QStringLiteral("G")});
        settings->setDeviceEnabled(known.location, false);
    }

    QProcess corvel;
    corvel.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.path());
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.filePath(QStringLiteral("state")));
    env.insert(QStringLiteral("CORVEL_BRIDGE"), bridge);
    env.insert(QStringLiteral("FAKE_BRIDGE_RECORD_DIR"), record);
    env.insert(QStringLiteral("FAKE_BRIDGE_READY_MS"), QStringLiteral("100"));
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    corvel.setProcessEnvironment(env);
    corvel.start(QStringLiteral(CORVEL_EXECUTABLE), {"--headless"});
    QVERIFY(corvel.waitForStarted());

    QByteArray output;
    QElapsedTimer waited;
    waited.start();
    while (!output.contains("adding renderer") && waited.elapsed() < 30000 &&
           corvel.state() == QProcess::Running) {
        corvel.waitForReadyRead(500);
        output += corvel.readAll();
    }
    QVERIFY2(output.contains("adding renderer"), output.right(3000).constData());

    // What the bridge was given: coordinators on, the group member and the speaker the user
    // switched off written as 0, no BOOST.
    const QByteArray config = readFile(record + "/config.xml");
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000101400", "Living Room - PLAY:3", 0)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 1)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000301400", "Bedroom - PLAY:3", 0)));
    QCOMPARE(config.count("<device>"), 3);
    QVERIFY(!config.contains("BOOST"));
    QCOMPARE(readFile(record + "/args.txt"),
             "-Z\n-x\n" + home.filePath("airupnp.xml").toUtf8() + "\n");

    // The lifecycle, in order.
    const QList<QByteArray> milestones = {"[Info][default] applicationDidFinishLaunching",
                                          "[Info][SSDP] searchForDevices",
                                          "[Info][default] Adding menu item Kitchen - PLAY:3",
                                          "[Info][SSDP] closedSession(",
                                          "[Info][default] Discovery complete, starting AirConnect",
                                          "[Info][AirConnect] Wrote config file to ",
                                          "adding renderer"};
    qsizetype at = 0;
    for (const QByteArray &milestone : milestones) {
        const qsizetype found = output.indexOf(milestone, at);
        QVERIFY2(found >= 0, milestone.constData());
        at = found;
    }

    const pid_t bridgePid = readFile(record + "/pid").toInt();
    QVERIFY(bridgePid > 0);
    QElapsedTimer stopping;
    stopping.start();
    ::kill(pid_t(corvel.processId()), SIGTERM);
    QVERIFY(corvel.waitForFinished(5000));
    QVERIFY(stopping.elapsed() < 5000);
    QCOMPARE(corvel.exitStatus(), QProcess::NormalExit);
    QCOMPARE(corvel.exitCode(), 0);
    QVERIFY(corvel.readAll().contains("applicationWillTerminate"));
    QVERIFY(::kill(bridgePid, 0) != 0); // the bridge is gone (and reaped by Corvel)

    simulator.terminate();
    simulator.waitForFinished();
    qunsetenv("XDG_CONFIG_HOME");
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "TestEndToEnd.moc"
