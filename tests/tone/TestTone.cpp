// SPDX-License-Identifier: GPL-3.0-or-later
// This computer's sound on a speaker, with real parts: PipeWire (with WirePlumber and its
// PulseAudio service) in a runtime folder of the test's own, Debian's gmediarender as the
// speaker's renderer writing what it receives to a file, the simulated player handing its
// media calls to it, and Corvel between them. A 1 kHz tone played into the speaker's output
// must come out of the renderer, through a pause, without a second start.
#include "HeadlessCorvel.h"
#include "Settings.h"
#include "SettingsStorage.h"
#include "TestSupport.h"

#include <cmath>
#include <csignal>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QString address = QStringLiteral("192.0.2.1"); // documentation range, on a veth of our own
const QString rendererUrl = QStringLiteral("http://192.0.2.1:49494/description.xml");
constexpr int rate = 44100;
constexpr int windowFrames = rate / 10; // 100 ms

// A 1 kHz sine, 16-bit stereo at 44.1 kHz, amplitude 16000.
QByteArray tone(double seconds)
{
    QByteArray pcm;
    const int frames = int(seconds * rate);
    pcm.reserve(frames * 4);
    for (int i = 0; i < frames; ++i) {
        const auto v = qint16(std::lround(16000 * std::sin(2 * M_PI * 1000 * i / rate)));
        for (int channel = 0; channel < 2; ++channel) {
            pcm += char(v & 0xff);
            pcm += char((v >> 8) & 0xff);
        }
    }
    return pcm;
}

struct Window
{
    double rms = 0;
    double at1k = 0; // Goertzel magnitude at 1 kHz, left channel (a sine of amplitude A gives A/2)
    double at3k = 0;
};

Window measure(const QByteArray &pcm, qsizetype firstFrame)
{
    Window w;
    const auto goertzel = [&](double frequency) {
        const double k = 2 * std::cos(2 * M_PI * frequency / rate);
        double s1 = 0, s2 = 0;
        for (int i = 0; i < windowFrames; ++i) {
            const auto *p = reinterpret_cast<const uchar *>(pcm.constData()) + 4 * (firstFrame + i);
            const double s0 = qint16(p[0] | (p[1] << 8)) + k * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        return std::sqrt(s1 * s1 + s2 * s2 - k * s1 * s2) / windowFrames;
    };
    double sum = 0;
    for (int i = 0; i < windowFrames; ++i) {
        const auto *p = reinterpret_cast<const uchar *>(pcm.constData()) + 4 * (firstFrame + i);
        const double v = qint16(p[0] | (p[1] << 8));
        sum += v * v;
    }
    w.rms = std::sqrt(sum / windowFrames);
    w.at1k = goertzel(1000);
    w.at3k = goertzel(3000);
    return w;
}

// Each 100 ms of the renderer's file as a letter: T (the tone), s (silence), x (anything else).
QString classify(const QByteArray &pcm, Window *loudest)
{
    QString letters;
    for (qsizetype frame = 0; (frame + windowFrames) * 4 <= pcm.size(); frame += windowFrames) {
        const Window w = measure(pcm, frame);
        if (w.rms < 100) {
            letters += QLatin1Char('s');
        } else if (w.at1k > 5000 && w.at1k > 20 * w.at3k && w.rms < 1.2 * w.at1k * std::sqrt(2)) {
            letters += QLatin1Char('T');
            if (w.at1k > loudest->at1k)
                *loudest = w;
        } else {
            letters += QLatin1Char('x');
        }
    }
    return letters;
}

bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr,
         const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, arguments);
    const bool ok = process.waitForFinished(10000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output)
        *output = process.readAllStandardOutput();
    return ok;
}

void serve(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}
} // namespace

class TestTone : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void toneReachesTheRendererThroughAPause();

private:
    QProcess *start(const QString &program, const QStringList &arguments);
    bool pactl(const QStringList &arguments, QByteArray *output = nullptr);

    QTemporaryDir m_dir;
    QProcessEnvironment m_env = QProcessEnvironment::systemEnvironment();
    std::vector<QProcess *> m_processes; // ended in reverse order
    QProcess *m_simulator = nullptr;
    QString m_capture;
};

