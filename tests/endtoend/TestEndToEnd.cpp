// SPDX-License-Identifier: GPL-3.0-or-later
// The whole program: build/bin/corvel --headless as a server runs it, against a simulated
// household answering from this process and the stand-in bridge, in a private network
// namespace.
#include "HeadlessCorvel.h"
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

// corvel --headless with the stand-in bridge under a name only this suite uses.
struct Corvel : HeadlessCorvel
{
    explicit Corvel(const QString &home)
        : HeadlessCorvel(QStringLiteral(CORVEL), QStringLiteral(FAKE_BRIDGE), home,
                         QStringLiteral("airupnp-endtoend"))
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
};

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
    QVERIFY(bridge > 0);
    QVERIFY(corvel.end(SIGTERM));    // as a service manager stops it: exit 0
    QVERIFY(::kill(bridge, 0) != 0); // the bridge is gone, and reaped
}

void TestEndToEnd::killedCorvelTakesItsBridgeAndKeepsItsSettings()
{
    QTemporaryDir home;
    SpeakerSimulator simulator(SpeakerSimulator::household(2, 2));
    QVERIFY(simulator.start(nullptr));
    for (int round = 0; round < 2; ++round) {
        Corvel corvel(home.path());
        QVERIFY2(corvel.waitFor("adding renderer"), corvel.output.right(3000));
        const pid_t bridge = corvel.bridgeRecord("pid").toInt();
        corvel.end(SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(::kill(bridge, 0) != 0, 10000);
        // The next session reads what the killed one left, and finds no bridge left over.
        QVERIFY(!corvel.output.contains("Failed to deserialize"));
        QVERIFY(!corvel.output.contains("stale bridge"));
    }
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "TestEndToEnd.moc"
