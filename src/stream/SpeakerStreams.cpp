// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeakerStreams.h"

#include "Logging.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QSysInfo>
#include <sys/socket.h>
#include <unistd.h>

namespace {
const QString category = QStringLiteral("stream");

// A timer that calls slot once, ms after its latest start.
template <typename Slot> std::unique_ptr<QTimer> oneShot(int ms, QObject *context, Slot slot)
{
    auto timer = std::make_unique<QTimer>();
    timer->setSingleShot(true);
    timer->setInterval(ms);
    QObject::connect(timer.get(), &QTimer::timeout, context, std::move(slot));
    return timer;
}
} // namespace

SpeakerStreams::SpeakerStreams(QObject *parent)
    : QObject(parent), m_http(this), m_upnp(this),
      m_sound(SoundServer::Callbacks{
                  [this](const QString &id, const QByteArray &pcm) { m_http.write(id, pcm); },
                  [this](const QString &id, bool sound) { soundChanged(id, sound); },
                  [this](const QString &id, int percent) {
                      const auto found = m_speakers.find(id);
                      if (found == m_speakers.end())
                          return;
                      found->second.volume = percent;
                      found->second.volumeTimer->start();
                  },
                  [this](bool connected, const QString &error) {
                      connection(connected, error);
                  }},
              this)
{
    m_http.onListenerGone = [this](const QString &id) {
        QTimer::singleShot(listenerGraceMs, this, [this, id] { listenerGone(id); });
    };
    m_reconnect = oneShot(reconnectMs, this, [this] {
        if (m_enabled)
            m_sound.connectToServer();
    });
}

SpeakerStreams::~SpeakerStreams() = default;

bool SpeakerStreams::wanted(const DeviceSettings &record, bool foundOrNot)
{
    if (!(record.active || foundOrNot) || !record.enabled || !record.info.udn ||
        record.info.udn->isEmpty())
        return false;
    if (record.topology && !record.topology->coordinator)
        return false;
    QHostAddress address;
    return address.setAddress(record.info.location.host()) &&
           address.protocol() == QAbstractSocket::IPv4Protocol;
}

QString SpeakerStreams::outputId(const DeviceSettings &record)
{
    QString id = record.info.udn.value_or(QString());
    if (id.startsWith(QStringLiteral("uuid:")))
        id = id.mid(5);
    for (QChar &c : id) {
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != QLatin1Char('_') &&
            c != QLatin1Char('-'))
            c = QLatin1Char('_');
    }
    return id;
}

QString SpeakerStreams::metadata(const QUrl &stream, const QString &title)
{
    return QStringLiteral(
               "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
               "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
               "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
               "<item id=\"1\" parentID=\"0\" restricted=\"1\"><dc:title>%1</dc:title>"
               "<upnp:class>object.item.audioItem.audioBroadcast</upnp:class>"
               "<res protocolInfo=\"http-get:*:audio/wav:*\">%2</res></item></DIDL-Lite>")
        .arg(title.toHtmlEscaped(), stream.toString(QUrl::FullyEncoded).toHtmlEscaped());
}

QHostAddress SpeakerStreams::localAddressTowards(const QHostAddress &host)
{
    // A connected datagram socket sends nothing: it only asks the routing table. (Should the
    // socket fail, connecting descriptor -1 fails and no address is found.)
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(speakerPort);
    remote.sin_addr.s_addr = htonl(host.toIPv4Address());
    sockaddr_in local{};
    socklen_t length = sizeof local;
    QHostAddress address;
    if (::connect(fd, reinterpret_cast<sockaddr *>(&remote), sizeof remote) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&local), &length) == 0)
        address = QHostAddress(ntohl(local.sin_addr.s_addr));
    ::close(fd);
    return address;
}

void SpeakerStreams::setEnabled(bool enabled)
{
    if (enabled == m_enabled || m_shutDown)
        return;
    if (enabled && !SoundServer::mainLoopUsable()) {
        logError(category, QStringLiteral("Qt does not run GLib's main loop here "
                                          "(QT_NO_GLIB is set?): no sound outputs"));
        return;
    }
    m_enabled = enabled;
    logInfo(category, enabled ? QStringLiteral("Speakers as sound outputs: on")
                              : QStringLiteral("Speakers as sound outputs: off"));
    if (enabled)
        m_sound.connectToServer();
}

void SpeakerStreams::connection(bool connected, const QString &error)
{
    if (connected) {
        m_lastConnectionError.clear();
        m_reconnect->setInterval(reconnectMs);
        return;
    }
    if (error != m_lastConnectionError && onProblem)
        onProblem(QCoreApplication::translate(
            "SpeakerStreams", "No sound server answered, so the speakers are not sound outputs "
                              "of this computer: Corvel needs PipeWire (with pipewire-pulse) "
                              "or PulseAudio, and tries again."));
    m_lastConnectionError = error;
    if (!m_enabled)
        return;
    m_reconnect->start();
    m_reconnect->setInterval(std::min(m_reconnect->interval() * 2, maxReconnectMs));
}

