// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArrayList>

// How one start of the corvel program runs, decided from its arguments and the environment
// before the application object exists (the choice fixes Qt's platform plugin).
struct StartMode
{
    bool noDisplay = false;  // neither DISPLAY nor WAYLAND_DISPLAY is set
    bool printsOnly = false; // help or version: print, exit, keep Qt's remarks out of the way
    // No tray and no windows: a server, no screen, or a command that only prints. Help and
    // the speaker commands must work over a remote shell whose DISPLAY cannot be reached.
    bool headless = false;
};

// An autostarted Corvel asks whether the panel's tray runs this often, for this long at most.
inline constexpr int trayPollMs = 500;
inline constexpr qint64 maxTrayWaitMs = 120000;
// corvel --list gives descriptions still on their way this long after its search ends.
inline constexpr int listGraceMs = 1000;

// arguments: the whole command line, the program's own path included.
StartMode startModeFor(const QByteArrayList &arguments);
