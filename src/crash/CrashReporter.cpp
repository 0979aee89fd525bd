// SPDX-License-Identifier: GPL-3.0-or-later
#include "CrashReporter.h"

#include "Logging.h"

#include "AtomicFile.h"
#include "BuildConfig.h"
#include "Log.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <iterator>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QHttpMultiPart>
#include <QLocale>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <unistd.h>

// The reporter's lines go to the log as "File.cpp:line function message" under its own
// category; a message the log level drops is never built.
#define REPORTER_LOG(level, message)                                                               \
    reporterLog(LogLevel::level, __FILE__, __func__, __LINE__, [&] { return message; })

namespace {
void reporterLog(LogLevel level, const char *file, const char *function, int line,
                 const std::function<QString()> &message)
{
    if (level > Logging::defaultLevel())
        return;
    const QString name = QString::fromUtf8(file).section(QLatin1Char('/'), -1);
    log(level, QStringLiteral("CrashReporter"),
        QStringLiteral("%1:%2 %3 %4").arg(name).arg(line).arg(QLatin1String(function), message()));
}

// Everything the signal handler needs, prepared at start so that the handler allocates nothing.
char g_recordPath[4096];
char g_version[64];
char g_sessionLog[4096];
constexpr int fatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
alignas(16) char g_alternateStack[64 * 1024];

void writeText(int fd, const char *text)
{
    // One write: a short one (a full disk) leaves a shorter record, which is still read.
    [[maybe_unused]] const ssize_t written = ::write(fd, text, std::strlen(text));
}

void writeNumber(int fd, unsigned long long value)
{
    // std::to_chars neither allocates nor locks: fit for a signal handler.
    char digits[24]; // the largest value has 20
    const char *end = std::to_chars(std::begin(digits), std::end(digits), value).ptr;
    [[maybe_unused]] const ssize_t written = ::write(fd, digits, size_t(end - digits));
}

void onFatalSignal(int signal)
{
    CrashReporter::writeCrashRecord(signal);
    // Re-raise with the default action so the exit status tells the truth.
    std::signal(signal, SIG_DFL);
    ::raise(signal);
}

void copyInto(char *target, size_t size, const QByteArray &text)
{
    const size_t length = std::min(size - 1, size_t(text.size()));
    std::memcpy(target, text.constData(), length);
    target[length] = '\0';
}

// The session log a crash record names on its "log " line.
QString sessionLogOf(const QString &record)
{
    for (const QStringView line : QStringView(record).split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("log ")))
            return line.mid(4).toString();
    }
    return {};
}

QString readRecord(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.read(1024 * 1024)) : QString();
}

} // namespace

QString CrashReporter::lastEntries(const QString &text, int count, int linesEach)
{
    // An entry starts with its time stamp ("[2026-11-25 03:40:12.345 +0000]"); the lines
    // after it until the next one are its own (a configuration file written to the log).
    static const QRegularExpression stamp(QStringLiteral("^\\[\\d{4}-\\d\\d-\\d\\d "));
    std::vector<QStringList> entries;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (entries.empty() || stamp.match(line).hasMatch())
            entries.emplace_back();
        entries.back() << line;
    }
    QStringList kept;
    for (size_t i = entries.size() - std::min(entries.size(), size_t(count)); i < entries.size();
         ++i) {
        const QStringList &entry = entries[i];
        kept << entry.mid(0, linesEach);
        if (entry.size() > linesEach)
            kept << QStringLiteral("    … %1 more lines").arg(entry.size() - linesEach);
    }
    return kept.join(QLatin1Char('\n'));
}

QString CrashReporter::readableRecord(const QString &record)
{
    QStringList lines = record.split(QLatin1Char('\n'));
    for (QString &line : lines) {
        bool ok; // set by each conversion below before it is read
        if (line.startsWith(QLatin1String("signal "))) {
            const int signal = line.mid(7).toInt(&ok);
            const char *name = ok ? ::strsignal(signal) : nullptr;
            if (name)
                line += QStringLiteral(" (%1)").arg(QString::fromLocal8Bit(name));
        } else if (line.startsWith(QLatin1String("time "))) {
            const qint64 seconds = line.mid(5).toLongLong(&ok);
            if (ok)
                line += QStringLiteral(" (%1)").arg(QLocale().toString(
                    QDateTime::fromSecsSinceEpoch(seconds), QLocale::LongFormat));
        }
    }
    return lines.join(QLatin1Char('\n'));
}

namespace {
QString lastEntriesOf(const QString &path, int count)
{
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return {};
    // The session file is bounded, to about this; its end is what matters.
    file.seek(std::max<qint64>(0, file.size() - Log::sessionFileMaxBytes));
    return CrashReporter::lastEntries(QString::fromUtf8(file.readAll()), count);
}
} // namespace

