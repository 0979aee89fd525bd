// SPDX-License-Identifier: GPL-3.0-or-later
#include "DescriptionParser.h"

#include "Fixtures.h"
#include <cmath>

#include <QFile>
#include <QTest>

namespace {
const QUrl location(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));

QByteArray description(const QByteArray &deviceChildren)
{
    return R"(<?xml version="1.0"?><root xmlns="urn:schemas-upnp-org:device-1-0"><device>)" +
           deviceChildren + "</device></root>";
}

QByteArray topologyDocument(const QByteArray &entries)
{
    return "<?xml version=\"1.0\" ?><ZPSupportInfo type='User'><ZonePlayers>" + entries +
           "</ZonePlayers></ZPSupportInfo>";
}
} // namespace

class TestDescriptionParser : public QObject
{
    Q_OBJECT

private slots:
    void integers_data();
    void integers();
    void floats_data();
    void floats();
    void udnKey_data();
    void udnKey();
    void realDescriptions_data();
    void realDescriptions();
    void onlyTopLevelDeviceDescribesThePlayer();
    void iconUrls_data();
    void iconUrls();
    void modelUrlsAreNotResolved();
    void notADescription_data();
    void notADescription();
    void brokenDocumentKeepsWhatWasRead();
    void hostileDocumentsStayCheap();
    void topology_data();
    void topology();
    void realTopology();
};

void TestDescriptionParser::integers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<std::optional<qint64>>("value");
    using V = std::optional<qint64>;
    QTest::newRow("plain") << "7" << V(7);
    QTest::newRow("plus sign") << "+3" << V(3);
    QTest::newRow("minus one") << "-1" << V(-1);
    QTest::newRow("leading space") << " 7" << V();
    QTest::newRow("trailing newline") << "7\n" << V();
    QTest::newRow("hex") << "0x10" << V();
    QTest::newRow("empty") << "" << V();
    QTest::newRow("sign only") << "-" << V();
    QTest::newRow("fraction") << "1.0" << V();
    QTest::newRow("largest") << "9223372036854775807" << V(9223372036854775807LL);
    QTest::newRow("smallest") << "-9223372036854775808" << V(-9223372036854775807LL - 1);
    QTest::newRow("beyond 64 bits") << "9223372036854775808" << V();
    QTest::newRow("non-ASCII digit") << QStringLiteral("\u0663") << V();
    QTest::newRow("double sign") << "+-1" << V();
}

void TestDescriptionParser::integers()
{
    QFETCH(QString, text);
    QFETCH(std::optional<qint64>, value);
    QCOMPARE(DescriptionParser::parseInteger(text), value);
}

void TestDescriptionParser::floats_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("present");
    QTest::addColumn<float>("value");
    QTest::newRow("decimal") << "1.5" << true << 1.5f;
    QTest::newRow("comma") << "1,5" << false << 0.0f;
    QTest::newRow("firmware style") << "60.000" << true << 60.0f;
    QTest::newRow("leading space") << " 1" << false << 0.0f;
    QTest::newRow("leading tab") << "\t1" << false << 0.0f;
    QTest::newRow("trailing space") << "1 " << false << 0.0f;
    QTest::newRow("empty") << "" << false << 0.0f;
    QTest::newRow("exponent") << "1e3" << true << 1000.0f;
    QTest::newRow("hex float") << "0x1p3" << true << 8.0f;
    QTest::newRow("infinity") << "inf" << true << INFINITY;
    QTest::newRow("overflow is infinity") << "1e50" << true << INFINITY;
    QTest::newRow("negative") << "-2.25" << true << -2.25f;
    QTest::newRow("words") << "abc" << false << 0.0f;
    QTest::newRow("embedded NUL") << QString::fromLatin1("1\0"
                                                         "5",
                                                         3)
                                  << false << 0.0f;
}

void TestDescriptionParser::floats()
{
    QFETCH(QString, text);
    QFETCH(bool, present);
    QFETCH(float, value);
    const auto parsed = DescriptionParser::parseFloat(text);
    QCOMPARE(parsed.has_value(), present);
    if (present)
        QCOMPARE(*parsed, value);
    QVERIFY(std::isnan(DescriptionParser::parseFloat(QStringLiteral("nan")).value_or(0)));
}

void TestDescriptionParser::udnKey_data()
{
    QTest::addColumn<std::optional<QString>>("udn");
    QTest::addColumn<QString>("key");
    using S = std::optional<QString>;
    QTest::newRow("prefix removed") << S("uuid:ABC123") << "ABC123";
    QTest::newRow("no prefix") << S("ABC123") << "ABC123";
    QTest::newRow("upper-case prefix kept") << S("UUID:ABC123") << "UUID:ABC123";
    QTest::newRow("prefix inside kept") << S("x-uuid:ABC123") << "x-uuid:ABC123";
    QTest::newRow("every line start") << S("uuid:A\nuuid:B") << "A\nB";
    QTest::newRow("empty") << S("") << "";
    QTest::newRow("absent gives location") << S() << location.toString();
}

