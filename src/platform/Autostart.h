// SPDX-License-Identifier: GPL-3.0-or-later
// Starting Corvel when the user logs in.
#pragma once

#include <QString>

class Autostart
{
public:
    virtual ~Autostart() = default;
    // Whether Corvel starts at login.
    virtual bool enabled() const = 0;
    // Turns starting at login on or off; false with the reason when that failed.
    virtual bool setEnabled(bool enabled, QString *error) = 0;
};
