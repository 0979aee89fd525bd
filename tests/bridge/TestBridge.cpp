// SPDX-License-Identifier: GPL-3.0-or-later
// The configuration writer, the bridge locator and the supervisor, the last with the stand-in
// bridge started for real under a file name only this run uses.
#include "AirConnect.h"
#include "AtomicFile.h"
#include "BridgeLocator.h"
#include "BridgeNetwork.h"
#include "BridgeOutput.h"
#include "BuildConfig.h"
#include "ConfigWriter.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "StaleBridges.h"
#include "TestSupport.h"

#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTemporaryDir>

namespace {
const QStringList bridgeEvents = {Notifications::serviceStarted, Notifications::serviceReady,
                                  Notifications::serviceTerminated};

DeviceSettings record(const QString &udn, const QString &name, bool coordinator = true,
                      bool active = true, bool enabled = true, bool knownTopology = true)
{
    DeviceSettings r;
    r.info.location = QUrl(QStringLiteral("http://192.0.2.1:1400/") + name);
    if (!udn.isNull())
        r.info.udn = udn;
    r.name = name;
    if (knownTopology)
        r.topology = DeviceTopology{coordinator, QStringLiteral("g")};
    r.active = active;
    r.enabled = enabled;
    return r;
}

} // namespace

// The bridge's supervisor writing into the test's folder, with a watchdog far beyond any test
// (the watchdog tests shorten it).
struct Supervisor : AirConnect
{
    explicit Supervisor(const QTemporaryDir &dir)
    {
        setConfigPath(dir.filePath(QStringLiteral("airupnp.xml")));
        setWatchdogDelay(30000);
    }
};

class TestBridge : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void configFile();
    void handleOutput_data();
    void handleOutput();
    void speakersFromOutput_data();
    void speakersFromOutput();
    void launchReadyAndStop();
    void servesTheNamedInterface();
    void aFileThatCannotBeWrittenStartsNoBridge();
    void interfaceOfTheSpeakers_data();
    void interfaceOfTheSpeakers();
    void watchdog_data();
    void watchdog();
    void lateExitOfAnOlderBridgeKeepsTheNewerOne();
    void staleSweepEndsOnlySameNamedBridges();
    void bridgeFloodIsCutIntoBoundedEntries();
    void shutdownKillsABridgeDeafToTerm();
    void missingBridgeIsReported();
    void bridgeSetupInstalls_data();
    void bridgeSetupInstalls();

private:
    QByteArray recorded(const char *name) const { return readFile(m_dir.filePath(name)); }

    QTemporaryDir m_dir;
    QString m_bridge; // a copy of the stand-in under a name only this run uses
};

void TestBridge::initTestCase()
{
    m_bridge = m_dir.filePath(QStringLiteral("fake-airupnp-%1").arg(getpid()));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_BRIDGE), m_bridge));
    QVERIFY(QFile::setPermissions(m_bridge, QFile::ReadOwner | QFile::ExeOwner));
}

void TestBridge::init()
{
    qputenv("CORVEL_BRIDGE", m_bridge.toUtf8());
    qputenv("FAKE_BRIDGE_RECORD_DIR", m_dir.path().toUtf8());
}

void TestBridge::cleanup()
{
    for (const char *name :
         {"FAKE_BRIDGE_READY_MS", "FAKE_BRIDGE_EXIT_MS", "FAKE_BRIDGE_IGNORE_TERM",
          "FAKE_BRIDGE_TERM_DELAY_MS", "FAKE_BRIDGE_FLOOD_BYTES", "FAKE_BRIDGE_EXIT_CODE"})
        qunsetenv(name);
    bool swept = false;
    StaleBridges::endAll(QFileInfo(m_bridge).fileName(), this, [&swept](int) { swept = true; });
    CORVEL_WAIT(swept);
}

