// SPDX-License-Identifier: GPL-3.0-or-later
// Notices through the desktop's notification service (org.freedesktop.Notifications), for
// when there is no tray to show a balloon; a notice may offer one action.
#pragma once

#include <QObject>

#include <functional>
#include <map>

class DesktopNotices : public QObject
{
    Q_OBJECT

public:
    explicit DesktopNotices(QObject *parent = nullptr);
    // Shows the notice; onAction runs when the user picks actionLabel (or clicks the notice).
    // Without a notification service it is only logged.
    void show(const QString &title, const QString &message, const QString &actionLabel = {},
              std::function<void()> onAction = {});

private slots:
    void handleActionInvoked(uint id, const QString &key);

private:
    std::map<uint, std::function<void()>> m_actions; // by notification id
};