void TestDescriptionParser::udnKey()
{
    QFETCH(std::optional<QString>, udn);
    QFETCH(QString, key);
    DeviceInfo info;
    info.location = location;
    info.udn = udn;
    QCOMPARE(DescriptionParser::udnKey(info), key);
}

void TestDescriptionParser::realDescriptions_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("modelName");
    QTest::addColumn<QString>("udn");
    QTest::addColumn<QString>("defaultName");
    QTest::addColumn<std::optional<qint64>>("zoneType");
    QTest::addColumn<std::optional<qint64>>("internalSpeakerSize");
    QTest::addColumn<std::optional<qint64>>("memory");
    QTest::addColumn<std::optional<float>>("bassExtension");
    QTest::addColumn<std::optional<QString>>("extraVersion");
    QTest::addColumn<QString>("iconUrl");
    using I = std::optional<qint64>;
    using F = std::optional<float>;
    using S = std::optional<QString>;
    QTest::newRow("Play:3") << "description-play3-s3-fw28.1.xml"
                            << "Sonos PLAY:3"
                            << "uuid:RINCON_000E5871262E01400"
                            << "Chambre coline - PLAY:3" << I(7) << I(4) << I(64) << F(60.0f)
                            << S("OTP: ") << "/img/icon-S3.png";
    QTest::newRow("Bridge") << "description-bridge-zb100-fw28.1.xml"
                            << "Sonos BRIDGE"
                            << "uuid:RINCON_000E584E928401400"
                            << "BRIDGE - BRIDGE" << I(4) << I(-1) << I(8) << F() << S("")
                            << "/img/icon-ZB100.png";
    QTest::newRow("Connect") << "description-connect-zp90-fw28.1.xml"
                             << "Sonos CONNECT"
                             << "uuid:RINCON_000E58A3D36601400"
                             << "Cuisine ete - CONNECT" << I(1) << I(-1) << I(32) << F(0.0f)
                             << S("OTP: 1.1.1(1-16-5-zp90-0.8)") << "/img/icon-ZP90.png";
    QTest::newRow("Connect:Amp old firmware")
        << "description-connectamp-zp120-fw16.5.xml"
        << "Sonos CONNECT:AMP"
        << "uuid:RINCON_000E58354D7A01400"
        << "Wohnzimmer - CONNECT:AMP" << I(3) << I(-1) << I() << F() << S("OTP: 1.1.1(1-16-3-0.9)")
        << "/img/icon-ZP120.png";
    QTest::newRow("Connect:Amp") << "description-connectamp-zp120-fw28.1.xml"
                                 << "Sonos CONNECT:AMP"
                                 << "uuid:RINCON_000E58300F2001400"
                                 << "Piscine - CONNECT:AMP" << I(3) << I(-1) << I(32) << F(60.0f)
                                 << S("OTP: 1.1.1(1-16-3-0.9)") << "/img/icon-ZP120.png";
    QTest::newRow("One, browser copy")
        << "description-one-s18-fw66.4-browser-copy.xml"
        << "Sonos One"
        << "uuid:RINCON_48A6B888B19601400"
        << "Sonos One - One" << I(20) << I(5) << I(1024) << F() << S("") << "/img/icon-S18.png";
    QTest::newRow("Playbar with placeholders")
        << "description-playbar-s9-fw57.4-unfilled-placeholders.xml"
        << "Sonos Playbar"
        << "uuid:RINCON_949F0000A901400"
        << "TV - Playbar" << I(10) << I(6) << I(128) << F(50.0f) << S("OTP: ")
        << "/img/icon-S9.png";
}

