// SPDX-License-Identifier: GPL-3.0-or-later
// Sound outputs of this computer, one per speaker, through the sound server's PulseAudio
// protocol (PulseAudio itself, or PipeWire's pipewire-pulse): a null sink named after the
// speaker, whose monitor Corvel records. Runs on the main loop (libpulse's GLib main loop on
// the default context, which Qt's event dispatcher runs).
#pragma once

#include <functional>
#include <map>
#include <QObject>
#include <QString>
#include <QTimer>

struct pa_context;
struct pa_glib_mainloop;
struct pa_stream;

class SoundServer : public QObject
{
public:
    // The sinks' name prefix: sinks left by a Corvel that crashed are found by it and removed.
    static constexpr const char *sinkPrefix = "corvel.";
    // Sound is read from the sinks in pieces this long, which bounds the delay Corvel adds.
    static constexpr int fragmentMs = 20;
    // A buffer size left to the sound server.
    static constexpr quint32 serverChooses = quint32(-1);

    struct Callbacks
    {
        std::function<void(const QString &id, const QByteArray &pcm)> audio;
        std::function<void(const QString &id, bool playing)> playing;
        std::function<void(const QString &id, int percent)> volume;
        std::function<void(bool connected, const QString &error)> connection;
    };

    explicit SoundServer(Callbacks callbacks, QObject *parent = nullptr);
    ~SoundServer() override;

    // Whether Qt runs GLib's main loop here, which libpulse's callbacks need.
    static bool mainLoopUsable();
    // Connects (again, if it had gone); outputs asked for meanwhile appear once connected.
    void connectToServer();
    bool connected() const;
    // A sink described by name (what sound settings show); sound played into it arrives
    // through the audio callback, 44.1 kHz 16-bit stereo.
    void addOutput(const QString &id, const QString &name);
    void removeOutput(const QString &id);
    bool hasOutput(const QString &id) const { return m_outputs.count(id) > 0; }
    // Removes every output and waits (at most timeoutMs) until the server has done so.
    void removeAll(int timeoutMs);

    // The module arguments of an output's sink: quotes and backslashes in the name become
    // typographic ones, since the server's argument syntax has no escape for them.
    static QString sinkArguments(const QString &id, const QString &name);

private:
    struct Output
    {
        QString name;
        quint32 module = invalidIndex;
        quint32 sink = invalidIndex;
        pa_stream *stream = nullptr;
        bool loading = false;
        bool playing = false;
        int volume = -1;
        SoundServer *server = nullptr;
        QString id;
    };
    static constexpr quint32 invalidIndex = 0xFFFFFFFFu; // the server's "no index"

    static void contextState(pa_context *context, void *self);
    void ready();
    void load(const QString &id);
    void record(const QString &id, quint32 sinkIndex, const QString &monitor);
    void unload(quint32 module);
    void sweep(); // unloads every sink of Corvel's name on the server
    void refreshInputs();
    void readVolume(quint32 sinkIndex);
    void lost(const QString &error);
    Output *outputForSink(quint32 sinkIndex);

    Callbacks m_callbacks;
    pa_glib_mainloop *m_loop = nullptr;
    pa_context *m_context = nullptr;
    std::map<QString, Output> m_outputs;
    bool m_inputsQueued = false;
    bool m_inputsAgain = false;
    int m_pendingUnloads = 0;
    int m_pendingLoads = 0; // an output removed meanwhile is unloaded when its load ends
};
