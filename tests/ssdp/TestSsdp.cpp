// SPDX-License-Identifier: GPL-3.0-or-later
#include "BuildConfig.h"
#include "SSDPMessages.h"
#include "TestSupport.h"

namespace {
// A capture file holds several datagrams back to back; each starts with its start line.
QList<QByteArray> splitCapture(const QByteArray &capture)
{
    QList<QByteArray> datagrams;
    qsizetype start = 0;
    while (start < capture.size()) {
        qsizetype next = capture.size();
        for (const QByteArray &startLine : {QByteArray("\nHTTP/1.1 "), QByteArray("\nNOTIFY ")}) {
            const qsizetype at = capture.indexOf(startLine, start + 1);
            if (at >= 0 && at + 1 < next)
                next = at + 1;
        }
        datagrams << capture.mid(start, next - start);
        start = next;
    }
    return datagrams;
}

const QByteArray playerResponse =
    "HTTP/1.1 200 OK\r\n"
    "CACHE-CONTROL: max-age = 1800\r\n"
    "EXT:\r\n"
    "LOCATION: http://192.0.2.10:1400/xml/device_description.xml\r\n"
    "SERVER: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n"
    "ST: urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
    "USN: uuid:RINCON_A01400::urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
    "X-RINCON-HOUSEHOLD: Sonos_x\r\n"
    "\r\n";
} // namespace

class TestSsdp : public QObject
{
    Q_OBJECT

private slots:
    void mSearchBytes();
    void responses_data();
    void responses();
    void headersAreCaseInsensitiveAndTrimmed();
    void realCaptures_data();
    void realCaptures();
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
                        "USER-AGENT: Linux UPnP/1.1 Corvel/" CORVEL_VERSION "\r\n"
                        "\r\n"));
}

void TestSsdp::responses_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<int>("kind"); // -1 ignored, 0 device, 1 service
    QTest::newRow("player, CR LF") << playerResponse << 0;
    QByteArray lf = playerResponse;
    lf.replace("\r\n", "\n");
    QTest::newRow("player, LF only") << lf << 0;
    QByteArray noEnd = playerResponse;
    noEnd.chop(2);
    QTest::newRow("no final empty line") << noEnd << 0;
    QByteArray service = playerResponse;
    service.replace("device:ZonePlayer", "service:AVTransport");
    QTest::newRow("service response") << service << 1;
    QByteArray usnOnly = playerResponse;
    usnOnly.replace("ST: urn:schemas-upnp-org:device:ZonePlayer:1", "ST: ssdp:all");
    QTest::newRow("type from the USN") << usnOnly << 0;
    QByteArray rootDevice = playerResponse;
    rootDevice.replace("ST: urn:schemas-upnp-org:device:ZonePlayer:1", "ST: upnp:rootdevice")
        .replace("::urn:schemas-upnp-org:device:ZonePlayer:1", "::upnp:rootdevice");
    QTest::newRow("root device") << rootDevice << -1;
    QByteArray noLocation = playerResponse;
    noLocation.replace("LOCATION: http://192.0.2.10:1400/xml/device_description.xml\r\n", "");
    QTest::newRow("no LOCATION") << noLocation << -1;
    QByteArray https = playerResponse;
    https.replace("LOCATION: http:", "LOCATION: https:");
    QTest::newRow("https LOCATION") << https << -1;
    QByteArray badUrl = playerResponse;
    badUrl.replace("192.0.2.10:1400", "[192.0.2.10");
    QTest::newRow("broken LOCATION") << badUrl << -1;
    QByteArray notify = playerResponse;
    notify.replace("HTTP/1.1 200 OK", "NOTIFY * HTTP/1.1");
    QTest::newRow("NOTIFY") << notify << -1;
    QByteArray error = playerResponse;
    error.replace("200 OK", "404 Not Found");
    QTest::newRow("error status") << error << -1;
    QByteArray belkin = playerResponse;
    belkin.replace("urn:schemas-upnp-org:device:ZonePlayer:1", "urn:Belkin:device:**");
    QTest::newRow("other vendor") << belkin << -1;
    QTest::newRow("garbage") << QByteArray("\x00\xff\x13garbage", 10) << -1;
    QTest::newRow("oversized") << playerResponse + QByteArray(9000, 'x') << -1;
    QTest::newRow("search request")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST: ssdp:all\r\n\r\n") << -1;
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
    QCOMPARE(response->raw, datagram);
}