void CrashReporter::writeCrashRecord(int signal)
{
    // Should the open fail, the writes below fail on descriptor -1, harmlessly.
    const int fd = ::open(g_recordPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    writeText(fd, "signal ");
    writeNumber(fd, static_cast<unsigned>(signal));
    writeText(fd, "\ntime ");
    writeNumber(fd, static_cast<unsigned long long>(::time(nullptr)));
    writeText(fd, "\nversion ");
    writeText(fd, g_version);
    writeText(fd, "\nlog ");
    writeText(fd, g_sessionLog);
    writeText(fd, "\nbacktrace:\n");
    void *frames[64];
    const int depth = ::backtrace(frames, int(std::size(frames)));
    ::backtrace_symbols_fd(frames, depth, fd);
    ::close(fd);
}

CrashReporter &CrashReporter::shared()
{
    static CrashReporter *instance = new CrashReporter;
    return *instance;
}

CrashReporter::CrashReporter(QObject *parent) : QObject(parent)
{
    m_endpoint = QUrl(QStringLiteral(CORVEL_CRASH_ENDPOINT)); // empty: nowhere to send
}

void CrashReporter::configure(const QString &identifier, CrashReporterDelegate *delegate)
{
    m_identifier = identifier;
    m_delegate = delegate;
}

QString CrashReporter::stateFolder() const
{
    if (!m_stateFolder.isEmpty())
        return m_stateFolder;
    // QStandardPaths has no XDG state location in this Qt, so the XDG base-directory rule is
    // applied here.
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(base)) // unset, empty or relative
        base = QDir::homePath() + QStringLiteral("/.local/state");
    return base + QStringLiteral("/corvel");
}

void CrashReporter::start()
{
    if (!QDir().mkpath(reportsFolder())) {
        REPORTER_LOG(
            Error,
            QStringLiteral("Cannot create the crash reports folder %1").arg(reportsFolder()));
        return;
    }
    // Sessions keep their log in a file of their own, so a crash report can carry it.
    const QString sessionLog =
        stateFolder() + QStringLiteral("/session-%1.log").arg(QCoreApplication::applicationPid());
    Log::shared().setSessionFile(sessionLog);
    // Earlier sessions' logs go, except those that a waiting report still needs.
    QSet<QString> kept{sessionLog};
    for (const QString &report : pendingReports())
        kept.insert(sessionLogOf(readRecord(report)));
    for (const QFileInfo &old :
         QDir(stateFolder()).entryInfoList({QStringLiteral("session-*.log")}, QDir::Files)) {
        if (!kept.contains(old.absoluteFilePath()))
            QFile::remove(old.absoluteFilePath());
    }

    copyInto(g_recordPath, sizeof g_recordPath,
             QFile::encodeName(reportsFolder() + QStringLiteral("/crash-%1-%2.txt")
                                                     .arg(QDateTime::currentSecsSinceEpoch())
                                                     .arg(QCoreApplication::applicationPid())));
    copyInto(g_version, sizeof g_version, QCoreApplication::applicationVersion().toUtf8());
    copyInto(g_sessionLog, sizeof g_sessionLog, QFile::encodeName(sessionLog));
    // backtrace() loads its unwinder on first use; do that now, not inside the handler.
    void *warmUp[2];
    ::backtrace(warmUp, int(std::size(warmUp)));

    stack_t stack{};
    stack.ss_sp = g_alternateStack;
    stack.ss_size = sizeof g_alternateStack;
    sigaltstack(&stack, nullptr);
    struct sigaction action
    {
    };
    action.sa_handler = onFatalSignal;
    action.sa_flags = SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    // SIGABRT among them: qFatal and std::terminate (after the runtime has named the
    // exception) end in abort().
    for (const int signal : fatalSignals)
        sigaction(signal, &action, nullptr);

    processPendingReports();
}

QStringList CrashReporter::pendingReports() const
{
    QStringList reports;
    for (const QFileInfo &file :
         QDir(reportsFolder())
             .entryInfoList({QStringLiteral("crash-*.txt")}, QDir::Files, QDir::Name))
        reports << file.absoluteFilePath();
    return reports;
}

bool CrashReporter::alwaysSend() const
{
    return QFile::exists(stateFolder() + QStringLiteral("/always-send"));
}

