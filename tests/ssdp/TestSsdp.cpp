// SPDX-License-Identifier: GPL-3.0-or-later
#include "BuildConfig.h"
#include "SSDPDiscovery.h"
#include "SSDPMessages.h"
#include "TestSupport.h"

namespace {
const QByteArray playerResponse =
    "HTTP/1.1 200 OK\r\n"
    "CACHE-CONTROL: max-age = 1800\r\n"
    "EXT:\r\n"
    "LOCATION: http://192.0.2.10:1400/xml/device_description.xml\r\n"
    "SERVER: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n"
    "ST: urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
    "USN: uuid:RINCON_A01400::urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
    "\r\n";
} // namespace

class TestSsdp : public QObject
{
    Q_OBJECT

private slots:
    void mSearchBytes();
    void responses_data();
    void responses();
    void realCaptures_data();
    void realCaptures();
    void searchesOnlyWhereAnswersCanCome();
    void announcements_data();
    void announcements();
};

void TestSsdp::mSearchBytes()
{
    SSDPMSearchRequest request;
    request.searchTarget =
        SSDPSearchTarget::deviceType(SSDPSearchTarget::upnpOrgSchema, "ZonePlayer", 1);
    QCOMPARE(request.datagram(),
             QByteArray("M-SEARCH * HTTP/1.1\r\n"
                        "HOST: 239.255.255.250:1900\r\n"
                        "MAN: \"ssdp:discover\"\r\n"
                        "MX: 1\r\n"
                        "ST: urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
                        "USER-AGENT: Linux UPnP/1.1 Corvel/" CORVEL_VERSION "\r\n\r\n"));
}

void TestSsdp::responses_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<int>("kind"); // -1 ignored, 0 device, 1 service
    for (const QStringList &column : tableRows(QStringLiteral("ssdp/responses.txt"), 3))
        QTest::addRow("%s", qPrintable(column[0])) << unescaped(column[1]) << column[2].toInt();
    for (const int over : {0, 1, 9000}) // padded after its end to the largest size, and over
        QTest::addRow("%d over the largest", over)
            << playerResponse.leftJustified(SSDPMSearchResponse::maxDatagramSize + over)
            << (over ? -1 : 0);
}

void TestSsdp::responses()
{
    QFETCH(QByteArray, datagram);
    QFETCH(int, kind);
    QString reason;
    const auto response = SSDPMSearchResponse::parse(datagram, &reason);
    QCOMPARE(response.has_value(), kind >= 0);
    if (!response) {
        QVERIFY(!reason.isEmpty());
        return;
    }
    QCOMPARE(int(response->kind), kind);
    QCOMPARE(response->location, QUrl("http://192.0.2.10:1400/xml/device_description.xml"));
    QCOMPARE(*response->server, QStringLiteral("Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)"));
    QCOMPARE(*response->header("cache-control"), QStringLiteral("max-age = 1800"));
    QVERIFY(response->header("EXT")->isEmpty() && response->raw == datagram); // EXT is empty
}

void TestSsdp::realCaptures_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("locations"); // of the player responses, in order
    QTest::newRow("two Play:1, the second without its empty line")
        << "ssdp-responses-two-play1.http"
        << QStringList{"http://192.168.7.105:1400/xml/device_description.xml",
                       "http://192.168.7.103:1400/xml/device_description.xml"};
    QTest::newRow("Sonos among another vendor, mixed line ends")
        << "ssdp-responses-sonos-and-belkin-mixed-eol.http"
        << QStringList{"http://192.168.11.5:1400/xml/device_description.xml",
                       "http://192.168.11.77:1400/xml/device_description.xml"};
    QTest::newRow("NOTIFY is not a response")
        << "ssdp-notify-alive-uuid-zps12-fw66.4.txt" << QStringList{};
}

void TestSsdp::realCaptures()
{
    QFETCH(QString, file);
    QFETCH(QStringList, locations);
    QByteArray capture = testData(QStringLiteral("captures/") + file);
    // A capture holds datagrams back to back, each starting with its start line.
    QStringList found;
    for (QByteArray datagram : capture.replace("\nHTTP/1.1 ", "\n\x01HTTP/1.1 ").split('\x01')) {
        if (const auto response = SSDPMSearchResponse::parse(datagram, nullptr)) {
            QCOMPARE(response->kind, SSDPMSearchResponse::Kind::Device);
            QVERIFY(response->server->startsWith(QStringLiteral("Linux UPnP/1.0 Sonos/")));
            found << response->location.toString();
        }
    }
    QCOMPARE(found, locations);
}

void TestSsdp::searchesOnlyWhereAnswersCanCome()
{
    using F = QNetworkInterface;
    QVERIFY(SSDPDiscovery::searchesOn(F::IsUp | F::IsRunning | F::CanMulticast | F::IsLoopBack));
    QVERIFY(!SSDPDiscovery::searchesOn(F::IsUp | F::CanMulticast)); // no carrier
    QVERIFY(!SSDPDiscovery::searchesOn(F::IsRunning | F::CanMulticast));
    QVERIFY(!SSDPDiscovery::searchesOn(F::IsUp | F::IsRunning));
}

void TestSsdp::announcements_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QString>("kind"); // NTS, or empty when refused
    // A real alive, of the player's type rather than its UUID.
    const QByteArray alive =
        testData(QStringLiteral("captures/ssdp-notify-alive-uuid-zps12-fw66.4.txt"))
            .replace("NT: uuid:RINCON_949F3E7580FA01400",
                     "NT: urn:schemas-upnp-org:device:ZonePlayer:1");
    QByteArray byebye = QByteArray(alive).replace("ssdp:alive", "ssdp:byebye");
    byebye.replace("LOCATION: http://192.168.1.51:1400/xml/device_description.xml\r\n", "");
    QTest::newRow("alive") << alive << "ssdp:alive";
    QTest::newRow("byebye needs no LOCATION") << byebye << "ssdp:byebye";
    QTest::newRow("alive without LOCATION")
        << QByteArray(byebye).replace("ssdp:byebye", "ssdp:alive") << "";
    QTest::newRow("no NTS") << QByteArray(alive).replace("NTS:", "X-NTS:") << "";
    QTest::newRow("a search response") << playerResponse << "";
}

void TestSsdp::announcements()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QString, kind);
    const auto announcement = SSDPMSearchResponse::parseAnnouncement(datagram, nullptr);
    QCOMPARE(announcement ? announcement->announcement : QString(), kind);
    if (!announcement)
        return;
    QCOMPARE(announcement->isByeBye(), kind == "ssdp:byebye");
    QCOMPARE(announcement->searchTarget,
             QStringLiteral("urn:schemas-upnp-org:device:ZonePlayer:1"));
    QCOMPARE(announcement->udn(), QStringLiteral("uuid:RINCON_949F3E7580FA01400"));
    QCOMPARE(announcement->location.isEmpty(), announcement->isByeBye());
}

QTEST_GUILESS_MAIN(TestSsdp)
#include "TestSsdp.moc"