void TestBridge::configFile()
{
    const std::vector<DeviceSettings> records = {
        record("uuid:RINCON_A", "Living Room"),
        record("uuid:RINCON_B", "Kitchen", true, true, false),          // switched off
        record("uuid:RINCON_C", "Kitchen Sub", false),                  // group member
        record("uuid:RINCON_D", "Garden", true, true, true, false),     // topology unknown
        record("uuid:RINCON_E", "Office", true, false),                 // not found in this run
        record(QString(), QStringLiteral("Tom & Jerry's <Den> \"1\"")), // no UDN
    };
    const QUrl artwork(QStringLiteral(CORVEL_ARTWORK_URL));
    if (CORVEL_DEFAULT_HOSTS)
        QVERIFY2(artwork.host().endsWith(QStringLiteral(".invalid")), CORVEL_ARTWORK_URL);
    const QByteArray expected = testData(QStringLiteral("bridge/mixed-records.xml"))
                                    .replace("@ARTWORK@", CORVEL_ARTWORK_URL);
    BridgeOptions options;
    options.latency = BridgeOptions::bridgeLatency(BridgeDelay::Lowest);
    options.ports = QStringLiteral("49200:64");
    QCOMPARE(configFileText(records, options).toUtf8(), expected);
    // Every delay holds sound against jitter, a steadier one more; no ports: the bridge's own.
    int held = 0; // hold:silence in ms
    for (const auto delay : {BridgeDelay::Lowest, BridgeDelay::Balanced, BridgeDelay::Steady}) {
        const QStringList ms = BridgeOptions::bridgeLatency(delay).split(u':');
        QVERIFY(ms.size() == 2 && ms[0].toInt() > held && ms[0].toInt() <= ms[1].toInt());
        held = ms[0].toInt();
    }
    QVERIFY(configFileText(records).contains("<latency>1000:1000</latency>\n"));
    QVERIFY(!configFileText(records).contains("<ports>"));
    // What the bridge's strict parser cannot take: forbidden characters are dropped, names
    // cut at 50 bytes on a character boundary, and a UDN gets one block, the active one's.
    std::vector<DeviceSettings> hostile = {record("uuid:X", "gone", true, false),
                                           record("uuid:X", QStringLiteral("A\u0001B\uFFFE\uFFFF")),
                                           record("uuid:X", "second active"),
                                           record("uuid:Y", QString(47, 'x') + "\U0001F3B5z"),
                                           record("uuid:Z", QString(51, 'y'))}; // cut to 50
    LogCapture cut;
    const QString text = configFileText(hostile);
    QVERIFY(text.contains(QStringLiteral("<name>AB</name>")));
    QCOMPARE(text.count(QStringLiteral("<udn>uuid:X</udn>")), 1);
    QVERIFY(text.contains(QStringLiteral("<name>") + QString(47, 'x') + "</name>"));
    QVERIFY(text.contains(QString(50, 'y') + "</name>"));
    QCOMPARE(cut.count(QStringLiteral("Info - Speaker name ")), 2);
    // A surrogate pair is one character; a half of one is dropped wherever it stands.
    const QString music = QStringLiteral("\U0001F3B5");
    const QChar high(0xD83C), low(0xDFB5);
    QCOMPARE(xmlCharacters(QString("a") + low + "b" + high + "c" + music + high), "abc" + music);
    QCOMPARE(xmlCharacters(QString(low) + high + music), music);
    QCOMPARE(xmlEscaped(QStringLiteral("'\""), AttributeValueEscape::EscapeQuot),
             QStringLiteral("'&quot;"));
    // Logged at debug when written; a missing folder is an error.
    const QString path = m_dir.filePath(QStringLiteral("written.xml"));
    LogCapture capture;
    QString error;
    QVERIFY2(writeConfigFile(path, records, options, &error), qPrintable(error));
    QCOMPARE(readFile(path), expected);
    QVERIFY(capture.has("Debug - " + configFileText(records, options)));
    QVERIFY(!writeConfigFile(m_dir.filePath("gone/a.xml"), records, options, &error) &&
            !error.isEmpty());
}

void TestBridge::handleOutput_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<bool>("ready");
    QTest::addColumn<QStringList>("logged");
    QTest::newRow("marker among other lines is one message")
        << QList<QByteArray>{"  one\nAddMRDevice: adding renderer (Den)\nthree\n\n"} << true
        << QStringList{"one\nAddMRDevice: adding renderer (Den)\nthree"};
    QTest::newRow("invalid UTF-8 is dropped whole")
        << QList<QByteArray>{"adding renderer \xff"} << false << QStringList{};
    const QByteArray start = "[12:00:01.123] AddMRDevice:1021 [0x55d0a010]: adding ren";
    QTest::newRow("a line and its marker split across reads")
        << QList<QByteArray>{start, "derer (Den) with mac BBBB662697CA\n"} << true
        << QStringList{start, "derer (Den) with mac BBBB662697CA"};
}

