// SPDX-License-Identifier: GPL-3.0-or-later
#include "Log.h"

#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <QDateTime>
#include <QFile>
#include <QStringList>
#include <unistd.h>

namespace {
QString categoryText(const std::optional<QString> &category)
{
    return category ? *category : QStringLiteral("default");
}

void writeToStandardError(const QByteArray &line)
{
    // One fwrite per line so that lines from several threads never interleave.
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
}

double now()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}
} // namespace

Log &Log::shared()
{
    static Log instance;
    return instance;
}

Log::Log() : m_echo(writeToStandardError), m_clock(now) {}

Log::~Log()
{
    ::close(m_sessionFd); // -1 when there is none: harmless
}

namespace {
// A regular file takes a whole write, or what fits on a full disk: there is nothing to retry.
void writeOnce(int fd, const QByteArray &bytes)
{
    [[maybe_unused]] const ssize_t written = ::write(fd, bytes.constData(), size_t(bytes.size()));
}
} // namespace

void Log::setSessionFile(const QString &path)
{
    std::lock_guard locker(m_mutex);
    ::close(m_sessionFd);
    // Appending: every entry goes to the end, which after a rewrite's truncation is the start.
    m_sessionFd = ::open(QFile::encodeName(path).constData(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    rewriteSessionFile();
}

// Replaces the file's content with the newest half of what it may hold, so that compacting
// happens once every few hundred entries; called with the mutex held.
void Log::rewriteSessionFile()
{
    if (m_sessionFd < 0)
        return;
    QByteArray text;
    int kept = 0;
    for (auto it = m_lines.rbegin(); it != m_lines.rend() && kept < maxLines / 2; ++it, ++kept) {
        const QByteArray line = render(*it).toUtf8() + '\n';
        if (text.size() + line.size() > sessionFileMaxBytes / 2)
            break;
        text.prepend(line);
    }
    if (::ftruncate(m_sessionFd, 0) != 0)
        return;
    writeOnce(m_sessionFd, text);
    m_sessionLines = text.count('\n');
    m_sessionBytes = text.size();
}

void Log::log(LogLevel level, const std::optional<QString> &category, const QString &message)
{
    // The echo line is written verbatim: no format string ever sees the message.
    const QString echo = QLatin1Char('[') + description(level) + QStringLiteral("][") +
                         categoryText(category) + QStringLiteral("] ") + message;
    const QByteArray line = echo.toUtf8() + '\n';

    std::lock_guard locker(m_mutex);
    m_echo(line);
    m_lines.push_back(LogMessage{m_clock(), level, category, message});
    if (m_lines.size() > static_cast<size_t>(maxLines))
        m_lines.pop_front();
    if (m_sessionFd >= 0) {
        const QByteArray entry = render(m_lines.back()).toUtf8() + '\n';
        writeOnce(m_sessionFd, entry);
        m_sessionBytes += entry.size();
        // Compacted now and then, so the file stays within maxLines lines and 1 MiB.
        if (++m_sessionLines >= maxLines || m_sessionBytes > sessionFileMaxBytes)
            rewriteSessionFile();
    }
}

QString Log::render(const LogMessage &entry)
{
    const auto msecs = static_cast<qint64>(std::floor(entry.timestamp)) * 1000;
    const QString when = QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC)
                             .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    return QLatin1Char('[') + when + QStringLiteral(" +0000][") + description(entry.level) +
           QStringLiteral("][") + categoryText(entry.category) + QStringLiteral("] ") +
           entry.message;
}

QString Log::text(int lastLines) const
{
    std::lock_guard locker(m_mutex);
    const size_t count = std::min(static_cast<size_t>(std::max(lastLines, 0)), m_lines.size());
    QStringList rendered;
    for (auto it = m_lines.end() - static_cast<std::ptrdiff_t>(count); it != m_lines.end(); ++it)
        rendered.append(render(*it));
    return rendered.join(QLatin1Char('\n'));
}

std::vector<LogMessage> Log::lines() const
{
    std::lock_guard locker(m_mutex);
    return {m_lines.begin(), m_lines.end()};
}

void Log::setEchoSink(std::function<void(const QByteArray &)> sink)
{
    std::lock_guard locker(m_mutex);
    m_echo = sink ? std::move(sink) : writeToStandardError;
}

void Log::setClock(std::function<double()> clock)
{
    std::lock_guard locker(m_mutex);
    m_clock = clock ? std::move(clock) : now;
}
