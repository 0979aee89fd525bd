// SPDX-License-Identifier: GPL-3.0-or-later
// RAOP discovery in the sound server (PipeWire through pipewire-pulse, or PulseAudio), loaded
// now with pactl, run without waiting, and made persistent in the user's configuration.
#pragma once

#include "SoundOutputs.h"

#include <QStringList>

class PactlSoundOutputs : public SoundOutputs
{
public:
    static constexpr int pactlTimeoutMs = 3000;

    // pactl: the program to run (found on PATH by default); configHome: $XDG_CONFIG_HOME;
    // avahiRunning: whether avahi-daemon answers (asked on the system bus by default).
    explicit PactlSoundOutputs(QString pactl = QStringLiteral("pactl"),
                               QString configHome = QString(),
                               std::function<void(std::function<void(bool)>)> avahiRunning = {});

    void status(std::function<void(const Status &)> done) override;
    void setEnabled(bool enable, Done done) override;

    // The files enabling writes: PipeWire's drop-in, PulseAudio's default.pa.
    QString pipeWireDropIn() const;
    QString pulseAudioScript() const;

private:
    // Runs pactl and calls done(succeeded, output) when it ends or after pactlTimeoutMs.
    void runPactl(const QStringList &arguments, std::function<void(bool, QString)> done);
    void enable(const Status &current, Done done);
    void disable(const Status &current, Done done);
    bool persist(Server server, QString *error) const;
    bool unpersist(QString *error) const;

    QString m_pactl;
    QString m_configHome;
    std::function<void(std::function<void(bool)>)> m_avahiRunning;
};
