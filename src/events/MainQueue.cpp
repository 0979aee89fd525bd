// SPDX-License-Identifier: GPL-3.0-or-later
#include "MainQueue.h"

#include "Logging.h"

#include <QCoreApplication>
#include <QMetaObject>

void mainQueueAsync(std::function<void()> fn)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app) {
        logError(QStringLiteral("No event loop to run queued work on; dropped"));
        return;
    }
    QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}
