// SPDX-License-Identifier: GPL-3.0-or-later
// Makes each offered speaker that leads its group a sound output of this computer, and plays
// what comes into that output on the speaker: served over HTTP by Corvel, started over UPnP
// on the speaker. Members of a group play with their coordinator.
#pragma once

#include "DeviceSettings.h"
#include "SoundServer.h"
#include "StreamServer.h"
#include "UpnpControl.h"

#include <functional>
#include <map>
#include <memory>
#include <QHostAddress>
#include <QObject>
#include <QSet>
#include <QTimer>

class SpeakerStreams : public QObject
{
public:
    // An output quiet this long lets its speaker go back to what it did before.
    static constexpr int idleStopMs = 3 * 60 * 1000;
    // Volume changes are sent once the slider rests this long.
    static constexpr int volumeSettleMs = 150;
    // The sound server is asked again after 5 s, then twice as long each time, up to a minute.
    static constexpr int reconnectMs = 5000;
    static constexpr int maxReconnectMs = 60000;
    // Where players take UPnP calls; any port of theirs shows the route to them.
    static constexpr quint16 speakerPort = 1400;
    // A speaker that stopped fetching for this long has gone to another source (or lost us):
    // the next sound starts it again instead of assuming it still listens.
    static constexpr int listenerGraceMs = 3000;

    explicit SpeakerStreams(QObject *parent = nullptr);
    ~SpeakerStreams() override;

    // The user's choice; the outputs follow at the next update (off: none, and what plays
    // stops).
    void setEnabled(bool enabled);
    bool enabled() const { return m_enabled; }
    // The speakers as they are now; the outputs follow. While searching, a speaker not
    // found again yet keeps its output (a search starts by marking every speaker not found).
    void update(const DeviceMap &devices, bool searching = false);
    // The UDNs of the speakers playing this computer's sound now.
    QSet<QString> playingHere() const;
    // Stops every speaker that plays from here and removes the outputs; waits at most
    // timeoutMs for the speakers and the sound server to confirm.
    void shutdown(int timeoutMs);

    // Whether record gets an output: found (unless foundOrNot), offered, leading its group
    // (or in none), with a UDN and an IPv4 address.
    static bool wanted(const DeviceSettings &record, bool foundOrNot = false);
    // The id of record's output and stream (its UDN without "uuid:", safe in names and paths).
    static QString outputId(const DeviceSettings &record);
    // The DIDL-Lite metadata that names the stream on the speaker's display.
    static QString metadata(const QUrl &stream, const QString &title);
    // This computer's address towards host (what a connection to it would use).
    static QHostAddress localAddressTowards(const QHostAddress &host);

    std::function<void(const QString &sentence)> onProblem;
    std::function<void()> onPlayingChanged;

private:
    enum class Session { None, Starting, On };
    struct Speaker
    {
        QString udn;
        QString name;
        QUrl location;
        QUrl stream;
        bool sound = false; // something plays into the output
        Session session = Session::None;
        std::unique_ptr<QTimer> idle;
        std::unique_ptr<QTimer> volumeTimer;
        int volume = -1;
    };

    void add(const QString &id, const DeviceSettings &record);
    void remove(const QString &id);
    void soundChanged(const QString &id, bool sound);
    void start(const QString &id);
    void stop(const QString &id, const QString &why);
    void fail(const QString &id, const QString &action, const UpnpControl::Reply &reply);
    // The speaker a start's answer is for, while that start is under way and the answer is a
    // yes; a refusal is told (fail), and nothing comes back for either.
    Speaker *startAnswered(const QString &id, const QString &action,
                           const UpnpControl::Reply &reply);
    void connection(bool connected, const QString &error);
    void listenerGone(const QString &id);

    bool m_enabled = false;
    bool m_shutDown = false; // Corvel quits: outputs stay off
    DeviceMap m_devices;
    std::map<QString, Speaker> m_speakers; // by output id
    StreamServer m_http;
    UpnpControl m_upnp;
    SoundServer m_sound;
    std::unique_ptr<QTimer> m_reconnect;
    QString m_lastConnectionError;
};
