// SPDX-License-Identifier: GPL-3.0-or-later
// The launcher helper that starts Corvel at login, and the request that it quit.
#pragma once

#include <functional>

class LauncherHelper
{
public:
    virtual ~LauncherHelper() = default;
    // When a helper runs: calls stopping (on the main loop), then asks the helper to quit.
    // Nothing happens when none runs.
    virtual void stopIfRunning(std::function<void()> stopping) = 0;
};
