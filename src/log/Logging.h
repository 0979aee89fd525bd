// SPDX-License-Identifier: GPL-3.0-or-later
// The logging facade every module logs through: levels, optional categories, one delegate.
#pragma once

#include <optional>
#include <QString>

enum class LogLevel { Off = 0, Error = 1, Warning = 2, Info = 3, Debug = 4, Verbose = 5 };

// The level's word: "Off", "Error", "Warning", "Info", "Debug", "Verbose".
QString description(LogLevel level);

// Receives every message the facade passes on; may be called from any thread.
class LogDelegate
{
public:
    virtual ~LogDelegate() = default;
    virtual void log(LogLevel level, const std::optional<QString> &category,
                     const QString &message) = 0;
};

namespace Logging {
// Messages pass when their level's ordinal is at most this one (default: Info).
void setDefaultLevel(LogLevel level);
LogLevel defaultLevel();
// Installs the delegate (nullptr detaches). The delegate must outlive its attachment.
void attach(LogDelegate *delegate);
// Sends Qt's own messages through the facade, category "Qt" (a fatal one is logged as an
// error, then aborts as Qt would).
void installQtMessageHandler();
} // namespace Logging

// The general form. An absent category is rendered as "default"; an empty one stays empty.
void log(LogLevel level, const std::optional<QString> &category, const QString &message);

void logVerbose(const QString &message);
void logVerbose(const QString &category, const QString &message);
void logDebug(const QString &message);
void logDebug(const QString &category, const QString &message);
void logInfo(const QString &message);
void logInfo(const QString &category, const QString &message);
void logWarning(const QString &message);
void logWarning(const QString &category, const QString &message);
void logError(const QString &message);
void logError(const QString &category, const QString &message);
