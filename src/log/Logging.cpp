// SPDX-License-Identifier: GPL-3.0-or-later
#include "Logging.h"

#include <atomic>

namespace {
std::atomic<int> g_level{static_cast<int>(LogLevel::Info)};
std::atomic<LogDelegate *> g_delegate{nullptr};
} // namespace

QString description(LogLevel level)
{
    switch (level) {
    case LogLevel::Off: // a threshold, never an entry's level
        break;
    case LogLevel::Error:
        return QStringLiteral("Error");
    case LogLevel::Warning:
        return QStringLiteral("Warning");
    case LogLevel::Info:
        return QStringLiteral("Info");
    case LogLevel::Debug:
        return QStringLiteral("Debug");
    case LogLevel::Verbose:
        return QStringLiteral("Verbose");
    }
    return {};
}

void Logging::setDefaultLevel(LogLevel level)
{
    g_level.store(static_cast<int>(level));
}

LogLevel Logging::defaultLevel()
{
    return static_cast<LogLevel>(g_level.load());
}

void Logging::attach(LogDelegate *delegate)
{
    g_delegate.store(delegate);
}

void log(LogLevel level, const std::optional<QString> &category, const QString &message)
{
    if (level == LogLevel::Off || static_cast<int>(level) > g_level.load())
        return;
    if (LogDelegate *delegate = g_delegate.load())
        delegate->log(level, category, message);
}

// clang-format off
void logVerbose(const QString &message) { log(LogLevel::Verbose, std::nullopt, message); }
void logVerbose(const QString &category, const QString &message) { log(LogLevel::Verbose, category, message); }
void logDebug(const QString &message) { log(LogLevel::Debug, std::nullopt, message); }
void logDebug(const QString &category, const QString &message) { log(LogLevel::Debug, category, message); }
void logInfo(const QString &message) { log(LogLevel::Info, std::nullopt, message); }
void logInfo(const QString &category, const QString &message) { log(LogLevel::Info, category, message); }
void logWarning(const QString &message) { log(LogLevel::Warning, std::nullopt, message); }
void logWarning(const QString &category, const QString &message) { log(LogLevel::Warning, category, message); }
void logError(const QString &message) { log(LogLevel::Error, std::nullopt, message); }
void logError(const QString &category, const QString &message) { log(LogLevel::Error, category, message); }
// clang-format on

void Logging::installQtMessageHandler()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        const LogLevel level = type == QtDebugMsg     ? LogLevel::Debug
                               : type == QtInfoMsg    ? LogLevel::Info
                               : type == QtWarningMsg ? LogLevel::Warning
                                                      : LogLevel::Error;
        log(level, QStringLiteral("Qt"), text); // Qt aborts after a fatal message
    });
}