QProcess *TestTone::start(const QString &program, const QStringList &arguments)
{
    auto *process = new QProcess(this);
    process->setProcessEnvironment(m_env);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->start(program, arguments);
    m_processes.push_back(process);
    return process;
}

bool TestTone::pactl(const QStringList &arguments, QByteArray *output)
{
    return run(QStringLiteral("pactl"), arguments, output, m_env);
}

void TestTone::initTestCase()
{
    if (qgetenv("CORVEL_IN_NETNS") != "1")
        QSKIP("Runs only inside a private network namespace (scripts/netns)");
    for (const QString program :
         {"pipewire", "wireplumber", "pipewire-pulse", "pactl", "pacat", "dbus-daemon"})
        QVERIFY2(!QStandardPaths::findExecutable(program).isEmpty(),
                 qPrintable(program + QStringLiteral(" is missing: run scripts/setup")));
    QVERIFY2(QFileInfo(QStringLiteral(GMEDIARENDER)).isExecutable(),
             "gmediarender is not extracted: run scripts/setup");

    // The speaker's address on a veth with no IPv6 link address, which the renderer would
    // wait for.
    const auto ip = [](const QString &command) {
        return run(QStringLiteral("ip"), command.split(QLatin1Char(' ')));
    };
    if (!ip(QStringLiteral("link add d0 type veth peer name d1")))
        QSKIP("No veth interfaces can be made in this namespace");
    QVERIFY(ip(QStringLiteral("link set d0 addrgenmode none")) &&
            ip(QStringLiteral("link set d1 addrgenmode none")) &&
            ip(QStringLiteral("addr add 192.0.2.1/24 dev d0")) &&
            ip(QStringLiteral("link set d1 up")) && ip(QStringLiteral("link set d0 up")));

    // The sound server, as on a desktop, in a runtime folder of its own.
    const QString runtime = m_dir.filePath(QStringLiteral("run"));
    QVERIFY(QDir().mkpath(runtime) &&
            QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    m_env.insert(QStringLiteral("HOME"), m_dir.path());
    m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir.filePath(QStringLiteral("config")));
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                 QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus"));
    m_env.insert(QStringLiteral("PULSE_SERVER"),
                 QStringLiteral("unix:") + runtime + QStringLiteral("/pulse/native"));
    m_env.remove(QStringLiteral("DISPLAY"));
    m_env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    start(QStringLiteral("dbus-daemon"),
          {"--session", "--nofork", "--address=unix:path=" + runtime + "/bus"});
    start(QStringLiteral("pipewire"), {});
    start(QStringLiteral("wireplumber"), {});
    start(QStringLiteral("pipewire-pulse"), {});
    QTRY_VERIFY_WITH_TIMEOUT(pactl({QStringLiteral("info")}), 20000);

    // The renderer, writing what it plays as raw 16-bit stereo; it answers once it is up.
    m_capture = m_dir.filePath(QStringLiteral("renderer.raw"));
    start(QStringLiteral(GMEDIARENDER),
          {"-I", "d0", "-p", "49494", "-f", "Test Renderer", "-u",
           "0f9a1c2e-1111-2222-3333-444455556666", "--logfile", m_dir.filePath("renderer.log"),
           "--gstout-audiopipe",
           "audioconvert ! audioresample ! audio/x-raw,format=S16LE,rate=44100,channels=2 ! "
           "filesink location=" +
               m_capture});
    QNetworkAccessManager network;
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            QNetworkReply *reply = network.get(QNetworkRequest(QUrl(rendererUrl)));
            QDeadlineTimer deadline(1000);
            while (!reply->isFinished() && !deadline.hasExpired())
                serve(20);
            const bool ok = reply->error() == QNetworkReply::NoError;
            reply->deleteLater();
            return ok;
        }(),
        20000);

    m_simulator = start(QStringLiteral(SPEAKER_SIM),
                        {"--players", "1", "--address", address, "--renderer", rendererUrl});
    QTRY_VERIFY_WITH_TIMEOUT(m_simulator->peek(1 << 16).contains("ready\n"), 10000);
}

void TestTone::cleanupTestCase()
{
    for (auto it = m_processes.rbegin(); it != m_processes.rend(); ++it) {
        (*it)->terminate();
        if (!(*it)->waitForFinished(3000))
            (*it)->kill();
        (*it)->waitForFinished();
    }
}

