// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop services Corvel uses, each behind its interface: the system's, or fakes in tests.
#pragma once

#include "Autostart.h"
#include "IdleInhibitor.h"
#include "LauncherHelper.h"
#include "ResumeWatcher.h"
#include "SoundOutputs.h"

#include <memory>

struct Platform
{
    std::shared_ptr<IdleInhibitor> idleInhibitor;
    std::shared_ptr<Autostart> autostart;
    std::shared_ptr<LauncherHelper> launcherHelper;
    std::shared_ptr<SoundOutputs> soundOutputs;
    std::shared_ptr<ResumeWatcher> resumeWatcher;

    // This system's backends (Linux: D-Bus, XDG autostart, pactl, logind).
    static Platform system();
    // Asks, without waiting, whether a tray runs: a StatusNotifier host registered with the
    // watcher, or an XEmbed tray owning _NET_SYSTEM_TRAY_S0; done(found) follows.
    static void whenTrayHostRegistered(std::function<void(bool)> done);
};