void TestBridge::handleOutput()
{
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(bool, ready);
    QFETCH(QStringList, logged);
    AirConnect bridge;
    EventRecorder events(bridgeEvents);
    LogCapture capture;
    for (const QByteArray &chunk : chunks)
        bridge.handleOutput(chunk);
    QCOMPARE(bridge.isReady(), ready);
    QCOMPARE(bridge.speakerOutput().speakers().count("Den"), size_t(chunks.size() > 1)); // whole
    QStringList expected;
    for (const QString &line : logged)
        expected << QStringLiteral("Debug AirConnect ") + line;
    QCOMPARE(capture.lines(), expected);
    bridge.handleOutput("adding renderer again"); // readiness is posted once
    QCOMPARE(events.names(), QStringList{"serviceReady"});
}

void TestBridge::speakersFromOutput_data()
{
    // Cases of the bridge's output as it prints it: see the head of the table for its form.
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("speakers"); // "name=state"
    QTest::addColumn<QStringList>("problems"); // kinds
    QTest::addColumn<int>("changes");          // lines that changed what is known of the speakers
    const QByteArray table = testData(QStringLiteral("bridge/output.txt"));
    QString name;
    QStringList lines, speakers, problems;
    for (const QString &line : QString::fromUtf8(table).split('\n')) {
        if (line.startsWith(QLatin1String("== "))) {
            name = line.mid(3);
            lines.clear();
        } else if (line.startsWith(QLatin1String("speakers:"))) {
            speakers = line.mid(9).trimmed().split(QStringLiteral(", "), Qt::SkipEmptyParts);
        } else if (line.startsWith(QLatin1String("problems:"))) {
            problems = line.mid(9).split(' ', Qt::SkipEmptyParts);
        } else if (line.startsWith(QLatin1String("changes:"))) {
            QTest::addRow("%s", qPrintable(name))
                << lines << speakers << problems << line.mid(8).trimmed().toInt();
        } else if (!line.isEmpty() && !line.startsWith('#')) {
            lines << line;
        }
    }
}

void TestBridge::speakersFromOutput()
{
    QFETCH(QStringList, lines);
    QFETCH(QStringList, speakers);
    QFETCH(QStringList, problems);
    QFETCH(int, changes);
    BridgeOutput output;
    qint64 now = 0;
    int changed = 0;
    for (const QString &line : lines) {
        if (line.startsWith('+'))
            now += line.mid(1).toLongLong();
        else if (line == QLatin1String("restart"))
            output.reset();
        else
            changed += output.take(line, now) ? 1 : 0;
    }
    QCOMPARE(changed, changes);
    QStringList said;
    for (const auto &[name, state] : output.speakers())
        said << name + "=" + QStringList{"Ready", "Playing", "Member", "Gone"}.at(int(state));
    QCOMPARE(said, speakers);
    QStringList kinds;
    while (const auto problem = output.takeProblem()) {
        const QString detail =
            QStringList{"(Address in use)", "(192.0.2.4:49152, error -203)", "Den", "Den"}.at(
                problem->kind);
        QVERIFY(problem->english.contains(detail) && problem->shown.contains(detail));
        kinds << QStringList{"PortsInUse", "UpnpFailed", "TargetFailed", "StreamDropped"}.at(
            problem->kind);
    }
    QCOMPARE(kinds, problems);
}

