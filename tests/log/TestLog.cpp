// SPDX-License-Identifier: GPL-3.0-or-later
#include "AtomicFile.h"
#include "Log.h"
#include "LogExport.h"
#include "TestSupport.h"

#include <csignal>
#include <QDir>
#include <QTemporaryDir>
#include <sys/resource.h>
#include <thread>

class TestLog : public QObject
{
    Q_OBJECT

private slots:
    void echoAndRenderedLines_data();
    void echoAndRenderedLines();
    void levelGatesTheFacade();
    void keepsTheLastThousand();
    void threadsLoseNoLine();
    void sessionFileMirrorsAndStaysBounded();
    void exportNameAndWrite_data();
    void exportNameAndWrite();
    void aFileThatDoesNotFitIsNotReplaced();
};

void TestLog::echoAndRenderedLines_data()
{
    QTest::addColumn<std::optional<QString>>("category");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QByteArray>("echo");
    QTest::addColumn<QString>("rendered");
    const QString stamp = QStringLiteral("[2017-11-16 21:18:57 +0000]");
    QTest::newRow("absent category")
        << std::optional<QString>() << QStringLiteral("hello")
        << QByteArray("[Info][default] hello\n") << stamp + "[Info][default] hello";
    QTest::newRow("format characters and non-ASCII")
        << std::optional<QString>(QStringLiteral("SSDP")) << QStringLiteral("%d %s K\u00fcche")
        << QByteArray("[Info][SSDP] %d %s K\xc3\xbc"
                      "che\n")
        << stamp + QStringLiteral("[Info][SSDP] %d %s K\u00fcche");
}

void TestLog::echoAndRenderedLines()
{
    QFETCH(std::optional<QString>, category);
    QFETCH(QString, message);
    QFETCH(QByteArray, echo);
    QFETCH(QString, rendered);
    Log log;
    QByteArray written;
    log.setEchoSink([&written](const QByteArray &line) { written += line; });
    log.setClock([] { return 1510867137.75; }); // 2017-11-16 21:18:57.75 UTC
    log.log(LogLevel::Info, category, message);
    QCOMPARE(written + log.text(1).toUtf8(), echo + rendered.toUtf8());
}

void TestLog::levelGatesTheFacade()
{
    LogCapture capture(LogLevel::Info);
    Logging::installQtMessageHandler(); // Qt's own messages reach the log too
    qWarning("from Qt");
    qInstallMessageHandler(nullptr);
    logDebug(QStringLiteral("dropped"));
    logInfo(QStringLiteral("c"), QStringLiteral("kept"));
    QCOMPARE(Logging::defaultLevel(), LogLevel::Info);
    Logging::setDefaultLevel(LogLevel::Off);
    logError(QStringLiteral("dropped too"));
    QCOMPARE(capture.lines(), QStringList({"Warning Qt from Qt", "Info c kept"}));
}

void TestLog::keepsTheLastThousand()
{
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    for (int i = 0; i < 1001; ++i)
        log.log(LogLevel::Info, std::nullopt, QString::number(i));
    const auto lines = log.lines();
    QVERIFY(lines.size() == 1000u && lines.front().message == QStringLiteral("1"));
    QCOMPARE(log.text(2).count(QLatin1Char('\n')), 1);
    QVERIFY(log.text(2).endsWith(QLatin1String("][Info][default] 1000")));
    QVERIFY(log.text(0).isEmpty() && log.text(-5).isEmpty());
}

void TestLog::threadsLoseNoLine()
{
    // Every echo line arrives whole, and the list keeps each of them.
    Log log;
    QByteArray echoed;
    log.setEchoSink([&echoed](const QByteArray &line) { echoed += line; });
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&log] {
            for (int i = 0; i < 200; ++i)
                log.log(LogLevel::Info, QStringLiteral("t"), QStringLiteral("line"));
        });
    for (auto &worker : workers)
        worker.join();
    QVERIFY(echoed == QByteArray("[Info][t] line\n").repeated(800) && log.lines().size() == 800u);
}

