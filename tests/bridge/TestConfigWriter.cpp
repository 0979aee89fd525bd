// SPDX-License-Identifier: GPL-3.0-or-later
#include "BuildConfig.h"
#include "ConfigWriter.h"
#include "LogCapture.h"
#include "RunAsNobody.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {
const QByteArray head = "<?xml version=\"1.0\"?>\n"
                        "<airupnp>\n"
                        "<common>\n"
                        "<enabled>1</enabled>\n"
                        "<max_volume>100</max_volume>\n"
                        "<codec>flac</codec>\n"
                        "<latency>0:2000</latency>\n"
                        "<name>Corvel</name>\n"
                        "<artwork>" CORVEL_ARTWORK_URL "</artwork>\n"
                        "</common>\n"
                        "<main_log>info</main_log>\n"
                        "<upnp_log>info</upnp_log>\n"
                        "<util_log>warn</util_log>\n"
                        "<raop_log>info</raop_log>\n"
                        "<log_limit>-1</log_limit>\n";

DeviceSettings record(const QString &udn, const QString &name, bool coordinator, bool active,
                      bool enabled, bool knownTopology = true)
{
    DeviceSettings r;
    r.info.location = QUrl(QStringLiteral("http://192.0.2.1:1400/") + name);
    if (!udn.isNull())
        r.info.udn = udn;
    r.name = name;
    if (knownTopology)
        r.topology = DeviceTopology{coordinator, QStringLiteral("g")};
    r.active = active;
    r.enabled = enabled;
    return r;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}
} // namespace

class TestConfigWriter : public QObject
{
    Q_OBJECT

private slots:
    void escaping_data();
    void escaping();
    void artworkPointsNowhereReal();
    void noRecords();
    void mixedRecordsByteForByte();
    void writesAtomicallyAndLogsAtDebug();
    void unwritableDestinationReportsError();
    void failedWriteKeepsExistingFile();
};

void TestConfigWriter::escaping_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("escaped");
    const int none = int(AttributeValueEscape::NoAttribute);
    const int quot = int(AttributeValueEscape::EscapeQuot);
    const int apos = int(AttributeValueEscape::EscapeApos);
    const QString name = QStringLiteral("Tom & Jerry's <Den> \"x\"");
    QTest::newRow("no attribute") << name << none << "Tom &amp; Jerry's &lt;Den&gt; \"x\"";
    QTest::newRow("quot") << name << quot << "Tom &amp; Jerry's &lt;Den&gt; &quot;x&quot;";
    QTest::newRow("apos") << name << apos << "Tom &amp; Jerry&apos;s &lt;Den&gt; \"x\"";
    QTest::newRow("entities are not recognised") << "&amp;" << none << "&amp;amp;";
    QTest::newRow("control characters and emoji pass")
        << QStringLiteral("a\tb\u0001\U0001F3B5") << none << QStringLiteral("a\tb\u0001\U0001F3B5");
    QTest::newRow("empty") << QString() << quot << QString();
}

void TestConfigWriter::escaping()
{
    QFETCH(QString, text);
    QFETCH(int, mode);
    QFETCH(QString, escaped);
    QCOMPARE(xmlEscaped(text, AttributeValueEscape(mode)), escaped);
}

void TestConfigWriter::artworkPointsNowhereReal()
{
    const QUrl artwork(QStringLiteral(CORVEL_ARTWORK_URL));
    QCOMPARE(artwork.scheme(), QStringLiteral("https"));
    QVERIFY(artwork.path().endsWith(QStringLiteral("/img/corvel-black.jpg")));
    if (CORVEL_DEFAULT_HOSTS)
        QVERIFY2(artwork.host().endsWith(QStringLiteral(".invalid")), CORVEL_ARTWORK_URL);
}

void TestConfigWriter::noRecords()
{
    QCOMPARE(configFileText({}).toUtf8(), head + "</airupnp>");
}

void TestConfigWriter::mixedRecordsByteForByte()
{
    const std::vector<DeviceSettings> records = {
        record("uuid:RINCON_A", "Living Room", true, true, true),
        record("uuid:RINCON_B", "Kitchen", true, true, false),      // switched off by the user
        record("uuid:RINCON_C", "Kitchen Sub", false, true, true),  // group member
        record("uuid:RINCON_D", "Garden", true, true, true, false), // topology unknown
        record("uuid:RINCON_E", "Office", true, false, true),       // not found in this run
        record(QString(), "Tom & Jerry's <Den> \"1\"", true, true, true), // no UDN
    };
    const QByteArray expected = head +
                                "<device>\n  <udn>uuid:RINCON_A</udn>\n  <name>Living Room</name>\n"
                                "  <enabled>1</enabled>\n</device>\n"
                                "<device>\n  <udn>uuid:RINCON_B</udn>\n  <name>Kitchen</name>\n"
                                "  <enabled>0</enabled>\n</device>\n"
                                "<device>\n  <udn>uuid:RINCON_C</udn>\n  <name>Kitchen Sub</name>\n"
                                "  <enabled>0</enabled>\n</device>\n"
                                "<device>\n  <udn>uuid:RINCON_D</udn>\n  <name>Garden</name>\n"
                                "  <enabled>0</enabled>\n</device>\n"
                                "<device>\n  <udn>uuid:RINCON_E</udn>\n  <name>Office</name>\n"
                                "  <enabled>0</enabled>\n</device>\n"
                                "<device>\n  <udn></udn>\n"
                                "  <name>Tom &amp; Jerry's &lt;Den&gt; \"1\"</name>\n"
                                "  <enabled>1</enabled>\n</device>\n"
                                "</airupnp>";
    QCOMPARE(configFileText(records).toUtf8(), expected);
}

void TestConfigWriter::writesAtomicallyAndLogsAtDebug()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("airupnp.xml"));
    QFile old(path);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write(QByteArray(5000, 'x')); // a longer old file must not leave a tail behind
    old.close();
    const std::vector<DeviceSettings> records = {
        record("uuid:RINCON_A", QStringLiteral("K\u00fcche"), true, true, true)};
    LogCapture capture;
    QString error;
    QVERIFY2(writeConfigFile(path, records, &error), qPrintable(error));
    const QByteArray bytes = readFile(path);
    QCOMPARE(bytes, configFileText(records).toUtf8());
    QVERIFY(!bytes.startsWith("\xef\xbb\xbf"));
    QVERIFY(bytes.endsWith("</airupnp>"));
    QVERIFY(capture.contains(LogLevel::Debug, std::nullopt, configFileText(records)));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList("airupnp.xml"));
}

void TestConfigWriter::unwritableDestinationReportsError()
{
    QTemporaryDir dir;
    QString error;
    QVERIFY(!writeConfigFile(dir.filePath(QStringLiteral("gone/airupnp.xml")), {}, &error));
    QVERIFY(!error.isEmpty());
}

void TestConfigWriter::failedWriteKeepsExistingFile()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("airupnp.xml"));
    QVERIFY(writeConfigFile(path, {}, nullptr));
    QFile::setPermissions(dir.path(),
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    const std::vector<DeviceSettings> records = {record("uuid:X", "X", true, true, true)};
    const int verdict = runAsNobody([&path, &records] {
        QString error;
        return !writeConfigFile(path, records, &error) && !error.isEmpty();
    });
    QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QCOMPARE(verdict, 1);
    QCOMPARE(readFile(path), head + "</airupnp>");
}

QTEST_GUILESS_MAIN(TestConfigWriter)
#include "TestConfigWriter.moc"
