// SPDX-License-Identifier: GPL-3.0-or-later
// Ends bridge processes left over from earlier runs, found by their executable file.
#pragma once

#include <functional>
#include <QList>
#include <QObject>
#include <QString>
#include <sys/types.h>

namespace StaleBridges {
// This user's processes (other than this one) whose executable file, or else argv[0], has
// the given file name. Process names are cut to 15 characters, so they are not used. With
// ownerFileName, processes whose living parent runs that executable are left out.
QList<pid_t> find(const QString &executableFileName, const QString &ownerFileName = {});
// The file name of this process's executable.
QString ownExecutable();

// Sends SIGTERM to every such process not owned by a living copy of this program (its own
// bridges included: they are stopped by whoever started them) and calls done(how many were found)
// once they are gone, or after graceMs, when the rest get SIGKILL. Watches them from the event loop
// without blocking it; done runs at once when there are none, and never when context goes first.
void endAll(const QString &executableFileName, QObject *context, std::function<void(int)> done,
            int graceMs = 2000);
} // namespace StaleBridges
