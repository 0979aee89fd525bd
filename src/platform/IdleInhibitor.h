// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps the computer from sleeping while the user is idle.
#pragma once

#include <memory>
#include <QString>

class IdleInhibitor
{
public:
    virtual ~IdleInhibitor() = default;
    // Takes the lock; returns 0 on success, else an error code. *id identifies the lock.
    virtual int create(const QString &name, quint32 *id) = 0;
    // Releases the lock taken under id; its result is not examined.
    virtual int release(quint32 id) = 0;
};

// The backend for this system.
std::unique_ptr<IdleInhibitor> makeSystemIdleInhibitor();
