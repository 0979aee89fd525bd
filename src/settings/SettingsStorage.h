// SPDX-License-Identifier: GPL-3.0-or-later
// Where the settings document is kept: one text under the key "settings".
#pragma once

#include <optional>
#include <QStringList>

class SettingsStorage
{
public:
    virtual ~SettingsStorage() = default;
    // The stored text, or nothing when none is stored.
    virtual std::optional<QString> read() = 0;
    // Replaces the stored text; on failure returns false and fills *error.
    virtual bool write(const QString &text, QString *error) = 0;
    // Keeps a copy of what is stored before it is replaced; where it went, or nothing when
    // no copy could be made.
    virtual std::optional<QString> keepCopy() = 0;
};

// The per-user store: QSettings("Corvel", "Corvel"), i.e. $XDG_CONFIG_HOME/Corvel/Corvel.conf.
class UserSettingsStorage : public SettingsStorage
{
public:
    std::optional<QString> read() override;
    bool write(const QString &text, QString *error) override;
    // Corvel.conf.unreadable-<UTC time> beside Corvel.conf.
    std::optional<QString> keepCopy() override;
};

// Keeps the text in memory; for tests and as the fallback of a broken store.
class MemorySettingsStorage : public SettingsStorage
{
public:
    std::optional<QString> read() override { return text; }
    bool write(const QString &newText, QString *error) override
    {
        if (failure) {
            *error = *failure;
            return false;
        }
        text = newText;
        ++writes;
        return true;
    }
    std::optional<QString> keepCopy() override
    {
        kept << text.value_or(QString());
        return QStringLiteral("memory");
    }

    std::optional<QString> text;
    std::optional<QString> failure; // set: every write fails with it (a full or read-only disk)
    int writes = 0;
    QStringList kept;
};
