// SPDX-License-Identifier: GPL-3.0-or-later
// The in-memory log: echoes each message to standard error and keeps the last 1000.
#pragma once

#include "Logging.h"

#include <deque>
#include <functional>
#include <mutex>

// One log entry. timestamp is seconds since 1970-01-01 UTC.
struct LogMessage
{
    double timestamp = 0;
    LogLevel level = LogLevel::Info;
    std::optional<QString> category;
    QString message;
};

class Log : public LogDelegate
{
public:
    static constexpr int maxLines = 1000;
    static constexpr qint64 sessionFileMaxBytes = 1024 * 1024; // about, see setSessionFile

    // The process-wide log, created on first use.
    static Log &shared();

    Log();
    ~Log() override;

    // Echoes the message and appends it; thread-safe.
    void log(LogLevel level, const std::optional<QString> &category,
             const QString &message) override;

    // The last n entries, one line each, joined by "\n" without a trailing newline.
    QString text(int lastLines) const;

    // A copy of the entries, oldest first.
    std::vector<LogMessage> lines() const;

    // Renders one entry in the log line format.
    static QString render(const LogMessage &entry);

    // Mirrors every entry from now on to path, as entries arrive, kept to the last maxLines
    // lines and at most 1 MiB, so that a crash report can carry this session's log.
    void setSessionFile(const QString &path);

    // Where echo lines go (standard error by default); for tests.
    void setEchoSink(std::function<void(const QByteArray &line)> sink);
    // The clock that stamps entries (seconds since 1970); for tests.
    void setClock(std::function<double()> clock);

private:
    mutable std::mutex m_mutex; // std::mutex, so that ThreadSanitizer sees it
    std::deque<LogMessage> m_lines;
    std::function<void(const QByteArray &)> m_echo;
    std::function<double()> m_clock;
    // The session file: its descriptor, and how much it holds since it was last compacted.
    int m_sessionFd = -1;
    qint64 m_sessionLines = 0;
    qint64 m_sessionBytes = 0;
    void rewriteSessionFile();
};
