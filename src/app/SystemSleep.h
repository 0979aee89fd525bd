// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps the computer from idle sleep while the bridge runs.
#pragma once

#include "IdleInhibitor.h"

#include <memory>
#include <optional>

class SystemSleep
{
public:
    explicit SystemSleep(std::shared_ptr<IdleInhibitor> backend);
    ~SystemSleep();

    // Takes the lock unless one is recorded or being taken; a failure is recorded too (and
    // logged). The backend answers later; a release asked for meanwhile follows the answer.
    void disableIdleSleep();
    // Releases the recorded lock, if any.
    void enableIdleSleep();

    // The identifier of the lock, filled in when one is created.
    quint32 assertionID = 0;
    // The result of the last creation; absent when no lock is recorded.
    std::optional<int> assertionResult;

private:
    std::shared_ptr<IdleInhibitor> m_backend;
    bool m_creating = false;
    bool m_releaseWhenCreated = false;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};
