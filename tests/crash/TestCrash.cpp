// SPDX-License-Identifier: GPL-3.0-or-later
// The crash reporter: each real crash of this very program (started again with --crash) leaves
// a report, offered once at the next start with its session's log and the current one.
#include "CrashReporter.h"
#include "Log.h"
#include "TestSupport.h"

#include <csignal>
#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <stdexcept>

namespace {
struct FakeDelegate : CrashReporterDelegate
{
    int offers = 0;
    QString recentLog() override { return QStringLiteral("this session's log"); }
    void crashPromptWillShow() override { ++offers; }
};

void writeReport(const QString &folder, const QString &name)
{
    QDir().mkpath(folder + "/reports");
    writeFile(folder + "/reports/" + name,
              "signal 11\ntime 1\nversion 1.0.0\nlog /nonexistent\nbacktrace:\n");
}

__attribute__((noinline)) int overflow(int depth)
{
    volatile char frame[4096]; // a frame the compiler cannot fold into a loop
    frame[depth % 4096] = 1;
    return depth < 0 ? 0 : overflow(depth + 1) + frame[0];
}

// The crashing side: starts the reporter, logs, then fails as asked. The null dereference must
// reach the signal handler, not the undefined-behaviour checker of a sanitizer build.
__attribute__((no_sanitize_undefined)) int crash(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion("9.8.7-" + QString(99, 'x')); // cut to 63 bytes
    Logging::setDefaultLevel(LogLevel::Verbose);
    Logging::attach(&Log::shared());
    CrashReporter::shared().start();
    logInfo(QStringLiteral("the crashed session's last words"));
    if (QByteArray(argv[2]) == "fatal")
        qFatal("fatal error for the test");
    if (QByteArray(argv[2]) == "throw")
        throw std::runtime_error("an exception nothing caught");
    if (QByteArray(argv[2]) == "overflow") // the handler runs on a stack of its own
        return overflow(argc);
    volatile int *nothing = nullptr;
    return *nothing;
}
} // namespace

class TestCrash : public QObject
{
    Q_OBJECT

private slots:
    void eachRealCrashLeavesAReport_data();
    void eachRealCrashLeavesAReport();
    void answers_data();
    void answers();
    void failedSendKeepsTheReportAndLogs();
    void waitingReportsAreCappedInNumberAndAge();
    void reportsReadAsEntriesAndWords();
};

void TestCrash::reportsReadAsEntriesAndWords()
{
    // The crashed session's last entries, not its last lines: a file written to the log is
    // one entry, cut short, and does not push the events out.
    QStringList log;
    for (int i = 0; i < 120; ++i)
        log << QStringLiteral("[2026-11-25 03:40:%1.000 +0000][Info][app] event %2")
                   .arg(i % 60, 2, 10, QLatin1Char('0'))
                   .arg(i);
    log << QStringLiteral("[2026-11-25 03:41:00.000 +0000][Verbose][bridge] Config:");
    for (int i = 0; i < 300; ++i)
        log << QStringLiteral("  <device>%1</device>").arg(i);
    log << QStringLiteral("[2026-11-25 03:41:01.000 +0000][Error][app] last words:");
    for (int i = 0; i < 9; ++i) // ten lines in all: kept whole, without a note
        log << QStringLiteral("  word %1").arg(i);
    const QStringList kept =
        CrashReporter::lastEntries(log.join('\n'), 100).split(QLatin1Char('\n'));
    QCOMPARE(kept.size(), 98 + 10 + 1 + 10); // 98 events, the config's first 10 lines and a note
    QVERIFY(kept.first().endsWith(QLatin1String("event 22")));
    QCOMPARE(kept.at(kept.size() - 11), QStringLiteral("    … 291 more lines"));
    QCOMPARE(kept.last(), QStringLiteral("  word 8"));
    // The record's signal and time in words.
    const QString record =
        CrashReporter::readableRecord(QStringLiteral("signal 11\ntime 0\nversion 1"));
    QVERIFY2(record.startsWith(QStringLiteral("signal 11 (Segmentation fault)\ntime 0 (")) &&
                 record.contains(QStringLiteral("1970")) && record.endsWith("\nversion 1"),
             qPrintable(record));
}

void TestCrash::eachRealCrashLeavesAReport_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("signal");
    QTest::newRow("null pointer") << "segv" << int(SIGSEGV);
    QTest::newRow("qFatal") << "fatal" << int(SIGABRT);
    QTest::newRow("uncaught exception") << "throw" << int(SIGABRT);
    QTest::newRow("stack overflow") << "overflow" << int(SIGSEGV);
}

