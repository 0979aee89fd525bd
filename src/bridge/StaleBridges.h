// SPDX-License-Identifier: GPL-3.0-or-later
// Ends bridge processes left over from earlier runs, found by their executable file.
#pragma once

#include <QList>
#include <QString>
#include <sys/types.h>

namespace StaleBridges {
// This user's processes (other than this one) whose executable file, or else argv[0], has
// the given file name. Process names are cut to 15 characters, so they are not used.
QList<pid_t> find(const QString &executableFileName);

// Sends SIGTERM to every such process, waits up to graceMs for them to go, then SIGKILLs
// the rest. Returns how many were found.
int endAll(const QString &executableFileName, int graceMs = 2000);
} // namespace StaleBridges