void SpeakerStreams::listenerGone(const QString &id)
{
    const auto found = m_speakers.find(id);
    if (found == m_speakers.end() || found->second.session != Session::On ||
        m_http.listeners(id) > 0)
        return;
    logInfo(category, found->second.name +
                          QStringLiteral(" no longer fetches this computer's sound (another "
                                         "source was chosen?); the next sound starts it again"));
    found->second.session = Session::None;
    if (onPlayingChanged)
        onPlayingChanged();
}

void SpeakerStreams::update(const DeviceMap &devices, bool searching)
{
    m_devices = devices;
    std::map<QString, const DeviceSettings *> wantedNow;
    if (m_enabled) {
        for (const auto &entry : devices) {
            const QString id = outputId(entry.second);
            if (wanted(entry.second, searching && m_speakers.count(id)))
                wantedNow[id] = &entry.second;
        }
    }
    std::vector<QString> gone;
    for (const auto &[id, speaker] : m_speakers) {
        const auto found = wantedNow.find(id);
        // A new name or address makes a new output (sinks cannot be renamed).
        if (found == wantedNow.end() || found->second->name != speaker.name ||
            found->second->info.location.host() != speaker.location.host())
            gone.push_back(id);
    }
    for (const QString &id : gone)
        remove(id);
    for (const auto &[id, record] : wantedNow) {
        if (!m_speakers.count(id))
            add(id, *record);
        else
            m_speakers[id].location = record->info.location;
    }
}

void SpeakerStreams::add(const QString &id, const DeviceSettings &record)
{
    const QHostAddress speaker(record.info.location.host());
    const QHostAddress local = localAddressTowards(speaker);
    QString error;
    const QUrl stream = local.isNull() ? QUrl() : m_http.open(id, local, speaker, &error);
    if (stream.isEmpty()) {
        logError(category, QStringLiteral("No sound output for %1: %2")
                               .arg(record.name, local.isNull() ? QStringLiteral("no route to ") +
                                                                      speaker.toString()
                                                                : error));
        return;
    }
    Speaker &entry = m_speakers[id];
    entry.udn = *record.info.udn;
    entry.name = record.name;
    entry.location = record.info.location;
    entry.stream = stream;
    entry.idle =
        oneShot(idleStopMs, this, [this, id] { stop(id, QStringLiteral("quiet for a while")); });
    entry.volumeTimer = oneShot(volumeSettleMs, this, [this, id] {
        const auto found = m_speakers.find(id);
        if (found == m_speakers.end())
            return;
        const Speaker &speaker = found->second;
        logInfo(category, QStringLiteral("Volume of %1: %2").arg(speaker.name).arg(speaker.volume));
        m_upnp.call(UpnpControl::controlUrl(speaker.location, UpnpControl::renderingControl),
                    UpnpControl::renderingControl, QStringLiteral("SetVolume"),
                    {{QStringLiteral("InstanceID"), QStringLiteral("0")},
                     {QStringLiteral("Channel"), QStringLiteral("Master")},
                     {QStringLiteral("DesiredVolume"), QString::number(speaker.volume)}},
                    [this, id](const UpnpControl::Reply &reply) {
                        if (!reply.ok)
                            fail(id, QStringLiteral("SetVolume"), reply);
                    });
    });
    logInfo(category, QStringLiteral("%1 becomes a sound output, streamed from %2")
                          .arg(record.name, stream.toString()));
    m_sound.addOutput(id, record.name);
}

void SpeakerStreams::remove(const QString &id)
{
    const auto found = m_speakers.find(id);
    if (found == m_speakers.end())
        return;
    // A speaker in a session is stopped, which tells whoever shows what plays.
    stop(id, QStringLiteral("no longer offered"));
    m_sound.removeOutput(id);
    m_http.close(id);
    m_speakers.erase(found);
}

void SpeakerStreams::soundChanged(const QString &id, bool sound)
{
    const auto found = m_speakers.find(id);
    if (found == m_speakers.end())
        return;
    Speaker &speaker = found->second;
    speaker.sound = sound;
    m_http.setSounding(id, sound);
    if (sound) {
        speaker.idle->stop();
        if (speaker.session == Session::None)
            start(id);
    } else {
        // The speaker keeps listening to the silence for a while, so that the next sound
        // needs no new start.
        speaker.idle->start();
    }
    if (onPlayingChanged)
        onPlayingChanged();
}

