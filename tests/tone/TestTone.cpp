// SPDX-License-Identifier: GPL-3.0-or-later
// This computer's sound on a speaker, with real parts: PipeWire (with WirePlumber and its
// PulseAudio service), Debian's gmediarender as the speaker's renderer writing what it gets
// to a file, and Corvel between them. A 1 kHz tone played into the speaker's output must come
// out of the renderer, through a pause, without a second start; quitting stops the speaker.
#include "HeadlessCorvel.h"
#include "Settings.h"
#include "SettingsStorage.h"
#include "SoundRig.h"
#include "SoundServer.h"

#include <csignal>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

class TestTone : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void oneOutputPerSpeakerAndWhatPlaysInIt();
    void toneReachesTheRendererThroughAPause();

private:
    QTemporaryDir m_dir;
    std::unique_ptr<SoundRig> m_rig;
};

void TestTone::initTestCase()
{
    if (qgetenv("CORVEL_IN_NETNS") != "1")
        QSKIP("Runs only inside a private network namespace (scripts/netns)");
    m_rig = std::make_unique<SoundRig>(m_dir.path(), GMEDIARENDER, SPEAKER_SIM);
    QString error;
    bool skip = false;
    if (!m_rig->start(&error, &skip) && skip)
        QSKIP(qPrintable(error));
    QVERIFY2(error.isEmpty(), qPrintable(error));
}

void TestTone::oneOutputPerSpeakerAndWhatPlaysInIt()
{
    // The sound server's client alone: an output asked for twice while the server makes it is
    // one sink, and is made again after it went; sound in it plays until it ends, or until the
    // server goes.
    qputenv("PULSE_SERVER", m_rig->pulseServer().toUtf8());
    bool up = false;
    QList<bool> playing;
    SoundServer server({{},
                        [&](const QString &, bool now) { playing << now; },
                        {},
                        [&](bool connected, const QString &) {
                            up = connected;
                        }});
    server.connectToServer();
    QTRY_VERIFY(up);
    const auto outputs = [this] {
        QByteArray sinks;
        m_rig->pactl({"list", "short", "sinks"}, &sinks);
        return sinks.count("corvel.");
    };
    for (const char *id : {"A", "A", "B"})
        server.addOutput(id, "Den");
    QTRY_COMPARE(outputs(), 2);
    QTest::qWait(300); // a second A would follow the first
    QCOMPARE(outputs(), 2);
    server.removeAll(5000);
    QCOMPARE(outputs(), 0);
    for (const char *id : {"A", "B"})
        server.addOutput(id, "Den");
    QTRY_COMPARE(outputs(), 2);
    QVERIFY(m_rig->play("corvel.A", SoundRig::tone(0.5)));
    QTRY_COMPARE(playing, QList<bool>({true, false}));
    QTimer::singleShot(500, this, [&] { QVERIFY(m_rig->restartSoundServer()); });
    m_rig->play("corvel.A", SoundRig::tone(3.0));               // cut short
    QTRY_VERIFY(!up && playing.size() == 4 && !playing.last()); // B, quiet, says nothing
}

