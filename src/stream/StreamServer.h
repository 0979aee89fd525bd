// SPDX-License-Identifier: GPL-3.0-or-later
// Serves each speaker's sound as one endless WAV (44.1 kHz, 16-bit, stereo) over HTTP, to that
// speaker's own address only. Silence fills the pauses, so the speaker keeps its connection
// and a sound after a pause needs no new start.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <QUrl>
#include <vector>

class QTcpServer;
class QTcpSocket;

class StreamServer : public QObject
{
public:
    static constexpr int sampleRate = 44100;
    static constexpr int bytesPerFrame = 4; // two channels of 16 bits
    static constexpr int bytesPerSecond = sampleRate * bytesPerFrame;
    // Silence is added once a listener has had nothing for this long.
    static constexpr int silenceAfterMs = 200;
    // A listener this far behind misses sound instead of growing Corvel's memory.
    static constexpr qint64 maxBacklogBytes = 2 * bytesPerSecond;
    // First port tried for each local address; a firewall rule can name the range.
    static constexpr quint16 firstPort = 49400;
    static constexpr int portsTried = 16;

    explicit StreamServer(QObject *parent = nullptr);
    ~StreamServer() override;

    // The WAV header of an endless stream: the largest sizes the format can state.
    static QByteArray wavHeader();

    // Serves id's stream on local, the address this computer has towards speaker; the URL
    // the speaker fetches, or an empty one (with *error) when no port could be opened.
    QUrl open(const QString &id, const QHostAddress &local, const QHostAddress &speaker,
              QString *error);
    void close(const QString &id);
    // Sends sound to every listener of id.
    void write(const QString &id, const QByteArray &pcm);
    // Whether something plays into id's output. Only a quiet stream is filled with silence:
    // while sound plays, a late delivery is waited for, not cut into.
    void setSounding(const QString &id, bool sounding);
    int listeners(const QString &id) const;

    // Told when a speaker stops fetching id's stream (it closed the connection).
    std::function<void(const QString &id)> onListenerGone;

private:
    struct Listener
    {
        QTcpSocket *socket = nullptr;
        QString id;
        QElapsedTimer since;
        qint64 framesSent = 0;
    };
    struct Stream
    {
        QHostAddress speaker;
        QHostAddress local;
        bool sounding = false;
    };

    void accept(QTcpServer *server);
    void readRequest(QTcpSocket *socket);
    void send(Listener &listener, const QByteArray &pcm);
    void fillSilence();
    void drop(QTcpSocket *socket);
    void closeUnusedServers();

    std::map<QString, Stream> m_streams;
    std::map<QString, QTcpServer *> m_servers; // by local address
    std::vector<Listener> m_listeners;
    QSet<QString> m_refused; // addresses already logged as refused
    QTimer m_silence;
};
