// SPDX-License-Identifier: GPL-3.0-or-later
#include "StreamServer.h"

#include "Logging.h"

#include <algorithm>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtEndian>

namespace {
const QString category = QStringLiteral("stream");
constexpr qint64 maxRequestBytes = 8 * 1024;
constexpr int requestTimeoutMs = 10000;

QByteArray status(const QByteArray &line)
{
    return "HTTP/1.0 " + line + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

void appendLE(QByteArray &out, quint32 value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out += char((value >> (8 * i)) & 0xff);
}
} // namespace

StreamServer::StreamServer(QObject *parent) : QObject(parent)
{
    m_silence.setInterval(50);
    connect(&m_silence, &QTimer::timeout, this, &StreamServer::fillSilence);
}

StreamServer::~StreamServer()
{
    for (Listener &listener : m_listeners)
        listener.socket->abort();
}

QByteArray StreamServer::wavHeader()
{
    constexpr quint32 dataSize = 0xFFFFFFFFu - 36; // RIFF size = data + 36 fits in 32 bits
    QByteArray header = "RIFF";
    appendLE(header, dataSize + 36, 4);
    header += "WAVEfmt ";
    appendLE(header, 16, 4);
    appendLE(header, 1, 2); // PCM
    appendLE(header, 2, 2); // channels
    appendLE(header, sampleRate, 4);
    appendLE(header, bytesPerSecond, 4);
    appendLE(header, bytesPerFrame, 2);
    appendLE(header, 16, 2);
    header += "data";
    appendLE(header, dataSize, 4);
    return header;
}

QUrl StreamServer::open(const QString &id, const QHostAddress &local, const QHostAddress &speaker,
                        QString *error)
{
    QTcpServer *&server = m_servers[local.toString()];
    if (!server) {
        server = new QTcpServer(this);
        bool listening = false;
        for (int i = 0; i < portsTried && !listening; ++i)
            listening = server->listen(local, quint16(firstPort + i));
        if (!listening && !server->listen(local, 0)) {
            *error = QStringLiteral("Cannot serve sound on %1: %2")
                         .arg(local.toString(), server->errorString());
            delete server;
            m_servers.erase(local.toString());
            return {};
        }
        connect(server, &QTcpServer::newConnection, this, [this, server] { accept(server); });
        logInfo(category, QStringLiteral("Serving sound on %1:%2")
                              .arg(local.toString())
                              .arg(server->serverPort()));
    }
    m_streams[id] = Stream{speaker, local, false};
    closeUnusedServers();
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(local.toString());
    url.setPort(server->serverPort());
    url.setPath(QStringLiteral("/stream/") + QString::fromLatin1(QUrl::toPercentEncoding(id)) +
                QStringLiteral(".wav"));
    return url;
}

void StreamServer::close(const QString &id)
{
    if (!m_streams.erase(id))
        return;
    std::vector<QTcpSocket *> gone;
    for (const Listener &listener : m_listeners) {
        if (listener.id == id)
            gone.push_back(listener.socket);
    }
    for (QTcpSocket *socket : gone)
        drop(socket);
    closeUnusedServers();
}

void StreamServer::closeUnusedServers()
{
    for (auto it = m_servers.begin(); it != m_servers.end();) {
        const bool used = std::any_of(m_streams.begin(), m_streams.end(), [&](const auto &s) {
            return s.second.local.toString() == it->first;
        });
        if (used) {
            ++it;
            continue;
        }
        it->second->close();
        it->second->deleteLater();
        it = m_servers.erase(it);
    }
}

int StreamServer::listeners(const QString &id) const
{
    return int(std::count_if(m_listeners.begin(), m_listeners.end(),
                             [&](const Listener &l) { return l.id == id; }));
}

void StreamServer::accept(QTcpServer *server)
{
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readRequest(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] { drop(socket); });
        // A connection that never finishes its request does not hold a socket for long.
        QTimer::singleShot(requestTimeoutMs, socket, [this, socket] {
            if (!socket->property("streaming").toBool())
                drop(socket);
        });
    }
}

