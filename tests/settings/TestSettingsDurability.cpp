// SPDX-License-Identifier: GPL-3.0-or-later
// A session killed with SIGKILL in the middle of its saves must leave a settings document
// that the next session reads: the store replaces its file atomically.
#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

class TestSettingsDurability : public QObject
{
    Q_OBJECT

private slots:
    void killedDuringSavesLeavesAReadableDocument();

private:
    // Runs the writer to its end or until killAfterMs, and returns its output.
    QByteArray runWriter(int killAfterMs);

    QTemporaryDir m_config;
};

QByteArray TestSettingsDurability::runWriter(int killAfterMs)
{
    QProcess writer;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_config.path());
    writer.setProcessEnvironment(env);
    writer.setProcessChannelMode(QProcess::MergedChannels);
    writer.start(QStringLiteral(SETTINGS_WRITER), {QStringLiteral("200")});
    if (!writer.waitForStarted())
        return {};
    QByteArray output;
    // Kill only once the writer has loaded, so every round interrupts saves, not start-up.
    while (!output.contains('\n') && writer.waitForReadyRead(5000))
        output += writer.readAll();
    if (killAfterMs >= 0) {
        QTest::qSleep(killAfterMs);
        ::kill(pid_t(writer.processId()), SIGKILL);
    }
    writer.waitForFinished(30000);
    return output + writer.readAll();
}

void TestSettingsDurability::killedDuringSavesLeavesAReadableDocument()
{
    QVERIFY(m_config.isValid());
    QVERIFY(runWriter(-1).startsWith("missing\n")); // the first session creates the speaker

    QElapsedTimer timer;
    timer.start();
    const QByteArray full = runWriter(-1);
    const qint64 fullMs = timer.elapsed();
    QVERIFY2(full.contains("saved 199"), full.right(500).constData());

    // The next session always finds the speaker with a name one of the saves wrote, and the
    // store never reports a document it could not read.
    const QRegularExpression loaded(QStringLiteral("^loaded Speaker \\d+ [01]\n"));
    QRandomGenerator random(20261123);
    int interrupted = 0;
    for (int round = 0; round < 40; ++round) {
        const int killAfter = int(random.bounded(qint64(std::max<qint64>(fullMs, 20))));
        const QByteArray output = runWriter(killAfter);
        QVERIFY2(loaded.match(QString::fromUtf8(output)).hasMatch(), output.left(300).constData());
        QVERIFY2(!output.contains("Failed to deserialize settings"), output.left(300).constData());
        interrupted += output.contains("saved 199") ? 0 : 1;
    }
    const QByteArray last = runWriter(-1);
    QVERIFY2(loaded.match(QString::fromUtf8(last)).hasMatch(), last.left(300).constData());
    QVERIFY(interrupted > 20); // most rounds really were cut short
    // Files an interrupted save left beside the document (a lock, a temporary copy).
    const QStringList files =
        QDir(m_config.filePath(QStringLiteral("Corvel"))).entryList(QDir::Files | QDir::Hidden);
    qInfo("200 saves take %lld ms; %d of 40 sessions killed mid-save; files left: %s", fullMs,
          interrupted, qPrintable(files.join(QStringLiteral(", "))));
    QVERIFY(files.size() <= 3);
}

QTEST_GUILESS_MAIN(TestSettingsDurability)
#include "TestSettingsDurability.moc"
