// SPDX-License-Identifier: GPL-3.0-or-later
// The launcher helper on the session bus: it runs while it owns org.corvel.CorvelHelper, and
// quits on the killLauncher signal.
#pragma once

#include "LauncherHelper.h"

class DBusLauncherHelper : public LauncherHelper
{
public:
    void stopIfRunning(std::function<void()> stopping) override;
};
