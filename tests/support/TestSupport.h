// SPDX-License-Identifier: GPL-3.0-or-later
// What every suite shares: a log recorder, the data folder, waits, and the guard that keeps
// searching suites inside the private network namespace of scripts/netns.
#pragma once

#include "Logging.h"
#include "NotificationCenter.h"

#include <mutex>
#include <QFile>
#include <QNetworkInterface>
#include <QNetworkProxy>
#include <QScopeGuard>
#include <QStringList>
#include <QTest>
#include <vector>

// Records what is logged while it is alive, so tests can check exact log lines.
class LogCapture : public LogDelegate
{
public:
    explicit LogCapture(LogLevel level = LogLevel::Verbose) : m_previous(Logging::defaultLevel())
    {
        Logging::setDefaultLevel(level);
        Logging::attach(this);
    }
    ~LogCapture() override
    {
        Logging::attach(nullptr);
        Logging::setDefaultLevel(m_previous);
    }
    void log(LogLevel level, const std::optional<QString> &category,
             const QString &message) override
    {
        std::lock_guard lock(m_mutex);
        m_lines << QStringLiteral("%1 %2 %3")
                       .arg(description(level), category.value_or(QStringLiteral("-")), message);
    }
    // Every entry as "Level category message", oldest first.
    QStringList lines() const
    {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }
    bool has(const QString &line) const { return lines().contains(line); }
    int count(const QString &prefix) const
    {
        int n = 0;
        for (const QString &line : lines())
            n += line.startsWith(prefix) ? 1 : 0;
        return n;
    }
    QByteArray dump() const { return lines().join(QLatin1Char('\n')).toUtf8(); }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    LogLevel m_previous;
};

// Records the named events in the order they were posted.
class EventRecorder
{
public:
    explicit EventRecorder(const QStringList &names)
    {
        for (const QString &name : names)
            m_tokens << NotificationCenter::defaultCenter().addObserver(
                name, [this](const Notification &n) { notifications << n; });
    }
    ~EventRecorder()
    {
        for (auto token : m_tokens)
            NotificationCenter::defaultCenter().removeObserver(token);
    }
    QStringList names() const
    {
        QStringList out;
        for (const Notification &n : notifications)
            out << n.name;
        return out;
    }
    int count(const QString &name) const { return int(names().count(name)); }

    QList<Notification> notifications;

private:
    QList<NotificationCenter::Token> m_tokens;
};

// An HTTP proxy at a closed port for the application until the guard goes; it carries no UDP.
// (Qt keeps loopback TCP off any proxy: connections to simulated speakers cannot show one.)
inline auto unusableProxy()
{
    QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), 9});
    return qScopeGuard([] { QNetworkProxy::setApplicationProxy({}); });
}

// A file's bytes, or an empty array when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Writes a whole file; false when any of it could not be written.
inline bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// A file under tests/data; a missing or empty one ends the suite (no rows would pass).
inline QByteArray testData(const QString &name)
{
    const QByteArray data = readFile(QStringLiteral(CORVEL_TEST_DATA "/") + name);
    if (data.isEmpty())
        qFatal("No test data in %s", qPrintable(name));
    return data;
}

// A table cell's bytes, \r and \n written as in C.
inline QByteArray unescaped(const QString &cell)
{
    return cell.toUtf8().replace("\\r", "\r").replace("\\n", "\n");
}

// The rows of a table under tests/data, one a line, its columns split at " | "; empty lines and
// "#" comments are skipped, so every row returned is one the table means. A row without the
// given number of columns (0: any, the caller checks) ends the suite.
inline QList<QStringList> tableRows(const QString &name, qsizetype columns = 0)
{
    QList<QStringList> rows;
    for (const QString &line : QString::fromUtf8(testData(name)).split(QLatin1Char('\n'))) {
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        rows << line.split(QStringLiteral(" | "));
        if (columns && rows.last().size() != columns)
            qFatal("Not %lld columns in %s: %s", qlonglong(columns), qPrintable(name),
                   qPrintable(line));
    }
    return rows;
}

// Waits are longer in the sanitizer builds (slow on a loaded machine). After a failed wait the
// suite's state is broken: its later waits only look, not to delay the verdict.
#ifdef CORVEL_SANITIZED
inline constexpr int waitFactor = 6;
#else
inline constexpr int waitFactor = 1;
#endif
inline bool aWaitFailed = false;
template <typename Ready> bool waitFor(Ready ready, int ms)
{
    const bool held = QTest::qWaitFor(ready, aWaitFailed ? 0 : ms * waitFactor);
    aWaitFailed = aWaitFailed || !held;
    return held;
}
// Checks a condition once it holds or ms have passed, without QTRY's further wait.
#define CORVEL_WAIT_MS(condition, ms)                                                              \
    do {                                                                                           \
        if (!waitFor([&] { return bool(condition); }, ms))                                         \
            QVERIFY(condition);                                                                    \
    } while (false)
#define CORVEL_WAIT(condition) CORVEL_WAIT_MS(condition, 5000)

#define CORVEL_REQUIRE_PRIVATE_NETWORK()                                                           \
    do {                                                                                           \
        if (qEnvironmentVariable("CORVEL_IN_NETNS") != QLatin1String("1"))                         \
            QSKIP("Needs the private network namespace of scripts/netns; not run on the host");    \
        for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {            \
            if (!interface.flags().testFlag(QNetworkInterface::IsLoopBack))                        \
                QSKIP("A non-loopback interface is present; refusing to search");                  \
        }                                                                                          \
    } while (false)
