// SPDX-License-Identifier: GPL-3.0-or-later
// Starts the crash reporter, logs a line, then crashes the way its argument says:
// "segv" (a null pointer), "abort", "fatal" (qFatal) or "terminate" (an uncaught exception).
#include "CrashReporter.h"
#include "Log.h"

#include <cstring>
#include <QCoreApplication>
#include <stdexcept>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral("9.8.7"));
    Logging::setDefaultLevel(LogLevel::Verbose);
    Logging::attach(&Log::shared());
    CrashReporter::shared().start();
    logInfo(QStringLiteral("the crashed session's last words"));
    const char *how = argc > 1 ? argv[1] : "segv";
    if (std::strcmp(how, "abort") == 0)
        std::abort();
    if (std::strcmp(how, "fatal") == 0)
        qFatal("fatal error for the test");
    if (std::strcmp(how, "terminate") == 0)
        throw std::runtime_error("not caught");
    volatile int *nothing = nullptr;
    return *nothing;
}
