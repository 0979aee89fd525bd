// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps the computer from idle sleep while the bridge runs.
#pragma once

#include "IdleInhibitor.h"

#include <optional>

class SystemSleep
{
public:
    // The identifier of the lock, filled in when one is created.
    static inline quint32 assertionID = 0;
    // The result of the last creation; absent when no lock is recorded.
    static inline std::optional<int> assertionResult;

    // Takes the lock unless one is recorded; a failure is recorded too (and logged).
    static void disableIdleSleep();
    // Releases the recorded lock, if any.
    static void enableIdleSleep();

    // The backend; the system's unless a test sets another. Takes ownership.
    static void setBackend(std::unique_ptr<IdleInhibitor> backend);

private:
    static IdleInhibitor &backend();
};
