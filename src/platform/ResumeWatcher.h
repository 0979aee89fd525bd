// SPDX-License-Identifier: GPL-3.0-or-later
// Tells when the machine has woken from suspend.
#pragma once

#include <functional>

class ResumeWatcher
{
public:
    virtual ~ResumeWatcher() = default;
    // Calls resumed on the main loop each time the machine wakes up; one receiver at a time.
    virtual void watch(std::function<void()> resumed) = 0;
};