void TestTone::toneReachesTheRendererThroughAPause()
{
    SoundRig &rig = *m_rig;

    // Corvel with the speakers as sound outputs, as the user left it, and an output a Corvel
    // that crashed left behind.
    QVERIFY(rig.pactl({"load-module", "module-null-sink", "sink_name=corvel.left-behind"}));
    const QString home = m_dir.filePath(QStringLiteral("corvel"));
    QVERIFY(QDir().mkpath(home + QStringLiteral("/config")));
    qputenv("XDG_CONFIG_HOME", (home + QStringLiteral("/config")).toUtf8());
    Settings::load(std::make_unique<UserSettingsStorage>())->setSoundOutputs(true);
    HeadlessCorvel corvel(QStringLiteral(CORVEL), QStringLiteral(FAKE_BRIDGE), home,
                          QStringLiteral("airupnp-tone-%1").arg(QCoreApplication::applicationPid()),
                          {QStringLiteral("PULSE_SERVER=") + rig.pulseServer(),
                           QStringLiteral("DBUS_SESSION_BUS_ADDRESS=") + rig.bus(),
                           QStringLiteral("HOME=") + home});
    QVERIFY2(corvel.waitFor("Sound output ready: "), corvel.output.right(3000));
    // Unchecked, the speaker's output goes (the one left behind is gone too); checked again, it
    // comes back.
    QByteArray said;
    QCOMPARE(corvel.run({"--disable", "Living Room - PLAY:3"}, &said), 0);
    QTRY_VERIFY(rig.corvelSink().isEmpty());
    QCOMPARE(corvel.run({"--enable", "Living Room - PLAY:3"}, &said), 0);
    QTRY_VERIFY(rig.corvelSink().startsWith("corvel.RINCON_"));
    const QByteArray sink = rig.corvelSink();

    // A tone, a pause, the tone again; the list says where the sound goes while it plays.
    QByteArray listed;
    QTimer::singleShot(1500, this, [&] { corvel.run({QStringLiteral("--list")}, &listed); });
    QVERIFY2(rig.play(sink, SoundRig::tone(2.0)), corvel.output.right(3000).constData());
    QTest::qWait(2500);
    QVERIFY2(rig.play(sink, SoundRig::tone(2.0)), corvel.output.right(3000).constData());
    QTest::qWait(1500);
    QVERIFY2(listed.contains("Playing from this computer"), listed.constData());

    QFile file(rig.capture());
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray pcm = file.readAll();
    SoundRig::Window loudest;
    const QString letters = SoundRig::classify(pcm, &loudest);
    qInfo("tone: 1 kHz level %.0f of 8000 (3 kHz %.0f, rms %.0f); %.2f s received: %s",
          loudest.at1k, loudest.at3k, loudest.rms, pcm.size() / 4.0 / SoundRig::rate,
          qPrintable(letters)); // the delays are the benchmark's
    // Tone (at least 1.5 s), silence (at least 1 s), tone again; a few windows at each edge
    // may be mixed (more on a loaded machine), and a busy machine may cost a tone up to three
    // windows, but nothing else is heard.
    static const QRegularExpression shape(
        QStringLiteral("^s*x{0,4}([Tx]{15,}?)x{0,4}s{10,}x{0,4}([Tx]{15,}?)x{0,4}s*$"));
    const QRegularExpressionMatch match = shape.match(letters);
    QVERIFY2(match.hasMatch(), qPrintable(letters));
    for (int tone : {1, 2})
        QVERIFY2(match.captured(tone).count(QLatin1Char('T')) >= 15 &&
                     match.captured(tone).count(QLatin1Char('x')) <= 3,
                 qPrintable(letters));
    // One start for the whole session: the pause kept the speaker listening.
    QCOMPARE(rig.calls().count("control 0 SetAVTransportURI"), 1);
    QCOMPARE(rig.calls().count("control 0 Play"), 1);

    // The output's volume goes to the speaker; another sink's does not.
    QVERIFY(rig.pactl({"load-module", "module-null-sink", "sink_name=other"}) &&
            rig.pactl({"set-sink-volume", "other", "40%"}));
    QTest::qWait(500);
    QVERIFY(rig.pactl({"set-sink-volume", QString::fromUtf8(sink), "25%"}));
    QTRY_VERIFY(rig.calls().contains("control 0 SetVolume"));
    QVERIFY2(corvel.waitFor("Volume of Living Room - PLAY:3: 25"),
             corvel.output.right(2000).constData());
    QTest::qWait(500); // sent once, not again and again
    QCOMPARE(rig.calls().count("control 0 SetVolume"), 1);

    // A new name makes the output anew under it (a sink cannot be renamed).
    QCOMPARE(corvel.run({"--rename", "Living Room - PLAY:3", "Den"}, &said), 0);
    QTRY_VERIFY(rig.pactl({"list", "sinks"}, &said) && said.contains("Description: Den"));
    // The sound server restarts, as on an update: the output comes back by itself.
    QVERIFY(rig.restartSoundServer() && corvel.waitFor("No sound server: "));
    QTRY_COMPARE_WITH_TIMEOUT(rig.corvelSink(), sink, 10000);

    // A speaker that refuses to play is said to the user, with its name.
    rig.stopRenderer();
    QVERIFY(rig.play(sink, SoundRig::tone(0.5)));
    QVERIFY2(corvel.waitFor("Notice: Corvel - Den: "), corvel.output.right(2000).constData());

    // Quitting stops the speaker and leaves nothing behind.
    QVERIFY2(corvel.end(SIGTERM), corvel.output.right(3000).constData());
    QTRY_VERIFY(rig.calls().contains("control 0 Stop"));
    QTcpSocket probe;
    probe.connectToHost(QLatin1String(SoundRig::speakerAddress), 49400);
    QVERIFY(!probe.waitForConnected(1000));
    // The server removes it a moment later when busy.
    QTRY_VERIFY2(rig.corvelSink().isEmpty(), (rig.corvelSink() + "\n" + corvel.output.right(3000)));
}

QTEST_MAIN(TestTone)
#include "TestTone.moc"
