// SPDX-License-Identifier: GPL-3.0-or-later
// Tells the service manager how Corvel is doing, under a systemd unit of Type=notify.
#pragma once

#include <QByteArray>

// Sends newline-separated assignments ("READY=1", "STATUS=...") to $NOTIFY_SOCKET; does
// nothing when it is unset (not started by systemd).
void notifyServiceManager(const QByteArray &message);
