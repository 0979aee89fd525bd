// SPDX-License-Identifier: GPL-3.0-or-later
#include "Platform.h"

#include "DBusLauncherHelper.h"
#include "DBusNames.h"
#include "LinuxIdleInhibitor.h"
#include "LogindResumeWatcher.h"
#include "PactlSoundOutputs.h"
#include "XdgAutostart.h"

#include <memory>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QGuiApplication>
#include <xcb/xcb.h>

Platform Platform::system()
{
    return Platform{std::make_shared<LinuxIdleInhibitor>(QDBusConnection::sessionBus(),
                                                         QDBusConnection::systemBus()),
                    std::make_shared<XdgAutostart>(), std::make_shared<DBusLauncherHelper>(),
                    std::make_shared<PactlSoundOutputs>(),
                    std::make_shared<LogindResumeWatcher>(QDBusConnection::systemBus())};
}

namespace {
// An XEmbed tray owns the selection _NET_SYSTEM_TRAY_S<screen> on the X server.
bool xembedTrayRuns()
{
    // qGuiApp is a plain cast: in a program without a GUI it names no QGuiApplication.
    const auto *app = qobject_cast<QGuiApplication *>(QCoreApplication::instance());
    auto *x11 = app ? app->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    if (!x11 || !x11->connection())
        return false;
    xcb_connection_t *connection = x11->connection();
    const QByteArray name = "_NET_SYSTEM_TRAY_S0";
    using AtomReply = std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)>;
    const AtomReply atom(xcb_intern_atom_reply(
                             connection,
                             xcb_intern_atom(connection, 1, quint16(name.size()), name.constData()),
                             nullptr),
                         &free);
    if (!atom || atom->atom == XCB_ATOM_NONE) // no such name yet: no tray ever ran here
        return false;
    using OwnerReply = std::unique_ptr<xcb_get_selection_owner_reply_t, decltype(&free)>;
    const OwnerReply owner(
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, atom->atom),
                                      nullptr),
        &free);
    return owner && owner->owner != XCB_WINDOW_NONE;
}
} // namespace

void Platform::whenTrayHostRegistered(std::function<void(bool)> done)
{
    // The watcher alone is not a tray: a panel registers as its host, maybe later.
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.kde.StatusNotifierWatcher"), QStringLiteral("/StatusNotifierWatcher"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    message << QStringLiteral("org.kde.StatusNotifierWatcher")
            << QStringLiteral("IsStatusNotifierHostRegistered");
    callWithoutWaiting(QDBusConnection::sessionBus(), message, [done](const QDBusMessage &reply) {
        const bool host = reply.type() == QDBusMessage::ReplyMessage &&
                          reply.arguments().value(0).value<QDBusVariant>().variant().toBool();
        done(host || xembedTrayRuns());
    });
}
