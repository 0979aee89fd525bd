// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceInfo.h"
#include "RecordCompare.h"

#include <cmath>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

namespace {
QJsonObject parseObject(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}
} // namespace

class TestDeviceInfo : public QObject
{
    Q_OBJECT

private slots:
    void roundTripKeepsEveryField();
    void roundTripThroughText();
    void locationOnlyWritesTwoKeys();
    void defaultName_data();
    void defaultName();
    void strictReading_data();
    void strictReading();
    void unknownKeysAreIgnored();
    void nonFiniteFloatIsNotWritten_data();
    void nonFiniteFloatIsNotWritten();
    void topologyRoundTrip();
};

void TestDeviceInfo::roundTripKeepsEveryField()
{
    const DeviceInfo original = fullDeviceInfo();
    const QJsonObject json = original.toJson();
    QCOMPARE(json.size(), 35);
    QString error;
    const auto read = DeviceInfo::fromJson(json, &error);
    QVERIFY2(read, qPrintable(error));
    QVERIFY(sameInfo(original, *read));
    QCOMPARE(read->iconList[0]->url->toString(),
             QStringLiteral("http://192.0.2.10:1400/img/icon-S3.png"));
}

void TestDeviceInfo::roundTripThroughText()
{
    // The settings store the record as text: 64-bit integers and floats must survive it.
    const DeviceInfo original = fullDeviceInfo();
    const QByteArray text = QJsonDocument(original.toJson()).toJson(QJsonDocument::Compact);
    QVERIFY(text.contains("\"memory\":9007199254740993"));
    const auto read = DeviceInfo::fromJson(parseObject(text), nullptr);
    QVERIFY(read);
    QVERIFY(sameInfo(original, *read));
    QCOMPARE(*read->memory, 9007199254740993LL);
    QCOMPARE(*read->satGainOffset, 0.1f);
}

void TestDeviceInfo::locationOnlyWritesTwoKeys()
{
    DeviceInfo info;
    info.location = QUrl(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));
    const QJsonObject json = info.toJson();
    QCOMPARE(json.keys(), QStringList({"iconList", "location"}));
    QCOMPARE(json.value("iconList").toArray().size(), 0);
    const auto read = DeviceInfo::fromJson(json, nullptr);
    QVERIFY(read);
    QVERIFY(sameInfo(info, *read));
}

void TestDeviceInfo::defaultName_data()
{
    QTest::addColumn<std::optional<QString>>("room");
    QTest::addColumn<std::optional<QString>>("display");
    QTest::addColumn<std::optional<QString>>("friendly");
    QTest::addColumn<QString>("location");
    QTest::addColumn<QString>("name");
    using S = std::optional<QString>;
    const QString loc = QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml");
    QTest::newRow("room and display")
        << S("Kitchen") << S("Front") << S("F") << loc << "Kitchen - Front";
    QTest::newRow("empty room counts") << S("") << S("Front") << S() << loc << " - Front";
    QTest::newRow("room without display falls to friendly")
        << S("Kitchen") << S() << S("192.0.2.10 - Sonos PLAY:3") << loc
        << "192.0.2.10 - Sonos PLAY:3";
    QTest::newRow("empty friendly counts") << S() << S("Front") << S("") << loc << "";
    QTest::newRow("host only") << S() << S() << S() << loc << "192.0.2.10";
    QTest::newRow("IPv6 host") << S() << S() << S() << "http://[2001:db8::1]:1400/x.xml"
                               << "2001:db8::1";
    QTest::newRow("no host gives the text") << S() << S() << S() << "urn:sonos:player"
                                            << "urn:sonos:player";
}

void TestDeviceInfo::defaultName()
{
    QFETCH(std::optional<QString>, room);
    QFETCH(std::optional<QString>, display);
    QFETCH(std::optional<QString>, friendly);
    QFETCH(QString, location);
    QFETCH(QString, name);
    DeviceInfo info;
    info.location = QUrl(location);
    info.roomName = room;
    info.displayName = display;
    info.friendlyName = friendly;
    QCOMPARE(info.defaultName(), name);
}