void TestBridge::launchReadyAndStop()
{
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Supervisor bridge(m_dir);
    EventRecorder events(bridgeEvents);
    LogCapture capture;
    const std::vector<DeviceSettings> records = {record("uuid:RINCON_A", "Den")};
    bridge.start(records);
    QVERIFY(bridge.running());
    CORVEL_WAIT(events.names() == QStringList({"serviceStarted", "serviceReady"}));
    QVERIFY(!bridge.watchdogPending());
    const QString config = bridge.configPath();
    QCOMPARE(config, m_dir.filePath(QStringLiteral("airupnp.xml")));
    QCOMPARE(AirConnect().configPath(),
             QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) + "/airupnp.xml");
    QCOMPARE(recorded("args.txt"), ("-Z\n-x\n" + config + "\n").toUtf8());
    QCOMPARE(recorded("config.xml"), configFileText(records).toUtf8());
    QVERIFY(capture.has("Info AirConnect Wrote config file to " +
                        QUrl::fromLocalFile(config).toString()));
    // Lowest CPU priority: field 19 of stat is nice.
    const QByteArray stat =
        readFile(QStringLiteral("/proc/%1/stat").arg(bridge.process()->processId()));
    QCOMPARE(stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(16).toInt(), 19);
    bridge.stop();
    QVERIFY(!bridge.running());
    CORVEL_WAIT(events.names().size() == 3);
    QCOMPARE(events.names().last(), QStringLiteral("serviceTerminated"));
    QVERIFY(!events.notifications.last().userInfo.value(UserInfoKey::cannotStart).toBool());
    QVERIFY(capture.has("Info AirConnect Terminated"));
    bridge.stop(); // idle: nothing more
    QTest::qWait(50);
    QCOMPARE(events.names().size(), 3);
}

void TestBridge::servesTheNamedInterface()
{
    // -b names the interface; one without an IPv4 address makes the bridge say "Cannot
    // start" and exit 1, which the exit event says; a changed interface is a changed bridge.
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Supervisor bridge(m_dir);
    EventRecorder events(bridgeEvents);
    const std::vector<DeviceSettings> records = {record("uuid:RINCON_A", "Den")};
    BridgeOptions options;
    options.binding = QStringLiteral("lo");
    bridge.start(records, options);
    CORVEL_WAIT(events.count(Notifications::serviceReady) == 1);
    QCOMPARE(recorded("args.txt"), ("-Z\n-x\n" + bridge.configPath() + "\n-b\nlo\n").toUtf8());
    QVERIFY(!bridge.configDiffers(records, options));
    options.binding = QStringLiteral("corvelnone0");
    QVERIFY(bridge.configDiffers(records, options));
    bridge.restart(records, options);
    CORVEL_WAIT(events.count(Notifications::serviceTerminated) == 1);
    const Notification &ended = events.notifications.constLast();
    QCOMPARE(ended.userInfo.value(UserInfoKey::launch).toULongLong(), bridge.currentLaunch());
    QVERIFY(ended.userInfo.value(UserInfoKey::cannotStart).toBool() && !bridge.running());
}

void TestBridge::aFileThatCannotBeWrittenStartsNoBridge()
{
    // Told as a start that ended at once (so retried with back-off), with why as last words.
    AirConnect bridge;
    bridge.setConfigPath(m_dir.filePath(QStringLiteral("gone/airupnp.xml")));
    EventRecorder events(bridgeEvents);
    QFile::remove(m_dir.filePath(QStringLiteral("args.txt"))); // an earlier bridge's
    bridge.start({record("uuid:RINCON_A", "Den")});
    CORVEL_WAIT(events.count(Notifications::serviceTerminated) == 1);
    QVERIFY(events.count(Notifications::serviceStarted) == 1 && !bridge.running());
    QVERIFY(!QFile::exists(m_dir.filePath(QStringLiteral("args.txt"))));
    QVERIFY(bridge.recentOutput().value(0).startsWith("Corvel could not write "));
}

void TestBridge::interfaceOfTheSpeakers_data()
{
    QTest::addColumn<QStringList>("speakers");
    QTest::addColumn<QString>("interface");
    for (const QStringList &column : tableRows(QStringLiteral("bridge/interfaces.txt"), 3))
        QTest::addRow("%s", qPrintable(column[0]))
            << column[1].split(u' ', Qt::SkipEmptyParts) << QString(column[2]).remove(u'-');
}

