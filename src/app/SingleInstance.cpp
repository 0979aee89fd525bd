// SPDX-License-Identifier: GPL-3.0-or-later
#include "SingleInstance.h"

#include "Logging.h"
#include "SpeakerCommands.h"

#include <fcntl.h>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFile>
#include <QStandardPaths>
#include <sys/file.h>
#include <unistd.h>

namespace {
// A command waits this long for the running copy; a hung one must not hang the shell.
constexpr int askTimeoutMs = 5000;
} // namespace

SingleInstance::SingleInstance(Settings &settings, std::function<void()> show, QObject *parent)
    : QObject(parent), m_settings(settings), m_show(std::move(show))
{
}

SingleInstance::~SingleInstance()
{
    // The bus drops the object's path itself as the object goes; closing -1 is harmless.
    if (m_ownsName)
        QDBusConnection::sessionBus().unregisterService(serviceName);
    ::close(m_lock);
}

SingleInstance::Claim SingleInstance::claim()
{
    // The lock in the runtime folder decides, bus or no bus; the bus name is how the other
    // copies reach this one.
    const QString path = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) +
                         QStringLiteral("/corvel.lock");
    m_lock = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lock < 0)
        logWarning(QStringLiteral("Cannot open %1; another Corvel may run as well").arg(path));
    else if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0)
        return Claim::OtherRunning;

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return Claim::Owned;
    const auto reply =
        bus.interface()->registerService(serviceName, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
        m_ownsName = true;
        bus.registerObject(objectPath, this, QDBusConnection::ExportAllSlots);
        return Claim::Owned;
    }
    if (reply.isValid())
        return Claim::OtherRunning; // a copy with another runtime folder, on this bus
    logWarning(
        QStringLiteral("Cannot own the bus name %1: %2").arg(serviceName, reply.error().message()));
    return Claim::Owned;
}

std::optional<SingleInstance::Answer> SingleInstance::ask(const QString &method,
                                                          const QVariantList &arguments)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return std::nullopt;
    QDBusMessage call =
        QDBusMessage::createMethodCall(serviceName, objectPath, serviceName, method);
    call.setArguments(arguments);
    const QDBusMessage reply = bus.call(call, QDBus::Block, askTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        // No owner: no Corvel runs; any other failure is worth saying.
        if (reply.errorName() != QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown"))
            logWarning(QStringLiteral("The running Corvel did not answer %1: %2")
                           .arg(method, reply.errorMessage()));
        return std::nullopt;
    }
    Answer answer;
    const QVariantList values = reply.arguments();
    if (method == QLatin1String("List"))
        answer.output = values.value(0).toString();
    else if (!values.isEmpty()) {
        answer.status = values.value(0).toInt();
        answer.error = values.value(1).toString();
    }
    return answer;
}

void SingleInstance::ShowPreferences()
{
    logInfo(QStringLiteral("Another copy of Corvel was started: showing this one"));
    if (m_show)
        m_show();
}

QString SingleInstance::List()
{
    return SpeakerCommands::formatList(m_settings);
}

int SingleInstance::SetEnabled(const QString &speaker, bool enabled, QString &error)
{
    return SpeakerCommands::setEnabled(m_settings, speaker, enabled, &error);
}

int SingleInstance::Rename(const QString &speaker, const QString &name, QString &error)
{
    return SpeakerCommands::rename(m_settings, speaker, name, &error);
}
