// SPDX-License-Identifier: GPL-3.0-or-later
// Notices for the user: the tray's balloon, or the desktop's notifications when there is no
// tray; always logged, and only logged in a headless run.
#pragma once

#include "DesktopNotices.h"

#include <functional>
#include <QObject>

class QSystemTrayIcon;

class Notices : public QObject
{
    Q_OBJECT

public:
    // How long a balloon stays: a notice may offer an action, time enough to read and click.
    static constexpr int balloonMs = 30000;

    // shown: whether notices reach the screen at all (false when headless).
    explicit Notices(bool shown, QObject *parent = nullptr);

    // The tray icon whose balloon shows notices, once it exists.
    void setTrayIcon(QSystemTrayIcon *icon);
    // Without a tray (the panel has none) notices go to the desktop's notifications.
    void setNoTray(bool noTray) { m_noTray = noTray; }
    // Whether a tray shows the icon at this moment; the platform's answer unless set.
    void setTrayCheck(std::function<bool()> check) { m_trayCheck = std::move(check); }

    // Shows a notice; a click on it, or on actionLabel, runs onAction.
    void show(const QString &title, const QString &message, const QString &actionLabel = {},
              std::function<void()> onAction = {});

private:
    bool m_shown;
    bool m_noTray = false;
    QSystemTrayIcon *m_trayIcon = nullptr;
    DesktopNotices m_desktopNotices{this};
    std::function<bool()> m_trayCheck;
    std::function<void()> m_balloonAction; // what a click on the tray's balloon does
};
