// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundRig.h"

#include <cmath>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QStandardPaths>
#include <QTimer>

namespace {
const QString rendererUrl = QStringLiteral("http://192.0.2.1:49494/description.xml");

void serve(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

bool run(const QString &program, const QStringList &arguments, QByteArray *output,
         const QProcessEnvironment &env)
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

// Serves the event loop until ready() holds or timeoutMs pass.
template <typename Ready> bool waitUntil(Ready ready, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!ready()) {
        if (deadline.hasExpired())
            return false;
        serve(50);
    }
    return true;
}

qint16 sample(const QByteArray &pcm, qsizetype frame)
{
    const auto *p = reinterpret_cast<const uchar *>(pcm.constData()) + 4 * frame;
    return qint16(p[0] | (p[1] << 8));
}
} // namespace

SoundRig::SoundRig(const QString &dir, const QString &gmediarender, const QString &simulator)
    : m_dir(dir), m_gmediarender(gmediarender), m_simulatorPath(simulator),
      m_capture(dir + QStringLiteral("/renderer.raw")),
      m_env(QProcessEnvironment::systemEnvironment())
{
    const QString runtime = dir + QStringLiteral("/run");
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    m_env.insert(QStringLiteral("HOME"), dir);
    m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir + QStringLiteral("/config"));
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                 QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus"));
    m_env.insert(QStringLiteral("PULSE_SERVER"), pulseServer());
    m_env.remove(QStringLiteral("DISPLAY"));
    m_env.remove(QStringLiteral("WAYLAND_DISPLAY"));
}

SoundRig::~SoundRig()
{
    for (auto it = m_processes.rbegin(); it != m_processes.rend(); ++it) {
        (*it)->terminate();
        if (!(*it)->waitForFinished(3000))
            (*it)->kill();
        (*it)->waitForFinished();
        delete *it;
    }
}

QString SoundRig::pulseServer() const
{
    return QStringLiteral("unix:") + m_dir + QStringLiteral("/run/pulse/native");
}

QProcess *SoundRig::launch(const QString &program, const QStringList &arguments)
{
    auto *process = new QProcess;
    process->setProcessEnvironment(m_env);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->start(program, arguments);
    m_processes.push_back(process);
    return process;
}

bool SoundRig::start(QString *error, bool *skip)
{
    *skip = false;
    for (const QString program :
         {"pipewire", "wireplumber", "pipewire-pulse", "pactl", "pacat", "dbus-daemon", "ip"}) {
        if (QStandardPaths::findExecutable(program).isEmpty()) {
            *error = program + QStringLiteral(" is missing: run scripts/setup");
            return false;
        }
    }
    if (!QFileInfo(m_gmediarender).isExecutable()) {
        *error = QStringLiteral("gmediarender is not extracted: run scripts/setup");
        return false;
    }
    // The speaker's address on a veth with no IPv6 link address, which the renderer would
    // otherwise wait for.
    const auto ip = [this](const QString &command) {
        return run(QStringLiteral("ip"), command.split(QLatin1Char(' ')), nullptr, m_env);
    };
    if (!ip(QStringLiteral("link add d0 type veth peer name d1"))) {
        *skip = true;
        *error = QStringLiteral("No veth interfaces can be made in this namespace");
        return false;
    }
    if (!(ip(QStringLiteral("link set d0 addrgenmode none")) &&
          ip(QStringLiteral("link set d1 addrgenmode none")) &&
          ip(QStringLiteral("addr add %1/24 dev d0").arg(QLatin1String(speakerAddress))) &&
          ip(QStringLiteral("link set d1 up")) && ip(QStringLiteral("link set d0 up")))) {
        *error = QStringLiteral("Cannot give the veth its address");
        return false;
    }

    const QString runtime = m_dir + QStringLiteral("/run");
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    launch(QStringLiteral("dbus-daemon"),
           {"--session", "--nofork", "--address=unix:path=" + runtime + "/bus"});
    // The session manager and the PulseAudio service give up when PipeWire is not listening
    // yet; without the session manager nothing is ever linked.
    launch(QStringLiteral("pipewire"), {});
    if (!waitUntil([&] { return QFileInfo::exists(runtime + QStringLiteral("/pipewire-0")); },
                   20000)) {
        *error = QStringLiteral("PipeWire did not listen within 20 s");
        return false;
    }
    QProcess *sessionManager = launch(QStringLiteral("wireplumber"), {});
    if (!restartSoundServer()) {
        *error = QStringLiteral("The sound server did not answer within 20 s");
        return false;
    }
    if (sessionManager->state() == QProcess::NotRunning) {
        *error = QStringLiteral("WirePlumber ended: ") +
                 QString::fromLocal8Bit(sessionManager->readAll());
        return false;
    }

    m_renderer =
        launch(m_gmediarender,
               {"-I", "d0", "-p", "49494", "-f", "Test Renderer", "-u",
                "0f9a1c2e-1111-2222-3333-444455556666", "--logfile", m_dir + "/renderer.log",
                "--gstout-audiopipe",
                "audioconvert ! audioresample ! audio/x-raw,format=S16LE,rate=44100,channels=2 ! "
                "filesink location=" +
                    m_capture});
    QNetworkAccessManager network;
    const auto answers = [&] {
        QNetworkReply *reply = network.get(QNetworkRequest(QUrl(rendererUrl)));
        QDeadlineTimer deadline(1000);
        while (!reply->isFinished() && !deadline.hasExpired())
            serve(20);
        const bool ok = reply->isFinished() && reply->error() == QNetworkReply::NoError;
        reply->deleteLater();
        return ok;
    };
    if (!waitUntil(answers, 20000)) {
        *error = QStringLiteral("The renderer did not answer within 20 s");
        return false;
    }

    m_simulator = launch(m_simulatorPath, {"--players", "1", "--address", speakerAddress,
                                           "--renderer", rendererUrl});
    if (!waitUntil([this] { return calls().contains("ready\n"); }, 10000)) {
        *error = QStringLiteral("The simulated player did not start: ") + calls();
        return false;
    }
    return true;
}