void TestDescriptionParser::realDescriptions()
{
    QFETCH(QString, file);
    const QByteArray body = sharedFixture(file);
    if (body.isEmpty())
        QSKIP("The shared fixtures folder is not beside the repository");
    QFETCH(QString, modelName);
    QFETCH(QString, udn);
    QFETCH(QString, defaultName);
    QFETCH(std::optional<qint64>, zoneType);
    QFETCH(std::optional<qint64>, internalSpeakerSize);
    QFETCH(std::optional<qint64>, memory);
    QFETCH(std::optional<float>, bassExtension);
    QFETCH(std::optional<QString>, extraVersion);
    QFETCH(QString, iconUrl);
    const auto info =
        DescriptionParser::parseDeviceDescription(body, location, QStringLiteral("S"));
    QVERIFY(info);
    QCOMPARE(info->location, location);
    QCOMPARE(*info->server, QStringLiteral("S"));
    QCOMPARE(*info->deviceType, QStringLiteral("urn:schemas-upnp-org:device:ZonePlayer:1"));
    QCOMPARE(*info->manufacturer, QStringLiteral("Sonos, Inc."));
    QCOMPARE(*info->manufacturerURL, QUrl(QStringLiteral("http://www.sonos.com")));
    QCOMPARE(*info->modelName, modelName);
    QCOMPARE(*info->udn, udn);
    QCOMPARE(info->defaultName(), defaultName);
    QCOMPARE(info->zoneType, zoneType);
    QCOMPARE(info->internalSpeakerSize, internalSpeakerSize);
    QCOMPARE(info->memory, memory);
    QCOMPARE(info->bassExtension, bassExtension);
    QCOMPARE(info->extraVersion, extraVersion);
    QVERIFY(!info->flashRepartitioned);
    QCOMPARE(info->iconList.size(), 1u);
    QCOMPARE(*info->iconList[0]->url, location.resolved(QUrl(iconUrl)));
    QCOMPARE(*info->iconList[0]->width, 48);
}

void TestDescriptionParser::onlyTopLevelDeviceDescribesThePlayer()
{
    // The media renderer sub-device has its own UDN, name and icon list.
    const auto info = DescriptionParser::parseDeviceDescription(
        description("<modelName>Sonos One</modelName><deviceList><device><UDN>uuid:X_MR</UDN>"
                    "<roomName>Sub</roomName><iconList><icon/></iconList></device></deviceList>"),
        location, std::nullopt);
    QVERIFY(info);
    QVERIFY(!info->udn && !info->roomName && !info->server);
    QVERIFY(info->iconList.empty());
    QCOMPARE(info->defaultName(), QStringLiteral("192.0.2.10"));
}

void TestDescriptionParser::iconUrls_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QByteArray>("icon");
    QTest::addColumn<std::optional<QUrl>>("url");
    using U = std::optional<QUrl>;
    QTest::newRow("path on another port")
        << "http://192.0.2.10:8080/d.xml" << QByteArray("<url>/img/icon.png</url>")
        << U(QUrl("http://192.0.2.10:8080/img/icon.png"));
    QTest::newRow("absolute stays")
        << "http://192.0.2.10:1400/d.xml" << QByteArray("<url>http://198.51.100.1/i.png</url>")
        << U(QUrl("http://198.51.100.1/i.png"));
    QTest::newRow("relative to the document")
        << "http://192.0.2.10:1400/xml/d.xml" << QByteArray("<url>i.png</url>")
        << U(QUrl("http://192.0.2.10:1400/xml/i.png"));
    QTest::newRow("empty") << "http://192.0.2.10:1400/d.xml" << QByteArray("<url/>") << U();
    QTest::newRow("missing") << "http://192.0.2.10:1400/d.xml" << QByteArray("<id>1</id>") << U();
    QTest::newRow("not a URL") << "http://192.0.2.10:1400/d.xml"
                               << QByteArray("<url>http://[x</url>") << U();
}

void TestDescriptionParser::iconUrls()
{
    QFETCH(QString, base);
    QFETCH(QByteArray, icon);
    QFETCH(std::optional<QUrl>, url);
    const auto info = DescriptionParser::parseDeviceDescription(
        description("<iconList><icon>" + icon + "</icon><whatever/></iconList>"), QUrl(base),
        std::nullopt);
    QVERIFY(info);
    QCOMPARE(info->iconList.size(), 2u); // every child element is an icon, whatever its name
    QCOMPARE(info->iconList[0]->url, url);
    QVERIFY(!info->iconList[1]->url && !info->iconList[1]->id && !info->iconList[1]->mimetype);
}

void TestDescriptionParser::modelUrlsAreNotResolved()
{
    const auto info = DescriptionParser::parseDeviceDescription(
        description(
            "<modelURL>/products/S3</modelURL><manufacturerURL>http://x y</manufacturerURL>"),
        location, std::nullopt);
    QVERIFY(info);
    QCOMPARE(*info->modelURL, QUrl(QStringLiteral("/products/S3")));
    QVERIFY(!info->manufacturerURL);
}

void TestDescriptionParser::notADescription_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("HTML error page") << QByteArray(
        "<html><head><title>404 Not Found</title></head><body>Not found</body></html>");
    QTest::newRow("garbage") << QByteArray("\x01\x02garbage\xff");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("root without device") << QByteArray("<root><specVersion/></root>");
    QTest::newRow("device not under root")
        << QByteArray("<device><modelName>x</modelName></device>");
}

void TestDescriptionParser::notADescription()
{
    QFETCH(QByteArray, body);
    QVERIFY(!DescriptionParser::parseDeviceDescription(body, location, std::nullopt));
}

