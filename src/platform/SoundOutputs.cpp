// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundOutputs.h"

#include "AtomicFile.h"
#include "DBusNames.h"
#include "Logging.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

namespace {
const QString module = QStringLiteral("module-raop-discover");
const QByteArray pulseLine = "load-module module-raop-discover\n";
constexpr int pactlTimeoutMs = 3000;

bool writeFile(const QString &path, const QByteArray &text, QString *error)
{
    QDir().mkpath(QFileInfo(path).path());
    QString reason;
    if (writeFileAtomically(path, text, &reason))
        return true;
    *error = QStringLiteral("Cannot write %1: %2").arg(path, reason);
    return false;
}
} // namespace

SoundOutputs::SoundOutputs(QString pactl, QString configHome, std::function<bool()> avahiRunning)
    : m_pactl(std::move(pactl)), m_configHome(std::move(configHome)),
      m_avahiRunning(std::move(avahiRunning))
{
    if (m_configHome.isEmpty())
        m_configHome = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    if (!m_avahiRunning) {
        m_avahiRunning = [] {
            return busNameHasOwner(QDBusConnection::systemBus(),
                                   QStringLiteral("org.freedesktop.Avahi"));
        };
    }
}

QString SoundOutputs::pipeWireDropIn() const
{
    return m_configHome + QStringLiteral("/pipewire/pipewire.conf.d/50-corvel-raop-discover.conf");
}

QString SoundOutputs::pulseAudioScript() const
{
    return m_configHome + QStringLiteral("/pulse/default.pa");
}

bool SoundOutputs::runPactl(const QStringList &arguments, QString *output) const
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(m_pactl, arguments);
    if (!process.waitForFinished(pactlTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        if (output)
            *output = QStringLiteral("pactl did not answer (is the pactl command installed?)");
        return false;
    }
    if (output)
        *output = QString::fromUtf8(process.readAll()).trimmed();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

SoundOutputs::Status SoundOutputs::status() const
{
    Status status;
    QString info;
    if (runPactl({QStringLiteral("info")}, &info)) {
        // pipewire-pulse names itself "PulseAudio (on PipeWire x.y.z)".
        for (const QString &line : info.split(QLatin1Char('\n'))) {
            if (line.startsWith(QLatin1String("Server Name:")))
                status.server = line.contains(QLatin1String("PipeWire")) ? Server::PipeWire
                                                                         : Server::PulseAudio;
        }
    }
    QString modules;
    if (status.server != Server::None &&
        runPactl({QStringLiteral("list"), QStringLiteral("modules"), QStringLiteral("short")},
                 &modules))
        status.raopDiscoveryActive = modules.contains(module);
    status.avahiRunning = m_avahiRunning();
    return status;
}

bool SoundOutputs::enable(QString *error) const
{
    const Status current = status();
    if (current.server == Server::None) {
        *error =
            QStringLiteral("No sound server answered pactl. Corvel needs PipeWire (Debian packages "
                           "pipewire-pulse and pulseaudio-utils) or PulseAudio.");
        return false;
    }
    if (!current.avahiRunning) {
        *error = QStringLiteral(
            "avahi-daemon is not running, so this computer cannot see AirPlay speakers. "
            "Install it (Debian package avahi-daemon) and start it.");
        return false;
    }
    QString output;
    if (!current.raopDiscoveryActive &&
        !runPactl({QStringLiteral("load-module"), module}, &output)) {
        *error = QStringLiteral("Loading %1 failed: %2. It comes with %3.")
                     .arg(module, output,
                          current.server == Server::PipeWire
                              ? QStringLiteral(
                                    "PipeWire's modules (Debian package libpipewire-0.3-modules)")
                              : QStringLiteral("the Debian package pulseaudio-module-raop"));
        return false;
    }
    if (current.server == Server::PipeWire)
        return writeFile(pipeWireDropIn(),
                         "# Added by Corvel: Sonos speakers as sound outputs.\n"
                         "context.modules = [ { name = libpipewire-module-raop-discover } ]\n",
                         error);
    QFile script(pulseAudioScript());
    QByteArray text;
    if (script.open(QIODevice::ReadOnly))
        text = script.readAll();
    else
        text = ".include /etc/pulse/default.pa\n";
    if (text.contains(pulseLine))
        return true;
    if (!text.isEmpty() && !text.endsWith('\n'))
        text += '\n';
    return writeFile(pulseAudioScript(), text + pulseLine, error);
}

bool SoundOutputs::disable(QString *error) const
{
    const Status current = status();
    QString output;
    if (current.raopDiscoveryActive &&
        !runPactl({QStringLiteral("unload-module"), module}, &output)) {
        *error = QStringLiteral("Unloading %1 failed: %2").arg(module, output);
        return false;
    }
    if (QFile::exists(pipeWireDropIn()) && !QFile::remove(pipeWireDropIn())) {
        *error = QStringLiteral("Cannot remove %1").arg(pipeWireDropIn());
        return false;
    }
    QFile script(pulseAudioScript());
    if (script.open(QIODevice::ReadOnly)) {
        QByteArray text = script.readAll();
        script.close();
        if (text.contains(pulseLine)) {
            text.replace(pulseLine, "");
            return writeFile(pulseAudioScript(), text, error);
        }
    }
    return true;
}
