// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel as a user runs it on a server: build/bin/corvel --headless against a simulated
// household (its own process) and the fake bridge, inside a private network namespace.
#include "HeadlessCorvel.h"
#include "NetworkGuard.h"
#include "Settings.h"

namespace {
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

    HeadlessCorvel corvel(QStringLiteral(CORVEL_EXECUTABLE), QStringLiteral(FAKE_BRIDGE),
                          QStringLiteral("airupnp-endtoend"),
                          home.filePath(QStringLiteral("config")));
    QVERIFY(corvel.running());
    QVERIFY2(corvel.waitFor("adding renderer", 30000), corvel.output.right(3000).constData());
    const QByteArray &output = corvel.output;

    // What the bridge was given: coordinators on, the group member and the speaker the user
    // switched off written as 0, no BOOST.
    const QByteArray config = corvel.bridgeRecord(QStringLiteral("config.xml"));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000101400", "Living Room - PLAY:3", 0)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000201400", "Kitchen - PLAY:3", 1)));
    QVERIFY(config.contains(deviceBlock("RINCON_000E5800000301400", "Bedroom - PLAY:3", 0)));
    QCOMPARE(config.count("<device>"), 3);
    QVERIFY(!config.contains("BOOST"));
    QCOMPARE(corvel.bridgeRecord(QStringLiteral("args.txt")),
             "-Z\n-x\n" + QDir(corvel.runtimeDir()).filePath("airupnp.xml").toUtf8() + "\n");

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

    const pid_t bridgePid = corvel.bridgeRecord(QStringLiteral("pid")).toInt();
    QVERIFY(bridgePid > 0);
    QElapsedTimer stopping;
    stopping.start();
    QVERIFY(corvel.stop()); // exit 0
    QVERIFY(stopping.elapsed() < 5000);
    QVERIFY(corvel.output.contains("applicationWillTerminate"));
    QVERIFY(::kill(bridgePid, 0) != 0); // the bridge is gone (and reaped by Corvel)

    simulator.terminate();
    simulator.waitForFinished();
    qunsetenv("XDG_CONFIG_HOME");
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "TestEndToEnd.moc"