void SpeakerStreams::start(const QString &id)
{
    Speaker &speaker = m_speakers[id];
    speaker.session = Session::Starting;
    const QString title = QCoreApplication::translate("SpeakerStreams", "Sound from %1")
                              .arg(QSysInfo::machineHostName());
    logInfo(category,
            QStringLiteral("Asking %1 to play %2").arg(speaker.name, speaker.stream.toString()));
    const QUrl control = UpnpControl::controlUrl(speaker.location, UpnpControl::avTransport);
    m_upnp.call(control, UpnpControl::avTransport, QStringLiteral("SetAVTransportURI"),
                {{QStringLiteral("InstanceID"), QStringLiteral("0")},
                 {QStringLiteral("CurrentURI"), speaker.stream.toString(QUrl::FullyEncoded)},
                 {QStringLiteral("CurrentURIMetaData"), metadata(speaker.stream, title)}},
                [this, id, control](const UpnpControl::Reply &reply) {
                    if (!startAnswered(id, QStringLiteral("SetAVTransportURI"), reply))
                        return;
                    m_upnp.call(
                        control, UpnpControl::avTransport, QStringLiteral("Play"),
                        {{QStringLiteral("InstanceID"), QStringLiteral("0")},
                         {QStringLiteral("Speed"), QStringLiteral("1")}},
                        [this, id](const UpnpControl::Reply &reply) {
                            Speaker *speaker = startAnswered(id, QStringLiteral("Play"), reply);
                            if (!speaker)
                                return;
                            speaker->session = Session::On;
                            logInfo(category,
                                    speaker->name + QStringLiteral(" plays from this computer"));
                            if (onPlayingChanged)
                                onPlayingChanged();
                        });
                });
}

SpeakerStreams::Speaker *SpeakerStreams::startAnswered(const QString &id, const QString &action,
                                                       const UpnpControl::Reply &reply)
{
    // Stopped meanwhile: its start's answers are left alone (no Play after the Stop; a new
    // start makes calls of its own).
    const auto found = m_speakers.find(id);
    if (found == m_speakers.end() || found->second.session != Session::Starting)
        return nullptr;
    if (!reply.ok) {
        fail(id, action, reply);
        return nullptr;
    }
    return &found->second;
}

void SpeakerStreams::stop(const QString &id, const QString &why)
{
    Speaker &speaker = m_speakers[id];
    if (speaker.session == Session::None)
        return;
    speaker.session = Session::None;
    logInfo(category, QStringLiteral("Stopping %1: %2").arg(speaker.name, why));
    m_upnp.call(UpnpControl::controlUrl(speaker.location, UpnpControl::avTransport),
                UpnpControl::avTransport, QStringLiteral("Stop"),
                {{QStringLiteral("InstanceID"), QStringLiteral("0")}},
                [name = speaker.name](const UpnpControl::Reply &reply) {
                    if (!reply.ok)
                        logWarning(category,
                                   QStringLiteral("%1 did not stop: %2").arg(name, reply.detail));
                });
    if (onPlayingChanged)
        onPlayingChanged();
}

void SpeakerStreams::fail(const QString &id, const QString &action, const UpnpControl::Reply &reply)
{
    const auto found = m_speakers.find(id);
    if (found == m_speakers.end())
        return;
    Speaker &speaker = found->second;
    logError(category, QStringLiteral("%1 refused %2 (%3): %4")
                           .arg(speaker.name, action)
                           .arg(reply.fault)
                           .arg(reply.detail));
    // A refused start leaves the speaker free to start with the next sound; it was not yet
    // playing, so what plays does not change.
    if (action != QLatin1String("SetVolume"))
        speaker.session = Session::None;
    if (onProblem)
        onProblem(speaker.name + QStringLiteral(": ") + UpnpControl::sentence(reply));
}

QSet<QString> SpeakerStreams::playingHere() const
{
    QSet<QString> udns;
    for (const auto &[id, speaker] : m_speakers) {
        if (speaker.sound && speaker.session == Session::On)
            udns.insert(speaker.udn);
    }
    return udns;
}

void SpeakerStreams::shutdown(int timeoutMs)
{
    // No output is made again while Corvel quits: the wait below runs the event loop, where
    // a queued update would turn the outputs on again.
    m_enabled = false;
    m_shutDown = true;
    if (m_speakers.empty())
        return;
    const QDeadlineTimer deadline(timeoutMs);
    // Each speaker is told to stop and its stream closed; the outputs go all at once.
    for (auto &[id, speaker] : m_speakers) {
        stop(id, QStringLiteral("Corvel quits"));
        m_http.close(id);
    }
    m_speakers.clear();
    m_sound.removeAll(int(deadline.remainingTime()));
    QEventLoop loop;
    while (m_upnp.pending() > 0 && !deadline.hasExpired())
        loop.processEvents(QEventLoop::ExcludeUserInputEvents | QEventLoop::WaitForMoreEvents, 20);
}
