// SPDX-License-Identifier: GPL-3.0-or-later
// One Corvel per user: the running copy holds a lock in the runtime folder and owns the
// session-bus name org.corvel.Corvel, on which it answers the other copies: a second start
// shows its preferences, and the speaker commands change its settings, which apply at once.
#pragma once

#include <functional>
#include <optional>
#include <QObject>
#include <QString>

class Settings;

class SingleInstance : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.corvel.Corvel")

public:
    static inline const QString serviceName = QStringLiteral("org.corvel.Corvel");
    static inline const QString objectPath = QStringLiteral("/org/corvel/Corvel");

    enum class Claim { Owned, OtherRunning };

    // settings: what the commands of other copies work on; show: what a second start does.
    SingleInstance(Settings &settings, std::function<void()> show, QObject *parent = nullptr);
    ~SingleInstance() override;

    // Takes the lock and the name for this process; OtherRunning when another copy has them.
    Claim claim();

    // What another copy answered to a command, when one runs.
    struct Answer
    {
        int status = 0;
        QString output; // for standard output
        QString error;  // for standard error
    };
    // Sends a command ("ShowPreferences", "List", "SetEnabled", "Rename") to the running copy;
    // nothing when none answers on the session bus.
    static std::optional<Answer> ask(const QString &method, const QVariantList &arguments = {});

public slots:
    // The bus methods.
    void ShowPreferences();
    QString List();
    int SetEnabled(const QString &speaker, bool enabled, QString &error);
    int Rename(const QString &speaker, const QString &name, QString &error);

private:
    Settings &m_settings;
    std::function<void()> m_show;
    int m_lock = -1;
    bool m_ownsName = false;
};
