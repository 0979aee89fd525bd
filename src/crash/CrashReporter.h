// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel's crash reporter. It catches fatal signals and writes a crash record with
// async-signal-safe calls only; at the next start it offers each pending report, with the
// recent log of both sessions, to be sent, saved or declined.
#pragma once

#include <functional>
#include <QNetworkAccessManager>
#include <QObject>
#include <QUrl>
#include <vector>

// The application's side of crash reporting.
class CrashReporterDelegate
{
public:
    virtual ~CrashReporterDelegate() = default;
    // The recent log of this session, attached to every report.
    virtual QString recentLog() = 0;
    // A report of an earlier crash is about to be offered to the user.
    virtual void crashPromptWillShow() = 0;
};

class CrashReporter : public QObject
{
    Q_OBJECT

public:
    // What the user chose for a report.
    // Later: the prompt was closed without a choice; the reports wait for the next start.
    enum class Answer { Send, DontSend, AlwaysSend, Later };

    // A pending report, with the log that goes with it.
    struct Report
    {
        QString path;       // the crash record
        QString record;     // its text: signal, time, version, backtrace
        QString attachment; // this session's recent log, then the crashed session's
    };
    using Reports = std::vector<Report>;
    // Shows the waiting reports, all in one, and calls done with the user's answer for all of
    // them (possibly later). Without canSend() the choices are to save or not.
    using Prompt = std::function<void(const Reports &reports, std::function<void(Answer)> done)>;
    // Offers to save the reports (in one file) when there is nowhere to send them; calls done
    // with the chosen path, or an empty one when the user cancels.
    using SavePrompt =
        std::function<void(const Reports &reports, std::function<void(QString)> done)>;

    static CrashReporter &shared();
    explicit CrashReporter(QObject *parent = nullptr);

    void configure(const QString &identifier, CrashReporterDelegate *delegate);
    // Opens the state folder, starts the session log, installs the crash handlers, then
    // offers the reports left by earlier crashes.
    void start();

    // $XDG_STATE_HOME/corvel unless set (tests).
    QString stateFolder() const;
    void setStateFolder(const QString &folder) { m_stateFolder = folder; }
    QString reportsFolder() const { return stateFolder() + QStringLiteral("/reports"); }
    // Where reports are posted; empty unless the build names one.
    void setEndpoint(const QUrl &endpoint) { m_endpoint = endpoint; }
    // Whether this build has somewhere to send reports.
    bool canSend() const { return m_endpoint.isValid() && !m_endpoint.isEmpty(); }
    void setPrompt(Prompt prompt) { m_prompt = std::move(prompt); }
    void setSavePrompt(SavePrompt prompt) { m_savePrompt = std::move(prompt); }

    // Reports left by earlier crashes, oldest first.
    QStringList pendingReports() const;
    // Whether the user chose "Always Send" (it only counts while there is somewhere to send).
    bool alwaysSend() const;
    // Offers every pending report, in one prompt.
    void processPendingReports();
    // Waiting reports kept at most, and for at most this many days: a crash loop under a
    // service manager that restarts Corvel must not fill the disk.
    static constexpr int maxWaitingReports = 10;
    static constexpr int maxReportAgeDays = 30;
    // An upload that has not finished in this time is given up; the report waits.
    static constexpr int uploadTimeoutMs = 30000;

    // Writes a crash record for signal to the prepared path; async-signal-safe.
    static void writeCrashRecord(int signal);
    // The last count entries of a session's log text, each cut to linesEach lines.
    static QString lastEntries(const QString &text, int count, int linesEach = 10);
    // The record with its signal named and its time as a date, for people to read.
    static QString readableRecord(const QString &record);

signals:
    // A report was sent, saved, declined (removed) or kept after a failed send.
    void reportHandled(const QString &path, bool removed);

private:
    void handleAnswer(const Reports &reports, Answer answer);
    void send(const Report &report);
    void save(const Reports &reports, const QString &path);
    void finish(const Report &report, bool remove);

    CrashReporterDelegate *m_delegate = nullptr;
    QString m_identifier;
    QString m_stateFolder;
    QUrl m_endpoint;
    Prompt m_prompt;
    SavePrompt m_savePrompt;
    QNetworkAccessManager m_network;
};