void StreamServer::readRequest(QTcpSocket *socket)
{
    if (socket->property("streaming").toBool()) {
        socket->readAll(); // a listener has nothing more to say
        return;
    }
    QByteArray request = socket->property("request").toByteArray() + socket->readAll();
    if (request.size() > maxRequestBytes) {
        socket->write(status("431 Request Header Fields Too Large"));
        socket->disconnectFromHost();
        return;
    }
    socket->setProperty("request", request);
    if (!request.contains("\r\n\r\n"))
        return;
    const QList<QByteArray> words = request.left(request.indexOf("\r\n")).split(' ');
    const QByteArray method = words.value(0);
    const QString path = QUrl::fromPercentEncoding(words.value(1));
    QString id;
    if (path.startsWith(QStringLiteral("/stream/")) && path.endsWith(QStringLiteral(".wav")))
        id = path.mid(8, path.size() - 12);
    const auto stream = m_streams.find(id);
    const QHostAddress peer(socket->peerAddress().toIPv4Address());
    if (stream == m_streams.end()) {
        socket->write(status("404 Not Found"));
    } else if (peer != stream->second.speaker) {
        // Only the speaker itself may listen: nobody else on the network hears this computer.
        if (!m_refused.contains(peer.toString())) {
            m_refused.insert(peer.toString());
            logWarning(category, QStringLiteral("Refused %1 the sound meant for %2")
                                     .arg(peer.toString(), stream->second.speaker.toString()));
        }
        socket->write(status("403 Forbidden"));
    } else if (method != "GET" && method != "HEAD") {
        socket->write(status("405 Method Not Allowed"));
    } else {
        socket->write("HTTP/1.0 200 OK\r\nContent-Type: audio/wav\r\nCache-Control: no-cache\r\n"
                      "Connection: close\r\nServer: Corvel\r\n\r\n");
        if (method == "GET") {
            logInfo(category, QStringLiteral("%1 listens to %2").arg(peer.toString(), id));
            socket->write(wavHeader());
            socket->setProperty("streaming", true);
            Listener listener;
            listener.socket = socket;
            listener.id = id;
            listener.since.start();
            m_listeners.push_back(listener);
            m_silence.start();
            return;
        }
    }
    socket->disconnectFromHost();
}

void StreamServer::send(Listener &listener, const QByteArray &pcm)
{
    if (listener.socket->bytesToWrite() > maxBacklogBytes)
        return; // the speaker stopped reading; what it missed is gone
    listener.socket->write(pcm);
    listener.framesSent += pcm.size() / bytesPerFrame;
}

void StreamServer::write(const QString &id, const QByteArray &pcm)
{
    for (Listener &listener : m_listeners) {
        if (listener.id == id)
            send(listener, pcm);
    }
}

void StreamServer::setSounding(const QString &id, bool sounding)
{
    const auto stream = m_streams.find(id);
    if (stream != m_streams.end())
        stream->second.sounding = sounding;
}

void StreamServer::fillSilence()
{
    for (Listener &listener : m_listeners) {
        const auto stream = m_streams.find(listener.id);
        if (stream != m_streams.end() && stream->second.sounding)
            continue;
        const qint64 due = listener.since.elapsed() * sampleRate / 1000;
        if (due - listener.framesSent > qint64(silenceAfterMs) * sampleRate / 1000)
            send(listener, QByteArray((due - listener.framesSent) * bytesPerFrame, '\0'));
    }
    if (m_listeners.empty())
        m_silence.stop();
}

void StreamServer::drop(QTcpSocket *socket)
{
    const auto listener = std::find_if(m_listeners.begin(), m_listeners.end(),
                                       [socket](const Listener &l) { return l.socket == socket; });
    QString gone;
    if (listener != m_listeners.end()) {
        logInfo(category, QStringLiteral("%1 stopped listening to %2")
                              .arg(QHostAddress(socket->peerAddress().toIPv4Address()).toString(),
                                   listener->id));
        gone = listener->id;
        m_listeners.erase(listener);
    }
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
    if (!gone.isEmpty() && m_streams.count(gone) && onListenerGone)
        onListenerGone(gone);
}