void TestDescriptionParser::brokenDocumentKeepsWhatWasRead()
{
    const auto info = DescriptionParser::parseDeviceDescription(
        "<root><device><roomName>Den</roomName><displayName>One</displayName><zoneType>9</zo",
        location, std::nullopt);
    QVERIFY(info);
    QCOMPARE(info->defaultName(), QStringLiteral("Den - One"));
}

void TestDescriptionParser::hostileDocumentsStayCheap()
{
    QByteArray deep = "<root><device><roomName>Deep</roomName>";
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    const auto deepInfo = DescriptionParser::parseDeviceDescription(deep, location, std::nullopt);
    QVERIFY(deepInfo);
    QCOMPARE(*deepInfo->roomName, QStringLiteral("Deep"));

    const QByteArray bomb = R"(<?xml version="1.0"?><!DOCTYPE lolz [<!ENTITY lol "lol">)"
                            R"(<!ENTITY lol2 "&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;">)"
                            R"(<!ENTITY lol3 "&lol2;&lol2;&lol2;&lol2;&lol2;&lol2;&lol2;&lol2;">]>)"
                            R"(<root><device><roomName>&lol3;</roomName></device></root>)";
    const auto bombInfo = DescriptionParser::parseDeviceDescription(bomb, location, std::nullopt);
    QVERIFY(bombInfo);
    QVERIFY(bombInfo->roomName->size() < 100); // entities are never expanded
}

void TestDescriptionParser::topology_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("coordinator");
    QTest::addColumn<QString>("group");
    const QString key = QStringLiteral("RINCON_A");
    QTest::newRow("member")
        << topologyDocument(
               "<ZonePlayer uuid='RINCON_A' coordinator='false' group='G1'>A</ZonePlayer>")
        << false << "G1";
    QTest::newRow("coordinator")
        << topologyDocument("<ZonePlayer uuid='RINCON_A' coordinator='true' group='G1'/>") << true
        << "G1";
    QTest::newRow("other players only")
        << topologyDocument("<ZonePlayer uuid='RINCON_B' coordinator='false' group='G1'/>") << true
        << key;
    QTest::newRow("first usable entry wins")
        << topologyDocument("<ZonePlayer uuid='RINCON_A' coordinator='false'/>"
                            "<ZonePlayer uuid='RINCON_A' coordinator='false' group='G2'/>"
                            "<ZonePlayer uuid='RINCON_A' coordinator='true' group='G3'/>")
        << false << "G2";
    QTest::newRow("prefixed uuid does not match")
        << topologyDocument("<ZonePlayer uuid='uuid:RINCON_A' coordinator='false' group='G1'/>")
        << true << key;
    QTest::newRow("case differs")
        << topologyDocument("<ZonePlayer uuid='rincon_a' coordinator='false' group='G1'/>") << true
        << key;
    QTest::newRow("coordinator not a boolean")
        << topologyDocument("<ZonePlayer uuid='RINCON_A' coordinator='yes' group='G1'/>") << true
        << key;
    QTest::newRow("no ZonePlayers (current firmware)")
        << QByteArray("<ZPSupportInfo/>") << true << key;
    QTest::newRow("error page") << QByteArray("<html><body>Error 404</body></html>") << true << key;
    QTest::newRow("not XML") << QByteArray("nothing here") << true << key;
    QTest::newRow("empty group kept")
        << topologyDocument("<ZonePlayer uuid='RINCON_A' coordinator='true' group=''/>") << true
        << "";
}

void TestDescriptionParser::topology()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, coordinator);
    QFETCH(QString, group);
    const DeviceTopology result =
        DescriptionParser::parseTopology(body, QStringLiteral("RINCON_A"));
    QCOMPARE(result.coordinator, coordinator);
    QCOMPARE(result.group, group);
}

void TestDescriptionParser::realTopology()
{
    const QByteArray body = sharedFixture(QStringLiteral("topology-2players-1group-fw28.1.xml"));
    if (body.isEmpty())
        QSKIP("The shared fixtures folder is not beside the repository");
    const auto kitchen =
        DescriptionParser::parseTopology(body, QStringLiteral("RINCON_000E58F3F87C01400"));
    QCOMPARE(kitchen.coordinator, true);
    QCOMPARE(kitchen.group, QStringLiteral("RINCON_000E58F3F87C01400:10"));
    const auto living =
        DescriptionParser::parseTopology(body, QStringLiteral("RINCON_000E5874AA8601400"));
    QCOMPARE(living.coordinator, false);
    QCOMPARE(living.group, QStringLiteral("RINCON_000E58F3F87C01400:10"));
    const auto stranger = DescriptionParser::parseTopology(body, location.toString());
    QCOMPARE(stranger.coordinator, true);
    QCOMPARE(stranger.group, location.toString());
}

QTEST_GUILESS_MAIN(TestDescriptionParser)
#include "TestDescriptionParser.moc"
