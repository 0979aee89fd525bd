// SPDX-License-Identifier: GPL-3.0-or-later
#include "PactlSoundOutputs.h"

#include "AtomicFile.h"
#include "DBusNames.h"
#include "Logging.h"

#include <memory>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>

namespace {
const QString module = QStringLiteral("module-raop-discover");
const QByteArray pulseLine = "load-module module-raop-discover\n";
const QString noAnswer = QStringLiteral("pactl did not answer (is the pactl command installed?)");

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

PactlSoundOutputs::PactlSoundOutputs(QString pactl, QString configHome,
                                     std::function<void(std::function<void(bool)>)> avahiRunning)
    : m_pactl(std::move(pactl)), m_configHome(std::move(configHome)),
      m_avahiRunning(std::move(avahiRunning))
{
    if (m_configHome.isEmpty())
        m_configHome = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    if (!m_avahiRunning) {
        m_avahiRunning = [](std::function<void(bool)> done) {
            whenNameOwned(QDBusConnection::systemBus(), QStringLiteral("org.freedesktop.Avahi"),
                          std::move(done));
        };
    }
}

QString PactlSoundOutputs::pipeWireDropIn() const
{
    return m_configHome + QStringLiteral("/pipewire/pipewire.conf.d/50-corvel-raop-discover.conf");
}

QString PactlSoundOutputs::pulseAudioScript() const
{
    return m_configHome + QStringLiteral("/pulse/default.pa");
}

void PactlSoundOutputs::runPactl(const QStringList &arguments,
                                 std::function<void(bool, QString)> done)
{
    auto *process = new QProcess(QCoreApplication::instance());
    auto *timer = new QTimer(process);
    auto finished = std::make_shared<bool>(false);
    const auto finish = [process, finished, done](bool ok, const QString &output) {
        if (*finished)
            return;
        *finished = true;
        process->deleteLater();
        done(ok, output);
    };
    process->setProcessChannelMode(QProcess::MergedChannels);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, process, [process, finish] {
        process->kill();
        finish(false, noAnswer);
    });
    QObject::connect(process, &QProcess::errorOccurred, process,
                     [finish](QProcess::ProcessError error) {
                         if (error == QProcess::FailedToStart)
                             finish(false, noAnswer);
                     });
    QObject::connect(process, &QProcess::finished, process,
                     [process, finish](int code, QProcess::ExitStatus status) {
                         finish(status == QProcess::NormalExit && code == 0,
                                QString::fromUtf8(process->readAll()).trimmed());
                     });
    timer->start(pactlTimeoutMs);
    process->start(m_pactl, arguments);
}

void PactlSoundOutputs::status(std::function<void(const Status &)> done)
{
    auto status = std::make_shared<Status>();
    const auto withAvahi = [this, status, done] {
        m_avahiRunning([status, done](bool running) {
            status->avahiRunning = running;
            done(*status);
        });
    };
    runPactl({QStringLiteral("info")}, [=, this](bool ok, const QString &info) {
        // pipewire-pulse names itself "PulseAudio (on PipeWire x.y.z)".
        for (const QString &line : info.split(QLatin1Char('\n'))) {
            if (ok && line.startsWith(QLatin1String("Server Name:")))
                status->server = line.contains(QLatin1String("PipeWire")) ? Server::PipeWire
                                                                          : Server::PulseAudio;
        }
        if (status->server == Server::None) {
            withAvahi();
            return;
        }
        runPactl({QStringLiteral("list"), QStringLiteral("modules"), QStringLiteral("short")},
                 [=](bool listed, const QString &modules) {
                     status->raopDiscoveryActive = listed && modules.contains(module);
                     withAvahi();
                 });
    });
}

void PactlSoundOutputs::setEnabled(bool enable, Done done)
{
    status([this, enable, done](const Status &current) {
        if (enable)
            this->enable(current, done);
        else
            disable(current, done);
    });
}

void PactlSoundOutputs::enable(const Status &current, Done done)
{
    if (current.server == Server::None) {
        done(false, QStringLiteral("No sound server answered pactl. Corvel needs PipeWire (Debian "
                                   "packages pipewire-pulse and pulseaudio-utils) or PulseAudio."));
        return;
    }
    if (!current.avahiRunning) {
        done(false,
             QStringLiteral("avahi-daemon is not running, so this computer cannot see AirPlay "
                            "speakers. Install it (Debian package avahi-daemon) and start it."));
        return;
    }
    const auto persistNow = [this, current, done] {
        QString error;
        const bool ok = persist(current.server, &error);
        done(ok, error);
    };
    if (current.raopDiscoveryActive) {
        persistNow();
        return;
    }
    runPactl({QStringLiteral("load-module"), module}, [=](bool ok, const QString &output) {
        if (ok) {
            persistNow();
            return;
        }
        done(false, QStringLiteral("Loading %1 failed: %2. It comes with %3.")
                        .arg(module, output,
                             current.server == Server::PipeWire
                                 ? QStringLiteral("PipeWire's modules (Debian package "
                                                  "libpipewire-0.3-modules)")
                                 : QStringLiteral("the Debian package pulseaudio-module-raop")));
    });
}

void PactlSoundOutputs::disable(const Status &current, Done done)
{
    const auto unpersistNow = [this, done] {
        QString error;
        const bool ok = unpersist(&error);
        done(ok, error);
    };
    if (!current.raopDiscoveryActive) {
        unpersistNow();
        return;
    }
    runPactl({QStringLiteral("unload-module"), module}, [=](bool ok, const QString &output) {
        if (ok)
            unpersistNow();
        else
            done(false, QStringLiteral("Unloading %1 failed: %2").arg(module, output));
    });
}

bool PactlSoundOutputs::persist(Server server, QString *error) const
{
    if (server == Server::PipeWire)
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

bool PactlSoundOutputs::unpersist(QString *error) const
{
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