void TestBridge::interfaceOfTheSpeakers()
{
    QFETCH(QStringList, speakers);
    QFETCH(QString, interface);
    using BridgeNetwork::Address;
    const QList<Address> addresses = {{"docker0", QHostAddress("172.17.0.1"), 16, false},
                                      {"lo", QHostAddress("127.0.0.1"), 8, true},
                                      {"lan0", QHostAddress("192.0.2.1"), 24, false},
                                      {"wlan0", QHostAddress("198.51.100.5"), 24, false}};
    std::vector<DeviceSettings> records;
    for (const QString &speaker : speakers) {
        DeviceSettings r = record("uuid:" + speaker, speaker, true, true, !speaker.startsWith('-'));
        r.info.location.setHost(speaker.mid(speaker.startsWith('-') ? 1 : 0));
        records.push_back(r);
    }
    QCOMPARE(BridgeNetwork::interfaceFor(records, addresses), interface);
    // This machine's own list has loopback, marked as such.
    const auto local = BridgeNetwork::localAddresses();
    QVERIFY(std::any_of(local.cbegin(), local.cend(), [](const Address &a) {
        return a.loopback && a.ip == QHostAddress::LocalHost && a.prefixLength == 8;
    }));
}

void TestBridge::watchdog_data()
{
    QTest::addColumn<QByteArray>("exitMs"); // the bridge ends by itself after this, or never
    QTest::addColumn<QString>("bridge");    // "broken": not a program
    QTest::addColumn<QStringList>("events");
    QTest::newRow("never ready") << QByteArray() << QString()
                                 << QStringList{"serviceStarted", "serviceTerminated"};
    QTest::newRow("exits before ready")
        << QByteArray("50") << QString() << QStringList{"serviceStarted", "serviceTerminated"};
    QTest::newRow("fails to launch") << QByteArray() << "broken" << QStringList{};
}

void TestBridge::watchdog()
{
    QFETCH(QByteArray, exitMs);
    QFETCH(QString, bridge);
    QFETCH(QStringList, events);
    if (!exitMs.isEmpty()) { // with 1, as a bridge that cannot start, but without saying so
        qputenv("FAKE_BRIDGE_EXIT_MS", exitMs);
        qputenv("FAKE_BRIDGE_EXIT_CODE", "1");
    }
    const QString broken = m_dir.filePath(QStringLiteral("broken-airupnp"));
    if (bridge == QLatin1String("broken")) {
        QVERIFY(writeFile(broken, "not a program"));
        QFile::setPermissions(broken, QFile::ReadOwner | QFile::ExeOwner);
        qputenv("CORVEL_BRIDGE", broken.toUtf8());
    }
    Supervisor supervisor(m_dir);
    supervisor.setWatchdogDelay(1500); // past a launch on a busy machine under the sanitizers
    EventRecorder recorder(bridgeEvents);
    LogCapture capture;
    QElapsedTimer waited;
    waited.start();
    supervisor.start({});
    CORVEL_WAIT(capture.has("Error AirConnect airupnp is not in a usable state, terminating"));
    QVERIFY2(waited.elapsed() >= 1500, "the watchdog fired early"); // a precise timer
    CORVEL_WAIT(!supervisor.running());
    CORVEL_WAIT(recorder.names() == events);
    QCOMPARE(capture.has("Error AirConnect Failed to launch " + broken), !events.size());
    // Only the bridge the watchdog ended is said to have been stopped for it.
    if (!events.isEmpty()) {
        const QVariantMap info = recorder.notifications.constLast().userInfo;
        QCOMPARE(info.value(UserInfoKey::notReady).toBool(), exitMs.isEmpty());
        QVERIFY(!info.value(UserInfoKey::cannotStart).toBool());
    }
}

void TestBridge::lateExitOfAnOlderBridgeKeepsTheNewerOne()
{
    // The first bridge takes 300 ms to exit; the restart launches only once it has, and its
    // exit changes nothing of the newer launch.
    qputenv("FAKE_BRIDGE_TERM_DELAY_MS", "300");
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Supervisor bridge(m_dir);
    EventRecorder events(bridgeEvents);
    LogCapture capture;
    const std::vector<DeviceSettings> one = {record("uuid:RINCON_A", "Den")};
    bridge.start(one);
    CORVEL_WAIT(events.names() == QStringList({"serviceStarted", "serviceReady"}));
    QVERIFY(!bridge.configDiffers(one) && bridge.configDiffers({}));
    QVERIFY(bridge.recentOutput().last().contains("adding renderer"));
    const qint64 first = bridge.process()->processId();
    bridge.restart({});
    QVERIFY(capture.has("Info AirConnect Waiting for the previous bridge to exit"));
    CORVEL_WAIT(events.names().size() == 4);
    QCOMPARE(events.names(),
             QStringList({"serviceStarted", "serviceReady", "serviceStarted", "serviceReady"}));
    QVERIFY(capture.has("Info AirConnect Terminated (an earlier bridge)"));
    QVERIFY(::kill(pid_t(first), 0) != 0); // gone before the second was launched
    QVERIFY(bridge.process() && bridge.isReady() && !bridge.configDiffers({}));
    bridge.shutdown(); // it takes its time, as asked, and is not killed
    QVERIFY(!capture.has("Warning AirConnect Bridge did not exit in time; killing it"));
}