void TestCrash::eachRealCrashLeavesAReport()
{
    QFETCH(QString, how);
    QFETCH(int, signal);
    QTemporaryDir state;
    QProcess program;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_STATE_HOME"), state.path());
    env.insert(QStringLiteral("ASAN_OPTIONS"),
               QStringLiteral("handle_segv=0:handle_abort=0:detect_leaks=0"));
    program.setProcessEnvironment(env);
    QVERIFY(QDir(state.path()).mkpath("corvel") &&
            writeFile(state.filePath(QStringLiteral("corvel/session-1.log")), "gone at start"));
    // Each run ends by its signal, re-raised; the second keeps the log the first report needs.
    for (int run = 0; run < 2; ++run) {
        program.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--crash"), how});
        QVERIFY(program.waitForFinished(20000) && program.exitStatus() == QProcess::CrashExit);
    }
    CrashReporter reporter;
    reporter.setStateFolder(state.filePath(QStringLiteral("corvel")));
    const QStringList reports = reporter.pendingReports();
    QCOMPARE(reports.size(), 2);
    QCOMPARE(QDir(reporter.stateFolder()).entryList({QStringLiteral("session-*.log")}).size(), 2);
    const QByteArray record = readFile(reports.first());
    const auto readers = QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther;
    QCOMPARE(QFile::permissions(reports.first()) & readers, QFile::ReadOwner); // private
    QVERIFY2(record.startsWith("signal " + QByteArray::number(signal) + "\ntime "), record);
    QVERIFY(qAbs(record.split('\n')[1].mid(5).toLongLong() - QDateTime::currentSecsSinceEpoch()) <
            60);
    QVERIFY(record.contains("\nversion 9.8.7-" + QByteArray(57, 'x') + "\nlog ") &&
            record.contains("\nbacktrace:\n"));
    FakeDelegate delegate;
    reporter.configure(QStringLiteral("org.corvel.Corvel"), &delegate);
    QString attachment;
    reporter.setPrompt([&](const CrashReporter::Reports &reports, auto done) {
        attachment = reports.at(0).attachment + reports.at(1).attachment;
        done(CrashReporter::Answer::DontSend);
    });
    reporter.processPendingReports();
    reporter.processPendingReports(); // declined: gone, not offered again
    QCOMPARE(delegate.offers, 2);     // both reports, once
    QVERIFY(attachment.startsWith(QStringLiteral("this session's log")));
    QVERIFY(attachment.contains(QStringLiteral("crashed ---\n[")) &&
            attachment.contains(QStringLiteral("the crashed session's last words")) &&
            attachment.contains(QStringLiteral("A crash report is waiting in"))); // the second
    QVERIFY(!QFile::exists(reports.first()));
}

void TestCrash::answers_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("save");
    QTest::addColumn<bool>("kept");
    QTest::addColumn<bool>("remembered");
    for (const QStringList &column : tableRows(QStringLiteral("crash/answers.txt"), 5))
        QTest::addRow("%s", qPrintable(column[0])) << column[1].toInt() << column[2].toInt()
                                                   << (column[3] == "yes") << (column[4] == "yes");
}

void TestCrash::answers()
{
    QFETCH(int, answer);
    QFETCH(int, save);
    QFETCH(bool, kept);
    QFETCH(bool, remembered);
    QTemporaryDir state;
    writeReport(state.path(), QStringLiteral("crash-1-1.txt"));
    writeReport(state.path(), QStringLiteral("crash-2-2.txt"));
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    FakeDelegate delegate;
    reporter.configure(QStringLiteral("id"), &delegate);
    QList<size_t> prompts; // the reports each prompt showed
    reporter.setPrompt([&](const CrashReporter::Reports &reports, auto done) {
        prompts << reports.size();
        done(CrashReporter::Answer(answer));
    });
    const QString target = state.filePath(QStringLiteral("saved.txt"));
    if (save >= 0)
        reporter.setSavePrompt([&](const CrashReporter::Reports &, auto done) {
            done(save ? (save == 2 ? state.path() : target) : QString());
        });
    LogCapture capture;
    reporter.processPendingReports();
    QCOMPARE(prompts, QList<size_t>{2});                   // both waiting reports in one prompt
    QCOMPARE(capture.count("Warning "), save < 0 ? 1 : 0); // only nowhere to go is a fault
    QCOMPARE(capture.count("Error "), save == 2 ? 1 : 0);  // nor a disk that refused
    QCOMPARE(capture.dump().contains("kept for the next start"),
             answer == int(CrashReporter::Answer::Later));
    QCOMPARE(reporter.pendingReports().size(), kept ? 2 : 0);
    QCOMPARE(reporter.alwaysSend(), remembered);
    QCOMPARE(readFile(target).count("this session's log"), save == 1 ? 2 : 0);
    // Nowhere to send: "Always Send" remembered earlier does not skip the prompt.
    writeReport(state.path(), QStringLiteral("crash-3-3.txt"));
    reporter.processPendingReports();
    QCOMPARE(prompts.size(), 2);
}