void TestTone::toneReachesTheRendererThroughAPause()
{
    // Corvel with the speakers as sound outputs, as the user left it.
    const QString home = m_dir.filePath(QStringLiteral("corvel"));
    QVERIFY(QDir().mkpath(home + QStringLiteral("/config")));
    qputenv("XDG_CONFIG_HOME", (home + QStringLiteral("/config")).toUtf8());
    Settings::load(std::make_unique<UserSettingsStorage>())->setSoundOutputs(true);
    HeadlessCorvel corvel(QStringLiteral(CORVEL), QStringLiteral(FAKE_BRIDGE), home,
                          QStringLiteral("airupnp-tone"),
                          {QStringLiteral("PULSE_SERVER=") + m_env.value("PULSE_SERVER"),
                           QStringLiteral("HOME=") + home});
    QVERIFY2(corvel.waitFor("Sound output ready: "), corvel.output.right(3000));
    QByteArray sinks;
    QVERIFY(pactl({"list", "short", "sinks"}, &sinks));
    const QByteArray sink = sinks.mid(sinks.indexOf("corvel.")).split('\t').value(0);
    QVERIFY2(sink.startsWith("corvel.RINCON_"), sinks.constData());

    // A tone, a pause, the tone again: pacat ends its stream when its input ends.
    const auto play = [&](double seconds) {
        QProcess pacat;
        pacat.setProcessEnvironment(m_env);
        pacat.start(QStringLiteral("pacat"),
                    {"--playback", "-d", QString::fromUtf8(sink), "--format=s16le", "--rate=44100",
                     "--channels=2", "--latency-msec=20"});
        pacat.waitForStarted();
        pacat.write(tone(seconds));
        pacat.closeWriteChannel();
        QDeadlineTimer deadline(int(seconds * 1000) + 5000);
        while (pacat.state() != QProcess::NotRunning && !deadline.hasExpired())
            serve(5);
        return pacat.exitCode() == 0;
    };
    QElapsedTimer clock;
    clock.start();
    qint64 firstByteMs = -1;
    auto watch = new QTimer(this);
    connect(watch, &QTimer::timeout, this, [&] {
        if (firstByteMs < 0 && QFileInfo(m_capture).size() > 0)
            firstByteMs = clock.elapsed();
    });
    watch->start(5);
    QVERIFY(play(2.0));
    serve(2500);
    QVERIFY(play(2.0));
    serve(1500);
    watch->deleteLater();

    QFile file(m_capture);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray pcm = file.readAll();
    Window loudest;
    const QString letters = classify(pcm, &loudest);
    qInfo("tone: first byte at the renderer %lld ms after the first sample played; 1 kHz level "
          "%.0f (3 kHz %.0f, rms %.0f) of 8000; renderer got %.2f s: %s",
          firstByteMs, loudest.at1k, loudest.at3k, loudest.rms, pcm.size() / 4.0 / rate,
          qPrintable(letters));
    // Tone (at least 1.5 s), silence (at least 1 s), tone again; a window or two at each edge
    // may be mixed, and nothing else is heard.
    static const QRegularExpression shape(
        QStringLiteral("^s*x{0,2}T{15,}x{0,2}s{10,}x{0,2}T{15,}x{0,2}s*$"));
    QVERIFY2(shape.match(letters).hasMatch(), qPrintable(letters));
    QVERIFY(firstByteMs > 0);

    // One start for the whole session: the pause kept the speaker listening.
    const QByteArray calls = m_simulator->peek(1 << 20);
    QCOMPARE(calls.count("control 0 SetAVTransportURI"), 1);
    QCOMPARE(calls.count("control 0 Play"), 1);
    QVERIFY2(corvel.output.contains("Living Room"), corvel.output.right(2000).constData());

    // Quitting stops the speaker and leaves nothing behind.
    QVERIFY(corvel.end(SIGTERM));
    QTRY_VERIFY(m_simulator->peek(1 << 20).contains("control 0 Stop"));
    QTcpSocket probe;
    probe.connectToHost(address, 49400);
    QVERIFY(!probe.waitForConnected(1000));
    QVERIFY(pactl({"list", "short", "sinks"}, &sinks));
    QVERIFY2(!sinks.contains("corvel."), sinks.constData());
}

QTEST_MAIN(TestTone)
#include "TestTone.moc"
