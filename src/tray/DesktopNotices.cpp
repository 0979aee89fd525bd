// SPDX-License-Identifier: GPL-3.0-or-later
#include "DesktopNotices.h"

#include "Logging.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {
const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
constexpr int maxActionsKept = 16;
} // namespace

DesktopNotices::DesktopNotices(QObject *parent) : QObject(parent)
{
    QDBusConnection::sessionBus().connect(service, path, service, QStringLiteral("ActionInvoked"),
                                          this, SLOT(handleActionInvoked(uint, QString)));
}

void DesktopNotices::show(const QString &title, const QString &message, const QString &actionLabel,
                          std::function<void()> onAction)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, service, QStringLiteral("Notify"));
    QStringList actions;
    if (onAction)
        actions << QStringLiteral("default") << actionLabel << QStringLiteral("action")
                << actionLabel;
    call << QStringLiteral("Corvel") << uint(0) << QStringLiteral("org.corvel.Corvel") << title
         << message << actions
         << QVariantMap{{QStringLiteral("desktop-entry"), QStringLiteral("org.corvel.Corvel")}}
         << int(-1);
    // Asked without waiting: the notification service may be slow or absent.
    auto *watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, 2000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, watcher, onAction = std::move(onAction)](QDBusPendingCallWatcher *) mutable {
                watcher->deleteLater();
                const QDBusPendingReply<uint> reply = *watcher;
                if (reply.isError()) {
                    logWarning(QStringLiteral("No notification service: ") +
                               reply.error().message());
                    return;
                }
                if (!onAction)
                    return;
                if (m_actions.size() >= maxActionsKept)
                    m_actions.erase(m_actions.begin());
                m_actions[reply.value()] = std::move(onAction);
            });
}

void DesktopNotices::handleActionInvoked(uint id, const QString &)
{
    const auto it = m_actions.find(id);
    if (it == m_actions.end())
        return;
    const std::function<void()> action = it->second;
    m_actions.erase(it);
    action();
}
