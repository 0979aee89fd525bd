// SPDX-License-Identifier: GPL-3.0-or-later
// Records what is logged while it is alive, so tests can check exact log lines.
#pragma once

#include "Logging.h"

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <vector>

class LogCapture : public LogDelegate
{
public:
    struct Entry
    {
        LogLevel level;
        std::optional<QString> category;
        QString message;
    };

    explicit LogCapture(LogLevel level = LogLevel::Verbose)
        : m_previousLevel(Logging::defaultLevel())
    {
        Logging::setDefaultLevel(level);
        Logging::attach(this);
    }
    ~LogCapture() override
    {
        Logging::attach(nullptr);
        Logging::setDefaultLevel(m_previousLevel);
    }

    void log(LogLevel level, const std::optional<QString> &category,
             const QString &message) override
    {
        QMutexLocker locker(&m_mutex);
        m_entries.push_back({level, category, message});
    }

    std::vector<Entry> entries() const
    {
        QMutexLocker locker(&m_mutex);
        return m_entries;
    }
    // The messages logged at the given level, in order.
    QStringList messages(LogLevel level) const
    {
        QStringList out;
        for (const Entry &entry : entries()) {
            if (entry.level == level)
                out << entry.message;
        }
        return out;
    }
    // Whether an entry with exactly this level, category and message was logged.
    bool contains(LogLevel level, const std::optional<QString> &category,
                  const QString &message) const
    {
        for (const Entry &entry : entries()) {
            if (entry.level == level && entry.category == category && entry.message == message)
                return true;
        }
        return false;
    }
    // How many messages, at any level, begin with prefix.
    int countStartingWith(const QString &prefix) const
    {
        int count = 0;
        for (const Entry &entry : entries())
            count += entry.message.startsWith(prefix) ? 1 : 0;
        return count;
    }
    // Every message, one a line, for failure reports.
    QByteArray allMessages() const
    {
        QStringList all;
        for (const Entry &entry : entries())
            all << entry.message;
        return all.join(QLatin1Char('\n')).toUtf8();
    }
    void clear()
    {
        QMutexLocker locker(&m_mutex);
        m_entries.clear();
    }

private:
    mutable QMutex m_mutex;
    std::vector<Entry> m_entries;
    LogLevel m_previousLevel;
};
