// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel's windows as the controller opens them: each is made on first use and exists once.
// The window library implements this; a headless run has none.
#pragma once

#include <QStringList>

class Windows
{
public:
    enum class Kind { Preferences, About, Feedback, BridgeSetup };

    virtual ~Windows() = default;
    // Shows the window, creating it on first use, and puts it in front.
    virtual void show(Kind kind) = 0;
    virtual bool isVisible(Kind kind) const = 0;
    // The places the missing bridge was looked for changed: an open setup window shows them.
    virtual void setBridgeLookedIn(const QStringList &lookedIn) = 0;
};
