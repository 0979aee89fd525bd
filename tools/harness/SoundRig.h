// SPDX-License-Identifier: GPL-3.0-or-later
// Real parts for this computer's sound, as a desktop and a speaker would run them: PipeWire
// with WirePlumber and its PulseAudio service in a runtime folder of its own, Debian's UPnP
// renderer (gmediarender) writing what it plays to a file, and a simulated player on the
// renderer's address handing its media calls to it. For the tone test and the benchmark; use
// it only inside a private network namespace (it adds a veth pair and answers searches).
#pragma once

#include <QProcess>
#include <QString>
#include <vector>

class SoundRig
{
public:
    static constexpr const char *speakerAddress = "192.0.2.1"; // documentation range
    static constexpr int rate = 44100;

    SoundRig(const QString &dir, const QString &gmediarender, const QString &simulator);
    ~SoundRig();

    // Starts every part and waits until each answers; false with *error. *skip is set when
    // the namespace cannot hold a veth pair.
    bool start(QString *error, bool *skip);

    // What a program needs to reach this sound server (PULSE_SERVER=…).
    QString pulseServer() const;
    QString capture() const { return m_capture; }
    // The session bus of the rig (DBUS_SESSION_BUS_ADDRESS=…).
    QString bus() const { return m_env.value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")); }
    // Everything the simulated player printed ("control 0 Play", …).
    QByteArray calls();
    bool pactl(const QStringList &arguments, QByteArray *output = nullptr) const;
    // The first of Corvel's outputs, or nothing.
    QByteArray corvelSink() const;
    // Plays pcm into sink and returns once it has been played (the event loop runs meanwhile).
    bool play(const QByteArray &sink, const QByteArray &pcm) const;
    // Ends the PulseAudio service (with every output loaded into it) and starts it again, as
    // an update does; true once it answers.
    bool restartSoundServer();
    // Ends the renderer: the player then answers each media call with an error.
    void stopRenderer()
    {
        m_renderer->kill();
        m_renderer->waitForFinished(3000);
    }

    // A 1 kHz sine, 16-bit stereo, amplitude 16000.
    static QByteArray tone(double seconds);
    struct Window
    {
        double rms = 0;
        double at1k = 0; // Goertzel magnitude, left channel: a sine of amplitude A gives A/2
        double at3k = 0;
    };
    static constexpr int windowFrames = rate / 10;
    static Window measure(const QByteArray &pcm, qsizetype firstFrame);
    // Each 100 ms of pcm as a letter: T (the tone), s (silence), x (anything else); the
    // loudest tone window in *loudest.
    static QString classify(const QByteArray &pcm, Window *loudest);
    // The first frame louder than silence at or after frame, or -1.
    static qsizetype firstSound(const QByteArray &pcm, qsizetype frame);

private:
    QProcess *launch(const QString &program, const QStringList &arguments);

    QString m_dir;
    QString m_gmediarender;
    QString m_simulatorPath;
    QString m_capture;
    QProcessEnvironment m_env;
    std::vector<QProcess *> m_processes; // ended in reverse order
    QProcess *m_simulator = nullptr;
    QProcess *m_pulse = nullptr;
    QProcess *m_renderer = nullptr;
    QByteArray m_calls;
};
