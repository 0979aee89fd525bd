// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"
#include "CrashReporter.h"
#include "FeedbackWindow.h"
#include "Log.h"
#include "LogCapture.h"
#include "Settings.h"

#include <csignal>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
struct FakeDelegate : CrashReporterDelegate
{
    int offers = 0;
    QString applicationLogForCrashManager() override
    {
        return QStringLiteral("this session's log");
    }
    void crashManagerWillShowSubmitCrashReportAlert() override { ++offers; }
};

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeReport(const QString &folder, const QString &name)
{
    QDir().mkpath(folder + "/reports");
    QFile file(folder + "/reports/" + name);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("signal 11\ntime 1\nversion 1.0.0\nlog /nonexistent\nbacktrace:\n");
}
} // namespace

class TestCrashReporter : public QObject
{
    Q_OBJECT

private slots:
    void logHandler_data();
    void logHandler();
    void realCrashLeavesOneReport_data();
    void realCrashLeavesOneReport();
    void alwaysSendIsRemembered();
    void failedSendKeepsTheReport();
    void headlessRunKeepsReportsWithoutCounting();
    void sessionFileStaysBounded();
    void crashCountsPerVersion();
    void aboutShowsVersionAndCredits();
    void feedbackCarriesTheLogWhenAsked();
};

void TestCrashReporter::logHandler_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QByteArray>("function");
    QTest::addColumn<bool>("logged");
    QTest::addColumn<QString>("text");
    QTest::newRow("error with a path") << 1 << QByteArray("/a/b/BITCrashManager.m")
                                       << QByteArray("f") << true << "BITCrashManager.m:7 f x";
    QTest::newRow("warning without file or function")
        << 2 << QByteArray() << QByteArray() << true << ":7  x";
    QTest::newRow("trailing slash")
        << 1 << QByteArray("/a/b/") << QByteArray("f") << true << "b:7 f x";
    QTest::newRow("debug dropped") << 3 << QByteArray("x.cpp") << QByteArray("f") << false << "";
    QTest::newRow("verbose dropped") << 4 << QByteArray("x.cpp") << QByteArray("f") << false << "";
    QTest::newRow("none dropped") << 0 << QByteArray("x.cpp") << QByteArray("f") << false << "";
}

void TestCrashReporter::logHandler()
{
    QFETCH(int, level);
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, function);
    QFETCH(bool, logged);
    QFETCH(QString, text);
    LogCapture capture;
    bool built = false;
    AppDelegate::crashReporterLogHandler(
        [&built] {
            built = true;
            return QStringLiteral("x");
        },
        level, file.isNull() ? nullptr : file.constData(),
        function.isNull() ? nullptr : function.constData(), 7);
    QCOMPARE(built, logged);
    QCOMPARE(capture.entries().size(), logged ? 1u : 0u);
    if (logged) {
        QVERIFY(capture.contains(level == 1 ? LogLevel::Error : LogLevel::Warning,
                                 QStringLiteral("CrashReporter"), text));
    }
}

void TestCrashReporter::realCrashLeavesOneReport_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("signal");
    QTest::newRow("null pointer") << "segv" << int(SIGSEGV);
    QTest::newRow("abort") << "abort" << int(SIGABRT);
    QTest::newRow("qFatal") << "fatal" << int(SIGABRT);
    QTest::newRow("uncaught exception") << "terminate" << int(SIGABRT);
}

void TestCrashReporter::realCrashLeavesOneReport()
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
    program.start(QStringLiteral(CRASH_PROGRAM), {how});
    QVERIFY(program.waitForFinished(20000));
    QCOMPARE(program.exitStatus(), QProcess::CrashExit); // the signal was re-raised

    CrashReporter reporter;
    reporter.setStateFolder(state.filePath(QStringLiteral("corvel")));
    const QStringList reports = reporter.pendingReports();
    QCOMPARE(reports.size(), 1);
    const QByteArray record = readFile(reports.first());
    QVERIFY2(record.startsWith("signal " + QByteArray::number(signal) + "\ntime "),
             record.constData());
    QVERIFY(record.contains("\nversion 9.8.7\n"));
    QVERIFY(record.contains("\nbacktrace:\n"));
    QVERIFY(record.count('\n') > 6); // some frames

    // The next start offers it once, with both sessions' logs, and counts it.
    FakeDelegate delegate;
    reporter.configure(QStringLiteral("org.corvel.Corvel"), &delegate);
    QStringList offered;
    QString attachment;
    reporter.setPrompt(
        [&](const CrashReporter::Report &report, std::function<void(CrashReporter::Answer)> done) {
            offered << report.path;
            attachment = report.attachment;
            done(CrashReporter::Answer::DontSend);
        });
    reporter.processPendingReports();
    QCOMPARE(offered, reports);
    QCOMPARE(delegate.offers, 1);
    QVERIFY(attachment.startsWith(QStringLiteral("this session's log")));
    QVERIFY(attachment.contains(QStringLiteral("the crashed session's last words")));
    QVERIFY(!QFile::exists(reports.first()));
    reporter.processPendingReports();
    QCOMPARE(offered.size(), 1);
}