void CrashReporter::processPendingReports()
{
    // The oldest go first (the names sort by time); on every path, headless too.
    const QStringList waiting = pendingReports();
    const QDateTime now = QDateTime::currentDateTime();
    int removed = 0;
    for (qsizetype i = 0; i < waiting.size(); ++i) {
        if ((i < waiting.size() - maxWaitingReports ||
             QFileInfo(waiting[i]).lastModified().daysTo(now) > maxReportAgeDays) &&
            QFile::remove(waiting[i]))
            ++removed;
    }
    if (removed > 0)
        REPORTER_LOG(Info, QStringLiteral("Removed %1 crash report(s): %2 at most are kept, for "
                                          "%3 days")
                               .arg(removed)
                               .arg(maxWaitingReports)
                               .arg(maxReportAgeDays));
    Reports reports;
    for (const QString &path : pendingReports()) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            REPORTER_LOG(Warning, QStringLiteral("Cannot read the crash report %1").arg(path));
            continue;
        }
        reports.push_back({path, QString::fromUtf8(file.read(1024 * 1024)), QString()});
    }
    if (reports.empty())
        return;
    const bool send = alwaysSend() && canSend();
    if (!send && !m_prompt) {
        // Nobody to ask (a headless run): the reports wait for a session that can ask.
        for (const Report &report : reports)
            REPORTER_LOG(Warning,
                         QStringLiteral("A crash report is waiting in %1").arg(report.path));
        return;
    }
    const QString log = m_delegate ? m_delegate->recentLog() : QString();
    for (Report &report : reports) {
        if (m_delegate)
            m_delegate->crashPromptWillShow();
        report.attachment = log +
                            QStringLiteral("\n\n--- The log of the session that crashed ---\n") +
                            lastEntriesOf(sessionLogOf(report.record), 100);
    }
    if (send) {
        handleAnswer(reports, Answer::Send);
        return;
    }
    m_prompt(reports, [this, reports](Answer answer) { handleAnswer(reports, answer); });
}

void CrashReporter::handleAnswer(const Reports &reports, Answer answer)
{
    if (answer == Answer::AlwaysSend) {
        QFile marker(stateFolder() + QStringLiteral("/always-send"));
        if (!marker.open(QIODevice::WriteOnly))
            REPORTER_LOG(
                Warning,
                QStringLiteral("Cannot remember \"Always Send\": %1").arg(marker.errorString()));
    }
    if (answer == Answer::DontSend || answer == Answer::Later) {
        if (answer == Answer::Later)
            REPORTER_LOG(Info, QStringLiteral("Crash reports kept for the next start"));
        for (const Report &report : reports)
            finish(report, answer == Answer::DontSend);
        return;
    }
    if (canSend()) {
        for (const Report &report : reports)
            send(report);
        return;
    }
    if (!m_savePrompt) {
        REPORTER_LOG(Warning,
                     QStringLiteral("No crash endpoint and nowhere to save the reports; kept"));
        for (const Report &report : reports)
            finish(report, false);
        return;
    }
    m_savePrompt(reports, [this, reports](const QString &target) {
        if (target.isEmpty()) {
            for (const Report &report : reports)
                finish(report, false);
        } else {
            save(reports, target);
        }
    });
}

void CrashReporter::send(const Report &report)
{
    auto *multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    const auto addPart = [multiPart](const QString &name, const QByteArray &body) {
        QHttpPart part;
        part.setHeader(QNetworkRequest::ContentDispositionHeader,
                       QStringLiteral("form-data; name=\"%1\"").arg(name));
        part.setBody(body);
        multiPart->append(part);
    };
    addPart(QStringLiteral("identifier"), m_identifier.toUtf8());
    addPart(QStringLiteral("report"), report.record.toUtf8());
    addPart(QStringLiteral("log"), report.attachment.toUtf8());
    QNetworkRequest request(m_endpoint);
    request.setTransferTimeout(uploadTimeoutMs);
    QNetworkReply *reply = m_network.post(request, multiPart);
    multiPart->setParent(reply);
    connect(reply, &QNetworkReply::finished, this, [this, reply, report] {
        reply->deleteLater();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->error() != QNetworkReply::NoError || status / 100 != 2) { // 2xx: taken
            REPORTER_LOG(
                Warning,
                QStringLiteral(
                    "Failed to send the crash report %1: %2; it is kept for the next start")
                    .arg(report.path, reply->errorString()));
            finish(report, false);
            return;
        }
        finish(report, true);
    });
}

void CrashReporter::save(const Reports &reports, const QString &path)
{
    QString text;
    for (const Report &report : reports)
        text += report.record + QStringLiteral("\n--- Log ---\n") + report.attachment +
                QStringLiteral("\n\n");
    QString error;
    const bool saved = writeFileAtomically(path, text.toUtf8(), &error);
    if (!saved)
        REPORTER_LOG(Error,
                     QStringLiteral("Failed to save the crash report to %1: %2").arg(path, error));
    for (const Report &report : reports)
        finish(report, saved);
}

void CrashReporter::finish(const Report &report, bool remove)
{
    if (remove)
        QFile::remove(report.path);
    emit reportHandled(report.path, remove);
}
