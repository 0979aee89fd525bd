// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps the computer from sleeping while the user is idle. Asynchronous: nothing here waits.
#pragma once

#include <functional>
#include <QString>

class IdleInhibitor
{
public:
    // result is 0 when a lock was taken (id names it), else an error code.
    using Done = std::function<void(int result, quint32 id)>;

    virtual ~IdleInhibitor() = default;
    // Takes the lock and calls done once, later, on the main loop.
    virtual void create(const QString &name, Done done) = 0;
    // Releases the lock taken under id; nothing reports the outcome.
    virtual void release(quint32 id) = 0;
};