void TestCrashReporter::alwaysSendIsRemembered()
{
    QTemporaryDir state;
    writeReport(state.path(), QStringLiteral("crash-1-1.txt"));
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    FakeDelegate delegate;
    reporter.configure(QStringLiteral("id"), &delegate);
    int prompts = 0;
    reporter.setPrompt(
        [&](const CrashReporter::Report &, std::function<void(CrashReporter::Answer)> done) {
            ++prompts;
            done(CrashReporter::Answer::AlwaysSend);
        });
    QStringList saved;
    const auto saveNext = [&](const CrashReporter::Report &, std::function<void(QString)> done) {
        saved << state.filePath(QStringLiteral("saved-%1.txt").arg(saved.size()));
        done(saved.last());
    };
    reporter.setSavePrompt(saveNext);
    reporter.processPendingReports();
    QVERIFY(reporter.alwaysSend());
    writeReport(state.path(), QStringLiteral("crash-2-2.txt"));
    CrashReporter nextStart;
    nextStart.setStateFolder(state.path());
    nextStart.configure(QStringLiteral("id"), &delegate);
    nextStart.setPrompt([&](const CrashReporter::Report &,
                            std::function<void(CrashReporter::Answer)>) { ++prompts; });
    nextStart.setSavePrompt(saveNext);
    nextStart.processPendingReports();
    QCOMPARE(prompts, 1); // not asked again
    QCOMPARE(saved.size(), 2);
    QVERIFY(readFile(saved[1]).contains("signal 11"));
    QVERIFY(readFile(saved[1]).contains("this session's log"));
    QVERIFY(nextStart.pendingReports().isEmpty());
    QCOMPARE(delegate.offers, 2);
}

void TestCrashReporter::failedSendKeepsTheReport()
{
    QTemporaryDir state;
    writeReport(state.path(), QStringLiteral("crash-1-1.txt"));
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    reporter.setEndpoint(QUrl(QStringLiteral("http://127.0.0.1:9/crash"))); // nothing listens
    QStringList warnings;
    reporter.setLogHandler([&](const CrashReporter::MessageProvider &message, int level,
                               const char *, const char *, quint32) {
        if (level == CrashReporter::Warning)
            warnings << message();
    });
    reporter.setPrompt(
        [](const CrashReporter::Report &, std::function<void(CrashReporter::Answer)> done) {
            done(CrashReporter::Answer::Send);
        });
    QSignalSpy handled(&reporter, &CrashReporter::reportHandled);
    reporter.processPendingReports();
    QTRY_COMPARE(handled.size(), 1);
    QCOMPARE(handled.first().at(1).toBool(), false);
    QCOMPARE(reporter.pendingReports().size(), 1);
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings[0].startsWith(QStringLiteral("Failed to send the crash report")));
}

void TestCrashReporter::headlessRunKeepsReportsWithoutCounting()
{
    QTemporaryDir state;
    writeReport(state.path(), QStringLiteral("crash-1-1.txt"));
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    FakeDelegate delegate;
    reporter.configure(QStringLiteral("id"), &delegate);
    reporter.processPendingReports(); // no prompt: nobody to ask
    QCOMPARE(delegate.offers, 0);
    QCOMPARE(reporter.pendingReports().size(), 1);
}

