// SPDX-License-Identifier: GPL-3.0-or-later
#include "Log.h"

#include <cmath>
#include <cstdio>
#include <QDateTime>
#include <QMutexLocker>
#include <QStringList>

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

void Log::log(LogLevel level, const std::optional<QString> &category, const QString &message)
{
    // The echo line is written verbatim: no format string ever sees the message.
    const QString echo = QLatin1Char('[') + description(level) + QStringLiteral("][") +
                         categoryText(category) + QStringLiteral("] ") + message;
    const QByteArray line = echo.toUtf8() + '\n';

    QMutexLocker locker(&m_mutex);
    m_echo(line);
    m_lines.push_back(LogMessage{m_clock(), level, category, message});
    if (m_lines.size() > static_cast<size_t>(maxLines))
        m_lines.pop_front();
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
    QMutexLocker locker(&m_mutex);
    const size_t count = std::min(static_cast<size_t>(std::max(lastLines, 0)), m_lines.size());
    QStringList rendered;
    rendered.reserve(static_cast<qsizetype>(count));
    for (auto it = m_lines.end() - static_cast<std::ptrdiff_t>(count); it != m_lines.end(); ++it)
        rendered.append(render(*it));
    return rendered.join(QLatin1Char('\n'));
}

std::vector<LogMessage> Log::lines() const
{
    QMutexLocker locker(&m_mutex);
    return {m_lines.begin(), m_lines.end()};
}

void Log::setEchoSink(std::function<void(const QByteArray &)> sink)
{
    QMutexLocker locker(&m_mutex);
    m_echo = sink ? std::move(sink) : writeToStandardError;
}

void Log::setClock(std::function<double()> clock)
{
    QMutexLocker locker(&m_mutex);
    m_clock = clock ? std::move(clock) : now;
}