bool SoundRig::restartSoundServer()
{
    if (m_pulse) {
        m_pulse->terminate();
        m_pulse->waitForFinished(3000);
    }
    m_pulse = launch(QStringLiteral("pipewire-pulse"), {});
    return waitUntil([this] { return pactl({QStringLiteral("info")}); }, 20000);
}

QByteArray SoundRig::calls()
{
    if (m_simulator)
        m_calls += m_simulator->readAll();
    return m_calls;
}

bool SoundRig::pactl(const QStringList &arguments, QByteArray *output) const
{
    return run(QStringLiteral("pactl"), arguments, output, m_env);
}

QByteArray SoundRig::corvelSink() const
{
    QByteArray sinks;
    pactl({"list", "short", "sinks"}, &sinks);
    const qsizetype at = sinks.indexOf("corvel.");
    return at < 0 ? QByteArray() : sinks.mid(at).split('\t').value(0);
}

bool SoundRig::play(const QByteArray &sink, const QByteArray &pcm) const
{
    QProcess pacat;
    pacat.setProcessEnvironment(m_env);
    pacat.start(QStringLiteral("pacat"),
                {"--playback", "-d", QString::fromUtf8(sink), "--format=s16le", "--rate=44100",
                 "--channels=2", "--latency-msec=20"});
    if (!pacat.waitForStarted())
        return false;
    pacat.write(pcm);
    pacat.closeWriteChannel(); // pacat ends its stream when its input ends
    const int ms = int(pcm.size() * 1000 / (4 * rate));
    // Played at the sound server's pace: a loaded machine can stall its graph for seconds.
    waitUntil([&] { return pacat.state() == QProcess::NotRunning; }, ms + 20000);
    if (pacat.state() == QProcess::NotRunning)
        return pacat.exitCode() == 0;
    // What the sound graph and the rig's programs were doing.
    QByteArray said;
    for (const char *what : {"sink-inputs", "source-outputs", "sinks"}) {
        QByteArray listed;
        pactl({QStringLiteral("list"), QString::fromLatin1(what)}, &listed);
        said += listed;
    }
    for (QProcess *process : m_processes) {
        if (process != m_simulator) // its output is the calls
            said += "\n" + process->program().toUtf8() +
                    (process->state() == QProcess::Running ? " runs: " : " ended: ") +
                    process->readAll().right(2000);
    }
    qWarning("pacat did not finish: %s", said.constData());
    return false;
}

QByteArray SoundRig::tone(double seconds)
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

SoundRig::Window SoundRig::measure(const QByteArray &pcm, qsizetype firstFrame)
{
    const auto goertzel = [&](double frequency) {
        const double k = 2 * std::cos(2 * M_PI * frequency / rate);
        double s1 = 0, s2 = 0;
        for (int i = 0; i < windowFrames; ++i) {
            const double s0 = sample(pcm, firstFrame + i) + k * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        return std::sqrt(std::max(0.0, s1 * s1 + s2 * s2 - k * s1 * s2)) / windowFrames;
    };
    double sum = 0;
    for (int i = 0; i < windowFrames; ++i)
        sum += double(sample(pcm, firstFrame + i)) * sample(pcm, firstFrame + i);
    return Window{std::sqrt(sum / windowFrames), goertzel(1000), goertzel(3000)};
}

QString SoundRig::classify(const QByteArray &pcm, Window *loudest)
{
    QString letters;
    for (qsizetype frame = 0; (frame + windowFrames) * 4 <= pcm.size(); frame += windowFrames) {
        const Window w = measure(pcm, frame);
        // A pure tone's rms is its 1 kHz level times √2; noise or other tones add to the rms.
        if (w.rms < 100) {
            letters += QLatin1Char('s');
        } else if (w.at1k > 5000 && w.at1k > 20 * w.at3k && w.rms < 1.2 * w.at1k * M_SQRT2) {
            letters += QLatin1Char('T');
            if (w.at1k > loudest->at1k)
                *loudest = w;
        } else {
            letters += QLatin1Char('x');
        }
    }
    return letters;
}

qsizetype SoundRig::firstSound(const QByteArray &pcm, qsizetype frame)
{
    for (; frame * 4 + 4 <= pcm.size(); ++frame) {
        if (std::abs(sample(pcm, frame)) > 300)
            return frame;
    }
    return -1;
}