void TestLog::sessionFileMirrorsAndStaysBounded()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("session.log"));
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    log.log(LogLevel::Info, std::nullopt, QStringLiteral("before"));
    log.setSessionFile(path);
    QVERIFY(readFile(path).endsWith("[Info][default] before\n")); // the log so far, at once
    log.log(LogLevel::Warning, QStringLiteral("c"), QStringLiteral("after"));
    QVERIFY(readFile(path).endsWith("[Warning][c] after\n")); // each entry as it arrives
    for (int i = 0; i < 3000; ++i) // long lines, then short ones: bounded in bytes and in lines
        log.log(LogLevel::Info, std::nullopt,
                QString(i < 1500 ? 600 : 1, 'x') + QString::number(i));
    const QByteArray text = readFile(path);
    QVERIFY2(text.size() <= 1024 * 1024 && text.count('\n') <= Log::maxLines,
             QByteArray::number(text.size()));
    QVERIFY(text.startsWith("[20") && text.endsWith("x2999\n") && !text.contains("\n2")); // whole
}

void TestLog::exportNameAndWrite_data()
{
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QString>("name");
    QTest::newRow("evening on the 12-hour clock")
        << QDateTime(QDate(2018, 3, 2), QTime(21, 5, 9)) << "corvel-log-20180302-090509.txt";
    QTest::newRow("noon is 12") << QDateTime(QDate(2020, 1, 1), QTime(12, 0, 1))
                                << "corvel-log-20200101-120001.txt";
}

void TestLog::exportNameAndWrite()
{
    QFETCH(QDateTime, time);
    QFETCH(QString, name);
    QCOMPARE(LogExport::suggestedFileName(time), name);
    QTemporaryDir dir;
    const QString path = dir.filePath(name);
    QString error;
    QVERIFY(LogExport::writeText(path, QStringLiteral("Wohnzimmer \u00e9 %d"), &error));
    QCOMPARE(readFile(path), QByteArray("Wohnzimmer \xc3\xa9 %d"));
    Log::shared().setEchoSink([](const QByteArray &) {});
    Log::shared().log(LogLevel::Info, std::nullopt, QStringLiteral("exported"));
    QVERIFY(LogExport::writeLog(path, &error)); // the shared log's last lines
    QVERIFY(
        readFile(path).endsWith("[Info][default] exported") && // stamped now
        readFile(path).contains(QDateTime::currentDateTimeUtc().toString("[yyyy-MM-dd").toUtf8()));
    QVERIFY(!LogExport::writeText(dir.filePath("missing/" + name), {}, &error) && !error.isEmpty());
    // Save dialogs start in Documents, or at home where there is no such folder.
    const QByteArray home = qgetenv("HOME");
    qputenv("HOME", dir.path().toUtf8());
    const QString withoutDocuments = LogExport::saveFolder();
    QDir(dir.path()).mkdir(QStringLiteral("Documents"));
    const QString withDocuments = LogExport::saveFolder();
    qputenv("HOME", home);
    QCOMPARE(withoutDocuments, dir.path());
    QCOMPARE(withDocuments, dir.filePath(QStringLiteral("Documents")));
}

void TestLog::aFileThatDoesNotFitIsNotReplaced()
{
    // A full disk, as a file-size limit: the write fails and the old file stays whole.
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("airupnp.xml"));
    QString error;
    QVERIFY(writeFileAtomically(path, "old", &error));
    const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    for (const rlim_t fits : {rlim_t(0), rlim_t(1000)}) { // full from the start, or part-way
        const rlimit small{fits, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const bool written = writeFileAtomically(path, QByteArray(5000, 'x'), &error);
        setrlimit(RLIMIT_FSIZE, &limit);
        QVERIFY2(!written &&
                     error == QStringLiteral("wrote %1 of 5000 bytes: File too large").arg(fits),
                 qPrintable(error));
    }
    std::signal(SIGXFSZ, ignored);
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{"airupnp.xml"}); // no leftover
    QCOMPARE(readFile(path), QByteArray("old"));

    // A folder in the file's place: refused before anything is written.
    const QString folder = dir.filePath(QStringLiteral("in-the-way"));
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("in-the-way")));
    QVERIFY(!writeFileAtomically(folder, "new", &error) && QFileInfo(folder).isDir());
    QCOMPARE(error, "Filename refers to a directory");
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{"airupnp.xml"});
}

QTEST_GUILESS_MAIN(TestLog)
#include "TestLog.moc"