void TestCrashReporter::sessionFileStaysBounded()
{
    QTemporaryDir dir;
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    const QString path = dir.filePath(QStringLiteral("session.log"));
    log.setSessionFile(path);
    for (int i = 0; i < 2500; ++i)
        log.log(LogLevel::Info, std::nullopt, QStringLiteral("line %1").arg(i));
    const QList<QByteArray> lines = readFile(path).split('\n');
    QVERIFY(lines.size() - 1 <= Log::maxLines);
    QVERIFY(lines.size() - 1 >= Log::maxLines / 2);
    QVERIFY(lines.at(lines.size() - 2).endsWith("line 2499"));
    log.log(LogLevel::Info, std::nullopt, QString(2 * 1024 * 1024, QLatin1Char('x')));
    QVERIFY(readFile(path).size() <= 1024 * 1024 + 4096);
}

void TestCrashReporter::crashCountsPerVersion()
{
    auto settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    AppServices services;
    services.settings = [&settings]() -> Settings & {
        return *settings;
    };
    AppDelegate app(services, false);
    QCoreApplication::setApplicationVersion(QStringLiteral("1.4.2"));
    app.crashManagerWillShowSubmitCrashReportAlert();
    app.crashManagerWillShowSubmitCrashReportAlert();
    QCoreApplication::setApplicationVersion(QStringLiteral("1.5.0"));
    app.crashManagerWillShowSubmitCrashReportAlert();
    QCoreApplication::setApplicationVersion(QString());
    app.crashManagerWillShowSubmitCrashReportAlert();
    QCOMPARE(settings->crashesByVersion,
             (std::map<QString, qint64>{{"1.4.2", 2}, {"1.5.0", 1}, {"?.?.?", 1}}));
}

void TestCrashReporter::aboutShowsVersionAndCredits()
{
    AppServices services;
    AppDelegate app(services, true);
    QCoreApplication::setApplicationVersion(QStringLiteral("1.4.2"));
    app.showAbout();
    QMessageBox *box = nullptr;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (widget->objectName() == QLatin1String("aboutMessageBox"))
            box = qobject_cast<QMessageBox *>(widget);
    }
    QVERIFY(box);
    QCOMPARE(box->text(), QStringLiteral("Corvel 1.4.2"));
    const QStringList credits = box->informativeText().split(QLatin1Char('\n'));
    QCOMPARE(credits.size(), 3);
    QVERIFY(credits[0].startsWith(QStringLiteral("Website: https://")));
    QVERIFY(credits[2].startsWith(QStringLiteral("Created by ")) &&
            credits[2].endsWith(QLatin1Char(')')));
    QCOMPARE(box->buttons().size(), 1);
    box->close();
}

void TestCrashReporter::feedbackCarriesTheLogWhenAsked()
{
    Logging::attach(&Log::shared());
    Logging::setDefaultLevel(LogLevel::Info);
    logInfo(QStringLiteral("a line for the feedback"));
    FeedbackWindow window{QUrl()};
    auto *send = window.findChild<QPushButton *>(QStringLiteral("sendButton"));
    QVERIFY(!send->isEnabled()); // nothing to send yet
    window.findChild<QLineEdit *>(QStringLiteral("nameLineEdit"))->setText(QStringLiteral("Ada"));
    window.findChild<QPlainTextEdit *>(QStringLiteral("messagePlainTextEdit"))
        ->setPlainText(QStringLiteral("Works!"));
    QVERIFY(send->isEnabled());
    QVERIFY(window.feedbackText().startsWith(QStringLiteral("Name: Ada\nEmail: \n\nWorks!\n")));
    QVERIFY(window.feedbackText().contains(QStringLiteral("a line for the feedback")));
    window.findChild<QCheckBox *>(QStringLiteral("includeLogCheckBox"))->setChecked(false);
    QVERIFY(!window.feedbackText().contains(QStringLiteral("a line for the feedback")));
    QTemporaryDir dir;
    window.saveTo(dir.filePath(QStringLiteral("feedback.txt")));
    QCOMPARE(readFile(dir.filePath(QStringLiteral("feedback.txt"))),
             window.feedbackText().toUtf8());
    QVERIFY(window.statusLabel()->text().startsWith(QStringLiteral("Saved to ")));
    window.saveTo(dir.filePath(QStringLiteral("missing/feedback.txt")));
    QVERIFY(window.statusLabel()->text().startsWith(QStringLiteral("Saving failed: ")));
    Logging::attach(nullptr);
}

QTEST_MAIN(TestCrashReporter)
#include "TestCrashReporter.moc"