void TestDeviceInfo::strictReading_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("errorPart");
    const QByteArray base = R"("location":"http://192.0.2.1:1400/d.xml","iconList":[])";
    QTest::newRow("missing location") << QByteArray(R"({"iconList":[]})") << "\"location\"";
    QTest::newRow("missing iconList")
        << QByteArray(R"({"location":"http://192.0.2.1:1400/d.xml"})") << "\"iconList\"";
    QTest::newRow("location not a string")
        << QByteArray(R"({"location":5,"iconList":[]})") << "\"location\"";
    QTest::newRow("location not a URL")
        << QByteArray(R"({"location":"http://[::1","iconList":[]})") << "not a valid URL";
    QTest::newRow("empty location")
        << QByteArray(R"({"location":"","iconList":[]})") << "not a valid URL";
    QTest::newRow("iconList not an array")
        << QByteArray(R"({"location":"http://a/","iconList":{}})") << "\"iconList\"";
    QTest::newRow("text as number") << "{" + base + R"(,"roomName":3})"
                                    << "\"roomName\"";
    QTest::newRow("text as null") << "{" + base + R"(,"udn":null})"
                                  << "\"udn\"";
    QTest::newRow("integer as string") << "{" + base + R"(,"zoneType":"8"})"
                                       << "\"zoneType\"";
    QTest::newRow("integer with fraction") << "{" + base + R"(,"variant":1.5})"
                                           << "\"variant\"";
    QTest::newRow("integer beyond 64 bits") << "{" + base + R"(,"memory":1e30})"
                                            << "\"memory\"";
    QTest::newRow("float as string") << "{" + base + R"(,"bassExtension":"1.0"})"
                                     << "\"bassExtension\"";
    QTest::newRow("float beyond 32 bits") << "{" + base + R"(,"satGainOffset":1e300})"
                                          << "\"satGainOffset\"";
    QTest::newRow("bad manufacturer URL") << "{" + base + R"(,"manufacturerURL":"http://a b"})"
                                          << "\"manufacturerURL\"";
    QTest::newRow("icon entry not an object")
        << QByteArray(R"({"location":"http://a/","iconList":[1]})") << "iconList entry";
    QTest::newRow("icon width as string")
        << QByteArray(R"({"location":"http://a/","iconList":[{"width":"48"}]})") << "\"width\"";
    QTest::newRow("icon url invalid")
        << QByteArray(R"({"location":"http://a/","iconList":[{"url":"http://[x"}]})") << "\"url\"";
}

void TestDeviceInfo::strictReading()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, errorPart);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    QCOMPARE(parseError.error, QJsonParseError::NoError);
    QString error;
    QVERIFY(!DeviceInfo::fromJson(document.object(), &error));
    QVERIFY2(error.contains(errorPart), qPrintable(error));
}

void TestDeviceInfo::unknownKeysAreIgnored()
{
    const auto read = DeviceInfo::fromJson(
        parseObject(R"({"zzz":[1,2],"location":"http://a:1400/d.xml","iconList":[{"new":1}],)"
                    R"("variant":3.0,"bassExtension":2})"),
        nullptr);
    QVERIFY(read);
    QCOMPARE(*read->variant, 3); // a whole number written with a fraction still reads
    QCOMPARE(*read->bassExtension, 2.0f);
    QCOMPARE(read->iconList.size(), 1u);
}

void TestDeviceInfo::nonFiniteFloatIsNotWritten_data()
{
    QTest::addColumn<float>("value");
    QTest::newRow("nan") << std::nanf("");
    QTest::newRow("inf") << INFINITY;
    QTest::newRow("-inf") << -INFINITY;
}

void TestDeviceInfo::nonFiniteFloatIsNotWritten()
{
    QFETCH(float, value);
    DeviceInfo info = fullDeviceInfo();
    info.bassExtension = value;
    const QByteArray text = QJsonDocument(info.toJson()).toJson(QJsonDocument::Compact);
    const auto read = DeviceInfo::fromJson(parseObject(text), nullptr);
    QVERIFY(read);
    QVERIFY(!read->bassExtension);
    QCOMPARE(*read->satGainOffset, 0.1f);
}

void TestDeviceInfo::topologyRoundTrip()
{
    const DeviceTopology topology{false, QStringLiteral("RINCON_000E58283BD401400:12")};
    const auto read = DeviceTopology::fromJson(topology.toJson(), nullptr);
    QVERIFY(read);
    QCOMPARE(read->coordinator, false);
    QCOMPARE(read->group, topology.group);
    QString error;
    QVERIFY(!DeviceTopology::fromJson(parseObject(R"({"coordinator":true})"), &error));
    QVERIFY(error.contains("\"group\""));
    QVERIFY(
        !DeviceTopology::fromJson(parseObject(R"({"coordinator":"true","group":"g"})"), &error));
}

QTEST_GUILESS_MAIN(TestDeviceInfo)
#include "TestDeviceInfo.moc"