void TestSsdp::headersAreCaseInsensitiveAndTrimmed()
{
    const auto response =
        SSDPMSearchResponse::parse("HTTP/1.1 200 OK\r\n"
                                   "location:   http://192.0.2.3:1400/d.xml  \r\n"
                                   "st:urn:schemas-upnp-org:device:ZonePlayer:1\r\n"
                                   "Cache-Control: max-age = 1800\r\n"
                                   "EXT:\r\n"
                                   "not a header line\r\n"
                                   "\r\n",
                                   nullptr);
    QVERIFY(response);
    QCOMPARE(response->location, QUrl("http://192.0.2.3:1400/d.xml"));
    QVERIFY(!response->server);
    QCOMPARE(*response->header("CACHE-CONTROL"), QStringLiteral("max-age = 1800"));
    QCOMPARE(*response->header("ext"), QString());
    QCOMPARE(response->headers.size(), 4);
    QVERIFY(response->description().contains("http://192.0.2.3:1400/d.xml"));
}

void TestSsdp::realCaptures_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("locations"); // of the device responses, in order
    QTest::newRow("two Play:1") << "ssdp-responses-two-play1.http"
                                << QStringList{
                                       "http://192.168.7.105:1400/xml/device_description.xml",
                                       "http://192.168.7.103:1400/xml/device_description.xml"};
    QTest::newRow("Sonos among another vendor")
        << "ssdp-responses-sonos-and-belkin-mixed-eol.http"
        << QStringList{"http://192.168.11.5:1400/xml/device_description.xml",
                       "http://192.168.11.77:1400/xml/device_description.xml"};
    QTest::newRow("Connect:Amp") << "ssdp-response-connectamp-zp120-fw57.3.txt" << QStringList{"*"};
    QTest::newRow("Play:1") << "ssdp-response-play1-zps1-fw57.3.txt" << QStringList{"*"};
    QTest::newRow("proxied Play:3")
        << "ssdp-response-play3-zps3-proxied-fw57.3.txt"
        << QStringList{"http://172.16.210.2:1400/xml/device_description.xml"};
    QTest::newRow("NOTIFY is not a response")
        << "ssdp-notify-alive-uuid-zps12-fw66.4.txt" << QStringList{};
}

void TestSsdp::realCaptures()
{
    QFETCH(QString, file);
    QFETCH(QStringList, locations);
    const QByteArray capture = testData(QStringLiteral("captures/") + file);
    QVERIFY(!capture.isEmpty());
    QStringList found;
    for (const QByteArray &datagram : splitCapture(capture)) {
        const auto response = SSDPMSearchResponse::parse(datagram, nullptr);
        if (!response)
            continue;
        QCOMPARE(response->kind, SSDPMSearchResponse::Kind::Device);
        QCOMPARE(response->searchTarget,
                 QStringLiteral("urn:schemas-upnp-org:device:ZonePlayer:1"));
        QVERIFY(response->server->startsWith(QStringLiteral("Linux UPnP/1.0 Sonos/")));
        QVERIFY(response->header("X-RINCON-HOUSEHOLD"));
        found << response->location.toString();
    }
    if (locations == QStringList{"*"}) {
        QCOMPARE(found.size(), 1);
        QVERIFY(found[0].endsWith(":1400/xml/device_description.xml"));
    } else {
        QCOMPARE(found, locations);
    }
}

QTEST_GUILESS_MAIN(TestSsdp)
#include "TestSsdp.moc"