void TestBridge::staleSweepEndsOnlySameNamedBridges()
{
    const QString other = m_dir.filePath(QStringLiteral("other-program-%1").arg(getpid()));
    QVERIFY(QFile::copy(m_bridge, other));
    qint64 stalePid = 0, otherPid = 0;
    QVERIFY(QProcess::startDetached(m_bridge, {}, QString(), &stalePid));
    QVERIFY(QProcess::startDetached(other, {}, QString(), &otherPid));
    // Whatever fails, neither outlives the test (it would hold the suite's output open).
    const auto reap = qScopeGuard([&] {
        for (const qint64 pid : {stalePid, otherPid})
            ::kill(pid_t(pid), SIGKILL);
    });
    // A bridge whose parent runs this program's executable belongs to a living Corvel.
    QProcess owned;
    owned.start(m_bridge);
    QVERIFY(owned.waitForStarted());
    CORVEL_WAIT(StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(stalePid));
    Supervisor bridge(m_dir);
    EventRecorder events(bridgeEvents);
    LogCapture capture;
    bridge.start({});
    QVERIFY(bridge.running() && !bridge.process()); // the launch waits for the sweep, which
    bridge.stop(); // a stop cancels: only the next start's launch follows, with its speakers
    bridge.start({record("uuid:A", "Den")});
    CORVEL_WAIT(events.names() == QStringList{"serviceStarted"});
    QTest::qWait(100); // the other sweep ends too
    QVERIFY(capture.count("Info AirConnect Wrote config file to ") == 1 &&
            !bridge.configDiffers({record("uuid:A", "Den")}));
    QVERIFY(capture.has("Info AirConnect Ended 1 stale bridge process(es)"));
    QVERIFY(!StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(stalePid));
    QVERIFY(StaleBridges::find(QFileInfo(other).fileName()).contains(otherPid));
    QCOMPARE(owned.state(), QProcess::Running); // killed as it goes
    bridge.shutdown();
}

void TestBridge::bridgeFloodIsCutIntoBoundedEntries()
{
    qputenv("FAKE_BRIDGE_FLOOD_BYTES", "3000000");
    Supervisor bridge(m_dir);
    LogCapture capture(LogLevel::Debug);
    bridge.start({});
    CORVEL_WAIT(bridge.recentOutput().size() == AirConnect::recentLineCount);
    QTest::qWait(200); // the whole flood is read
    bridge.shutdown();
    // Small entries, at most 64 KiB of them a second, and a line for the rest.
    qint64 logged = 0;
    for (const QString &line : capture.lines()) {
        QVERIFY2(line.size() <= AirConnect::maxOutputChunk + 20, qPrintable(line.left(80)));
        logged += line.startsWith("Debug AirConnect ") ? line.size() : 0;
    }
    QVERIFY(logged > 0 && logged <= 3 * AirConnect::maxLoggedOutputPerSecond);
    QVERIFY(capture.count("Warning AirConnect ") > 0 &&
            capture.lines().filter(" bytes of the bridge's output were not logged").size() == 1);
}

void TestBridge::shutdownKillsABridgeDeafToTerm()
{
    qputenv("FAKE_BRIDGE_IGNORE_TERM", "1");
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Supervisor bridge(m_dir);
    EventRecorder events(bridgeEvents);
    bridge.start({});
    // Ready: its SIGTERM handler is in place.
    CORVEL_WAIT(events.names() == QStringList({"serviceStarted", "serviceReady"}));
    const qint64 pid = bridge.process()->processId();
    LogCapture capture;
    bridge.shutdown();
    QVERIFY(capture.has("Warning AirConnect Bridge did not exit in time; killing it"));
    QVERIFY(!StaleBridges::find(QFileInfo(m_bridge).fileName()).contains(pid));
}