void TestCrash::failedSendKeepsTheReportAndLogs()
{
    // A server on loopback that refuses the report (500, 300, a 200 cut short), then takes it.
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    QList<QByteArray> answers = {"500 Internal Server Error\r\nContent-Length: 0",
                                 "300 Multiple Choices\r\nContent-Length: 0",
                                 "200 OK\r\nContent-Length: 9", "200 OK\r\nContent-Length: 0"};
    QByteArray sent; // the last request, whole: it ends with the form's last boundary
    connect(&server, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        sent.clear();
        connect(socket, &QTcpSocket::readyRead, socket,
                [&sent, socket, status = answers.takeFirst()] {
                    if ((sent += socket->readAll()).endsWith("--\r\n")) {
                        socket->write("HTTP/1.1 " + status + "\r\nConnection: close\r\n\r\n");
                        socket->disconnectFromHost();
                    }
                });
    });
    QTemporaryDir state;
    writeReport(state.path(), QStringLiteral("crash-1-1.txt"));
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    reporter.setEndpoint(QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(server.serverPort())));
    reporter.configure(QStringLiteral("org.corvel.Test"), nullptr);
    QVERIFY(writeFile(state.filePath(QStringLiteral("always-send")), {})); // sent unasked
    LogCapture capture;
    QSignalSpy handled(&reporter, &CrashReporter::reportHandled);
    for (int refused = 1; refused <= 3; ++refused) {
        reporter.processPendingReports();
        CORVEL_WAIT(handled.size() == refused);
        QVERIFY(!handled.last().at(1).toBool() && reporter.pendingReports().size() == 1);
        QCOMPARE(capture.count("Warning CrashReporter CrashReporter.cpp:"), refused);
    }
    QVERIFY2(capture.dump().contains(" Failed to send the crash report "), capture.dump());
    reporter.processPendingReports();
    CORVEL_WAIT(handled.size() == 4);
    QVERIFY(handled.last().at(1).toBool() && reporter.pendingReports().isEmpty());
    for (const char *part : {"name=\"identifier\"\r\n\r\norg.corvel.Test\r\n",
                             "name=\"report\"\r\n\r\nsignal 11\ntime 1\n", "name=\"log\""})
        QVERIFY2(sent.contains(part), sent.constData());
}

void TestCrash::waitingReportsAreCappedInNumberAndAge()
{
    // They wait in the state folder, which follows XDG_STATE_HOME when it is absolute.
    qputenv("XDG_STATE_HOME", "/state/home");
    QCOMPARE(CrashReporter().stateFolder(), QStringLiteral("/state/home/corvel"));
    qputenv("XDG_STATE_HOME", "state/home"); // relative: ignored, as the base-directory rules say
    QCOMPARE(CrashReporter().stateFolder(), QDir::homePath() + "/.local/state/corvel");
    qunsetenv("XDG_STATE_HOME");
    // A crash loop with nobody to ask (headless): the newest ten stay, none older than 30 days.
    QTemporaryDir state;
    for (int n = 10; n < 24; ++n)
        writeReport(state.path(), QStringLiteral("crash-%1-1.txt").arg(n));
    for (const int days : {30, 31}) { // counted in days: the 30-day-old one stays
        QFile old(state.filePath(QStringLiteral("reports/crash-%1-1.txt").arg(days - 8)));
        QVERIFY(old.open(QIODevice::ReadWrite) &&
                old.setFileTime(QDateTime::currentDateTime().addDays(-days),
                                QFileDevice::FileModificationTime));
    }
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    LogCapture capture(LogLevel::Info); // the usual level
    reporter.processPendingReports();
    reporter.processPendingReports(); // nothing more to remove, and nothing said of it
    QCOMPARE(capture.dump().count(" Removed "), 1);
    QVERIFY(capture.dump().contains(" Removed 5 crash report(s): 10 at most are kept, for 30"));
    const QStringList left = reporter.pendingReports();
    QVERIFY(left.size() == 9 && left.first().endsWith("/crash-14-1.txt") &&
            left.last().endsWith("/crash-22-1.txt"));
    for (const char *name : {"crash-98-1.txt", "crash-99-1.txt"}) // eleven: the oldest goes
        writeReport(state.path(), name);
    reporter.processPendingReports();
    QVERIFY(capture.dump().contains(" Removed 1 crash report(s)"));
}

int main(int argc, char *argv[])
{
    if (argc > 2 && QByteArray(argv[1]) == "--crash")
        return crash(argc, argv);
    QCoreApplication app(argc, argv);
    TestCrash test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestCrash.moc"
