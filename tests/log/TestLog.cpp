// SPDX-License-Identifier: GPL-3.0-or-later
#include "Log.h"
#include "LogCapture.h"
#include "LogExport.h"
#include "RunAsNobody.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <thread>

class TestLog : public QObject
{
    Q_OBJECT

private slots:
    void facadePassesByLevel_data();
    void facadePassesByLevel();
    void echoLineIsVerbatim_data();
    void echoLineIsVerbatim();
    void renderedLineFormat();
    void textJoinsLastEntries_data();
    void textJoinsLastEntries();
    void keepsTheLastThousand();
    void concurrentLoggingLosesNoLine();
    void suggestedExportName_data();
    void suggestedExportName();
    void exportWritesUtf8Atomically();
    void exportFailureKeepsExistingFile();
};

void TestLog::facadePassesByLevel_data()
{
    QTest::addColumn<int>("globalLevel");
    QTest::addColumn<int>("messageLevel");
    QTest::addColumn<bool>("passes");
    QTest::newRow("verbose passes everything") << 5 << 5 << true;
    QTest::newRow("info drops debug") << 3 << 4 << false;
    QTest::newRow("info passes warning") << 3 << 2 << true;
    QTest::newRow("info passes info") << 3 << 3 << true;
    QTest::newRow("off drops error") << 0 << 1 << false;
}

void TestLog::facadePassesByLevel()
{
    QFETCH(int, globalLevel);
    QFETCH(int, messageLevel);
    QFETCH(bool, passes);
    LogCapture capture;
    Logging::setDefaultLevel(static_cast<LogLevel>(globalLevel));
    log(static_cast<LogLevel>(messageLevel), QStringLiteral("c"), QStringLiteral("m"));
    QCOMPARE(capture.entries().size(), passes ? 1u : 0u);
}

void TestLog::echoLineIsVerbatim_data()
{
    QTest::addColumn<std::optional<QString>>("category");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QByteArray>("echo");
    QTest::newRow("absent category") << std::optional<QString>() << QStringLiteral("hello")
                                     << QByteArray("[Info][default] hello\n");
    QTest::newRow("empty category")
        << std::optional<QString>(QString()) << QStringLiteral("x") << QByteArray("[Info][] x\n");
    QTest::newRow("format characters")
        << std::optional<QString>(QStringLiteral("SSDP")) << QStringLiteral("%d %s %n %%")
        << QByteArray("[Info][SSDP] %d %s %n %%\n");
    QTest::newRow("line break and non-ASCII") << std::optional<QString>(QStringLiteral("settings"))
                                              << QStringLiteral("K\u00fcche\nsecond")
                                              << QByteArray("[Info][settings] K\xc3\xbc"
                                                            "che\nsecond\n");
}

void TestLog::echoLineIsVerbatim()
{
    QFETCH(std::optional<QString>, category);
    QFETCH(QString, message);
    QFETCH(QByteArray, echo);
    Log log;
    QByteArray written;
    log.setEchoSink([&written](const QByteArray &line) { written += line; });
    log.log(LogLevel::Info, category, message);
    QCOMPARE(written, echo);
    QCOMPARE(log.lines().front().category, category);
}

void TestLog::renderedLineFormat()
{
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    log.setClock([] { return 1510867137.75; }); // 2017-11-16 21:18:57.75 UTC
    log.log(LogLevel::Debug, QStringLiteral("preferences"), QStringLiteral("viewDidLoad"));
    log.log(LogLevel::Error, std::nullopt, QStringLiteral("100% %s"));
    log.log(LogLevel::Warning, QString(), QStringLiteral("empty"));
    QCOMPARE(log.text(3),
             QStringLiteral("[2017-11-16 21:18:57 +0000][Debug][preferences] viewDidLoad\n"
                            "[2017-11-16 21:18:57 +0000][Error][default] 100% %s\n"
                            "[2017-11-16 21:18:57 +0000][Warning][] empty"));
}

void TestLog::textJoinsLastEntries_data()
{
    QTest::addColumn<int>("logged");
    QTest::addColumn<int>("asked");
    QTest::addColumn<QString>("expected");
    const QString line = QStringLiteral("[1970-01-01 00:00:00 +0000][Info][default] ");
    QTest::newRow("empty log") << 0 << 100 << QString();
    QTest::newRow("three of a hundred") << 3 << 100 << line + "0\n" + line + "1\n" + line + "2";
    QTest::newRow("last two") << 3 << 2 << line + "1\n" + line + "2";
    QTest::newRow("zero lines") << 3 << 0 << QString();
    QTest::newRow("negative count") << 3 << -5 << QString();
}

