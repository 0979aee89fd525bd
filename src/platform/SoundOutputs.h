// SPDX-License-Identifier: GPL-3.0-or-later
// Makes the speakers that the bridge announces (AirPlay/RAOP receivers) sound outputs of this
// computer: RAOP discovery in the sound server (PipeWire through pipewire-pulse, or
// PulseAudio), loaded now with pactl and made persistent in the user's configuration.
#pragma once

#include <functional>
#include <QString>

class SoundOutputs
{
public:
    enum class Server { None, PipeWire, PulseAudio };

    struct Status
    {
        Server server = Server::None;
        bool raopDiscoveryActive = false;
        bool avahiRunning = false;
    };

    // pactl: the program to run (found on PATH by default); configHome: $XDG_CONFIG_HOME;
    // avahiRunning: whether avahi-daemon answers (asked on the system bus by default).
    explicit SoundOutputs(QString pactl = QStringLiteral("pactl"), QString configHome = QString(),
                          std::function<bool()> avahiRunning = {});

    Status status() const;
    // Loads RAOP discovery now and at every login; false with a message for the user.
    bool enable(QString *error) const;
    // Unloads it and removes what enable() added to the configuration.
    bool disable(QString *error) const;

    // The files enable() writes: PipeWire's drop-in, PulseAudio's default.pa.
    QString pipeWireDropIn() const;
    QString pulseAudioScript() const;

private:
    bool runPactl(const QStringList &arguments, QString *output) const;

    QString m_pactl;
    QString m_configHome;
    std::function<bool()> m_avahiRunning;
};