void TestBridge::missingBridgeIsReported()
{
    const QString plain = m_dir.filePath(QStringLiteral("airupnp-not-a-program"));
    QVERIFY(writeFileAtomically(plain, "#!/bin/sh\n", nullptr)); // a file, not executable
    qputenv("CORVEL_BRIDGE", plain.toUtf8());
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", m_dir.filePath(QStringLiteral("empty")).toUtf8());
    Supervisor bridge(m_dir);
    LogCapture capture;
    EventRecorder missing({Notifications::bridgeMissing});
    bridge.start({record("uuid:A", "Den")});
    qputenv("PATH", path);
    QCOMPARE(missing.names(), QStringList{Notifications::bridgeMissing});
    const QStringList lookedIn =
        missing.notifications[0].userInfo.value(UserInfoKey::lookedIn).toStringList();
    QVERIFY(lookedIn.value(0) == plain && !lookedIn.join(' ').contains("absolute"));
    QVERIFY(bridge.bridgeMissing() && !bridge.running() && !bridge.watchdogPending());
    QVERIFY(capture.dump().contains(plain.toUtf8()));
}

void TestBridge::bridgeSetupInstalls_data()
{
    // The chosen file, the architecture it must be for, and the refusal (none: installed).
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("arch");
    QTest::addColumn<QString>("refusal");
    const QString arch = currentBridgeArchitecture();
    const QHash<QString, QString> files = {{"bridge", FAKE_BRIDGE},
                                           {"self", QCoreApplication::applicationFilePath()}};
    for (const QStringList &column : tableRows(QStringLiteral("bridge/installs.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0])) << files.value(column[1], column[1])
                                                   << (column[2] == "this" ? arch
                                                       : arch == "aarch64" ? "x86_64"
                                                                           : "aarch64")
                                                   << (column[3] == "-" ? "" : column[3]);
}

void TestBridge::bridgeSetupInstalls()
{
    // What this machine needs, as the running system says and as this build was made for.
    QCOMPARE(currentBridgeArchitecture(), bridgeArchitecture(QSysInfo::currentCpuArchitecture()));
    for (const QString machine : {"armv7l arm", "armhf arm", "armv6l armv6", "i686 x86", "i586 x86",
                                  "i386 x86", "arm64 aarch64", "aarch64 aarch64", "x86_64 x86_64"})
        QCOMPARE(bridgeArchitecture(machine.section(' ', 0, 0)), machine.section(' ', 1));
    QFETCH(QString, file);
    QFETCH(QString, arch);
    QFETCH(QString, refusal);
    writeFileAtomically(m_dir.filePath("airupnp.xml"), "<squeeze2upnp/>", nullptr);
    writeFileAtomically(m_dir.filePath("release.zip"), "PK\x03\x04\x14\0\0\0", nullptr);
    writeFileAtomically(m_dir.filePath("run.sh"), "#!/bin/sh\nexec airupnp \"$@\"\n", nullptr);
    const QString source = QDir::isAbsolutePath(file) ? file : m_dir.filePath(file);
    qputenv("HOME", m_dir.filePath(QStringLiteral("user")).toUtf8()); // installed for the user
    const QString dir = userBridgeDirectory();
    QCOMPARE(dir, m_dir.filePath(QStringLiteral("user/.local/lib/corvel")));
    UserText error;
    const QString installed = installBridge(source, dir, arch, &error);
    QCOMPARE(installed.isEmpty(), !refusal.isEmpty());
    QVERIFY2(error.english.contains(refusal), qPrintable(error.english));
    if (!refusal.isEmpty())
        return;
    QVERIFY(installed == dir + "/airupnp-linux-" + arch && QFileInfo(installed).isExecutable());
    QVERIFY(installBridge(source, installed + "/in", arch, &error).isEmpty()); // a file in the way
    QCOMPARE(error.english, "Cannot copy the bridge to " + installed + "/in: Not a directory");
    // The installed bridge is found where nothing else is.
    QCOMPARE(findBridgeExecutable(QString(), m_dir.filePath("empty"), QString(), arch, dir).path,
             installed);
}

QTEST_GUILESS_MAIN(TestBridge)
#include "TestBridge.moc"
