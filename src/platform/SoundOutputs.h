// SPDX-License-Identifier: GPL-3.0-or-later
// Makes the speakers that the bridge announces (AirPlay/RAOP receivers) sound outputs of this
// computer. Asynchronous: every answer comes later on the main loop.
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
    // ok is false with a message for the user.
    using Done = std::function<void(bool ok, const QString &error)>;

    virtual ~SoundOutputs() = default;
    virtual void status(std::function<void(const Status &)> done) = 0;
    // Loads RAOP discovery now and at every login (enable), or unloads it and removes what
    // enabling added to the configuration.
    virtual void setEnabled(bool enable, Done done) = 0;
};
