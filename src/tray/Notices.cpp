// SPDX-License-Identifier: GPL-3.0-or-later
#include "Notices.h"

#include "Logging.h"

#include <QMenu>
#include <QSystemTrayIcon>

Notices::Notices(bool shown, QObject *parent)
    : QObject(parent), m_shown(shown), m_trayCheck(&QSystemTrayIcon::isSystemTrayAvailable)
{
}

void Notices::setTrayIcon(QSystemTrayIcon *icon)
{
    m_trayIcon = icon;
    connect(icon, &QSystemTrayIcon::messageClicked, this, [this] {
        // An XEmbed tray reports any click on the icon while a balloon shows as a click on
        // the balloon, after the right button has opened the menu: that click was for the
        // menu, and the notice's action waits.
        const QMenu *menu = m_trayIcon ? m_trayIcon->contextMenu() : nullptr;
        if (menu && menu->isVisible())
            return;
        if (const auto action = std::exchange(m_balloonAction, nullptr))
            action();
    });
}

void Notices::show(const QString &title, const QString &message, const QString &actionLabel,
                   std::function<void()> onAction)
{
    logWarning(QStringLiteral("Notice: ") + title + QStringLiteral(" - ") + message);
    if (!m_shown)
        return;
    if (m_trayIcon && !m_noTray && m_trayCheck()) {
        // A balloon has no buttons: a click on it is the action.
        m_balloonAction = std::move(onAction);
        m_trayIcon->showMessage(title,
                                actionLabel.isEmpty() ? message
                                                      : message + QLatin1Char(' ') +
                                                            tr("Click here: %1").arg(actionLabel),
                                QSystemTrayIcon::Warning, balloonMs);
        return;
    }
    m_desktopNotices.show(title, message, actionLabel, std::move(onAction));
}