void TestLog::textJoinsLastEntries()
{
    QFETCH(int, logged);
    QFETCH(int, asked);
    QFETCH(QString, expected);
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    log.setClock([] { return 0.0; });
    for (int i = 0; i < logged; ++i)
        log.log(LogLevel::Info, std::nullopt, QString::number(i));
    QCOMPARE(log.text(asked), expected);
}

void TestLog::keepsTheLastThousand()
{
    Log log;
    log.setEchoSink([](const QByteArray &) {});
    for (int i = 0; i < 1001; ++i)
        log.log(LogLevel::Info, std::nullopt, QString::number(i));
    const auto lines = log.lines();
    QCOMPARE(lines.size(), 1000u);
    QCOMPARE(lines.front().message, QStringLiteral("1"));
    QCOMPARE(lines.back().message, QStringLiteral("1000"));
    QCOMPARE(log.text(5000).count(QLatin1Char('\n')), 999);
}

void TestLog::concurrentLoggingLosesNoLine()
{
    // Echo lines must each arrive whole and the list must keep each thread's order.
    Log log;
    QByteArray echoed;
    log.setEchoSink([&echoed](const QByteArray &line) { echoed += line; });
    constexpr int threads = 8;
    constexpr int perThread = 400;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&log, t] {
            for (int i = 0; i < perThread; ++i)
                log.log(LogLevel::Info, QStringLiteral("t%1").arg(t), QString::number(i));
        });
    }
    for (auto &worker : workers)
        worker.join();

    const QList<QByteArray> echoLines = echoed.split('\n');
    QCOMPARE(echoLines.size(), threads * perThread + 1); // the text ends with a line feed
    std::vector<int> seen(threads, 0);
    for (const QByteArray &line : echoLines.mid(0, threads * perThread)) {
        const QList<QByteArray> parts = line.split(']');
        QCOMPARE(parts.size(), 3);
        const int thread = parts[1].mid(2).toInt();
        QCOMPARE(parts[2].trimmed().toInt(), seen[thread]++);
    }
    QCOMPARE(log.lines().size(), 1000u);
}

void TestLog::suggestedExportName_data()
{
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QString>("name");
    QTest::newRow("evening uses the 12-hour clock")
        << QDateTime(QDate(2018, 3, 2), QTime(21, 5, 9)) << "corvel-log-20180302-090509.txt";
    QTest::newRow("half past midnight is 12")
        << QDateTime(QDate(2017, 11, 16), QTime(0, 30, 0)) << "corvel-log-20171116-123000.txt";
    QTest::newRow("noon is 12") << QDateTime(QDate(2020, 1, 1), QTime(12, 0, 1))
                                << "corvel-log-20200101-120001.txt";
    QTest::newRow("morning") << QDateTime(QDate(2017, 11, 16), QTime(9, 18, 57))
                             << "corvel-log-20171116-091857.txt";
}

void TestLog::suggestedExportName()
{
    QFETCH(QDateTime, time);
    QFETCH(QString, name);
    QCOMPARE(LogExport::suggestedFileName(time), name);
}

void TestLog::exportWritesUtf8Atomically()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("log.txt"));
    QString error;
    QVERIFY(LogExport::writeText(path, QStringLiteral("Wohnzimmer \u00e9 %d\nzwei"), &error));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("Wohnzimmer \xc3\xa9 %d\nzwei"));
    QVERIFY(!LogExport::writeText(dir.filePath(QStringLiteral("missing/log.txt")), {}, &error));
    QVERIFY(!error.isEmpty());
}

void TestLog::exportFailureKeepsExistingFile()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("log.txt"));
    QVERIFY(LogExport::writeText(path, QStringLiteral("old"), nullptr));
    QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther |
                                          QFile::ExeOther | QFile::ReadGroup | QFile::ExeGroup);
    const int verdict = runAsNobody([&path] {
        QString error;
        return !LogExport::writeText(path, QStringLiteral("new"), &error) && !error.isEmpty();
    });
    QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QCOMPARE(verdict, 1);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("old"));
}

QTEST_GUILESS_MAIN(TestLog)
#include "TestLog.moc"
