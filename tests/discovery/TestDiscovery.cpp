// SPDX-License-Identifier: GPL-3.0-or-later
// The description and topology parsers on real captures (each beside the JSON record it must
// give), and the discovery pipeline over real sockets against a simulated household, inside a
// private network namespace.
#include "DescriptionParser.h"
#include "DeviceDiscovery.h"
#include "HttpGet.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "SpeakerSimulator.h"
#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>

#include <cmath>
#include <QJsonDocument>

namespace {
const QUrl location(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));

QByteArray topologyDocument(const QByteArray &entries)
{
    return "<ZPSupportInfo type='User'><ZonePlayers>" + entries + "</ZonePlayers></ZPSupportInfo>";
}

const QStringList discoveryEvents = {Notifications::discoveryStarted,
                                     Notifications::deviceDiscovered,
                                     Notifications::discoveryComplete};

// The speakers the recorded "deviceDiscovered" events carry.
std::vector<std::pair<DeviceInfo, DeviceTopology>> speakers(const EventRecorder &events)
{
    std::vector<std::pair<DeviceInfo, DeviceTopology>> out;
    for (const Notification &n : events.notifications) {
        if (const auto speaker = discoveredSpeaker(n))
            out.push_back(*speaker);
    }
    return out;
}
} // namespace

class TestDiscovery : public QObject
{
    Q_OBJECT

private slots:
    void numbers_data();
    void numbers();
    void realDescriptions_data();
    void realDescriptions();
    void notADescriptionAndHostileDocuments();
    void topology_data();
    void topology();
    void searchesAHousehold();
    void searchLifecycle();
    void playerFaults_data();
    void playerFaults();
    void answerFloodIsBounded();
    void believedSpeakersAreBounded_data();
    void believedSpeakersAreBounded();
    void keepsWatching();
    void anUnheardSpeakerIsAskedBeforeItLeaves_data();
    void anUnheardSpeakerIsAskedBeforeItLeaves();
    void httpFraming_data();
    void httpFraming();
};

void TestDiscovery::numbers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<std::optional<qint64>>("integer");
    QTest::addColumn<std::optional<float>>("real");
    for (const QStringList &column : tableRows(QStringLiteral("discovery/numbers.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0]))
            << column[1]
            << (column[2] == "-" ? std::nullopt : std::optional(column[2].toLongLong()))
            << (column[3] == "-" ? std::nullopt : std::optional(column[3].toFloat()));
}

void TestDiscovery::numbers()
{
    QFETCH(QString, text);
    QFETCH(std::optional<qint64>, integer);
    QFETCH(std::optional<float>, real);
    QCOMPARE(DescriptionParser::parseInteger(text), integer);
    QCOMPARE(DescriptionParser::parseFloat(text), real);
}

void TestDiscovery::realDescriptions_data()
{
    QTest::addColumn<QString>("file");
    for (const QString &name : QDir(CORVEL_TEST_DATA "/captures").entryList({"description-*.xml"}))
        QTest::newRow(qPrintable(name)) << "captures/" + name.chopped(4);
}

void TestDiscovery::realDescriptions()
{
    // Each capture beside the record it must give.
    QFETCH(QString, file);
    const QByteArray body = testData(file + QStringLiteral(".xml"));
    const auto info =
        DescriptionParser::parseDeviceDescription(body, location, QStringLiteral("S"));
    QVERIFY(info);
    QCOMPARE(QJsonDocument(info->toJson()),
             QJsonDocument::fromJson(testData(file + QStringLiteral(".json"))));
}

void TestDiscovery::notADescriptionAndHostileDocuments()
{
    for (const QByteArray &body :
         {QByteArray("<html><title>404 Not Found</title></html>"), QByteArray("\x01garbage\xff"),
          QByteArray(), QByteArray("<device><modelName>x</modelName></device>")})
        QVERIFY2(!DescriptionParser::parseDeviceDescription(body, location, {}), body.constData());
    // Only the top device describes the player; a broken document keeps what was read.
    const auto broken = DescriptionParser::parseDeviceDescription(
        "<root><device><roomName>Den</roomName><displayName>One</displayName><deviceList><device>"
        "<UDN>uuid:X_MR</UDN></device></deviceList><zoneType>9</zo",
        location, std::nullopt);
    QVERIFY(broken && !broken->udn && !broken->server);
    QCOMPARE(broken->defaultName(), QStringLiteral("Den - One"));
    // A bad icon URL is dropped.
    const auto icons = DescriptionParser::parseDeviceDescription(
        "<root><device><iconList><icon><url>http://[x</url></icon></iconList></device></root>",
        location, {});
    QVERIFY(!icons->iconList[0]->url);
    // Thousands of icons keep the first few.
    QByteArray many = "<root><device><iconList>";
    for (int i = 0; i < 5000; ++i)
        many += "<icon><url>/i" + QByteArray::number(i) + ".png</url></icon>";
    const auto capped = DescriptionParser::parseDeviceDescription(
        many + "</iconList></device></root>", location, {});
    QVERIFY(capped->iconList.size() == DescriptionParser::maxIcons &&
            capped->iconList.back()->url->path() == QStringLiteral("/i15.png"));
    // Only plain HTTP to a host is fetched.
    std::optional<HttpGet::Result> refused;
    HttpGet::start(
        QUrl("https://127.0.0.1/x"), 1000, 1, [&](auto r) { refused = r; }, nullptr);
    CORVEL_WAIT(refused && refused->error == QStringLiteral("Unsupported URL"));
}

void TestDiscovery::topology_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("udn");
    QTest::addColumn<bool>("coordinator");
    QTest::addColumn<QString>("group");
    for (const QStringList &column : tableRows(QStringLiteral("discovery/topology.txt"), 5)) {
        const QByteArray text = column[1].toUtf8();
        QTest::addRow("%s", qPrintable(column[0]))
            << (text.endsWith(".xml")                       ? testData("captures/" + column[1])
                : text.toLower().startsWith("<zoneplayer ") ? topologyDocument(text)
                                                            : text)
            << column[2] << (column[3] == "true") << column[4];
    }
}

void TestDiscovery::topology()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, udn);
    QFETCH(bool, coordinator);
    QFETCH(QString, group);
    const DeviceTopology result = DescriptionParser::parseTopology(body, udn);
    QVERIFY2(result.coordinator == coordinator && result.group == group, qPrintable(result.group));
    DeviceInfo info;
    info.location = location;
    info.udn = QStringLiteral("uuid:A\nuuid:B");
    QCOMPARE(DescriptionParser::udnKey(info), QStringLiteral("A\nB")); // every line start
    info.udn.reset();
    QCOMPARE(DescriptionParser::udnKey(info), location.toString());
}

void TestDiscovery::searchesAHousehold()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    auto household = SpeakerSimulator::household(5, 2, true);
    household[2].fault = SimulatedPlayer::Description404;
    household[3].fault = SimulatedPlayer::TopologyMissing;
    household[4].answersPerSearch = 2;
    SpeakerSimulator simulator(household);
    QString error;
    QVERIFY2(simulator.start(&error), qPrintable(error));
    DeviceDiscovery discovery;
    EventRecorder events(discoveryEvents);
    LogCapture capture;
    const auto proxy = unusableProxy();
    discovery.searchForDevices(2.6); // sent again after a second, and only once
    QVERIFY(discovery.session() && events.names() == QStringList{"discoveryStarted"});
    // One player answers each search twice: every player is still described once, but a
    // failed one is tried again on its next answer.
    CORVEL_WAIT(events.count("discoveryComplete") == 1);
    QVERIFY(events.count("deviceDiscovered") == 4 && simulator.searchesReceived() == 2);
    QCOMPARE(capture.count("Info - Fetching XML from " + household[4].location().toString()), 1);
    QCOMPARE(capture.count("Info - Fetching XML from " + household[2].location().toString()), 2);
    QVERIFY(!discovery.session() && discovery.devices().size() == 4u);
    const QList<std::pair<int, QString>> groups = {
        {0, "GROUP_0:1"}, {1, "GROUP_1:2"}, {3, household[3].udn}, {4, "GROUP_0:1"}};
    const auto announced = speakers(events);
    for (const auto &[index, group] : groups) {
        const SimulatedPlayer &player = household[size_t(index)];
        const auto found = std::find_if(announced.begin(), announced.end(), [&](const auto &s) {
            return s.first.location == player.location();
        });
        QVERIFY2(found != announced.end(), qPrintable(player.roomName));
        QCOMPARE(*found->first.udn, QStringLiteral("uuid:") + player.udn);
        QCOMPARE(found->first.iconList[0]->url->host(), player.address.toString());
        QCOMPARE(found->second.coordinator, index != 4);
        QCOMPARE(found->second.group, group);
    }
    const QString boost = household[5].location().toString();
    QVERIFY(capture.has("Info - Ignoring BOOST device at " + boost));
    QVERIFY(capture.has("Warning SSDP fetchDeviceInfo failed: The operation couldn't be "
                        "completed. (InvalidDeviceXMLErrorDomain error -1.)"));
    QVERIFY(capture.has("Info - Received a response from http://127.0.1.1:1400/status/topology"));
    QCOMPARE(capture.count("Error - Failed to fetch topology"), 0); // a missing one is quiet
    const QString closed = capture.lines().filter(" closedSession(SSDP").value(0); // its end
    QVERIFY(closed.endsWith(", urn:schemas-upnp-org:device:ZonePlayer:1, from 127.0.0.1))"));
}

void TestDiscovery::searchLifecycle()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    QVERIFY(!DeviceDiscovery::shared().session()); // made on first use when none was
    DeviceDiscovery discovery;
    EventRecorder events(discoveryEvents);
    LogCapture capture;
    discovery.stopSearching(); // idle: completes once
    QCOMPARE(events.names(), QStringList{"discoveryComplete"});
    QVERIFY(capture.has("Info SSDP stopSearching"));
    events.notifications.clear();
    discovery.searchForDevices(0.3);
    SSDPDiscoverySession *first = discovery.session();
    discovery.searchForDevices(0.3); // closes the first without a completion
    QVERIFY(discovery.session() && discovery.session() != first);
    discovery.stopSearching();
    QTest::qWait(500); // past the time-out: closed sessions report nothing more
    QCOMPARE(events.names(),
             QStringList({"discoveryStarted", "discoveryStarted", "discoveryComplete"}));
    // With no interface that can multicast, a search ends at once and watching hears nothing.
    QCOMPARE(QProcess::execute("ip", {"link", "set", "lo", "multicast", "off"}), 0);
    discovery.searchForDevices(0.3);
    discovery.startWatching();
    QProcess::execute("ip", {"link", "set", "lo", "multicast", "on"});
    QCOMPARE(capture.count("Warning SSDP Not listening for announcements: no interface could"), 1);
    QVERIFY(capture.has("Error SSDP Failed to establish socket for M-SEARCH broadcasts: no network "
                        "interface is up and able to multicast"));
    QCOMPARE(events.names().mid(3), QStringList{"discoveryComplete"});
}

void TestDiscovery::playerFaults_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<bool>("announced");
    QTest::addColumn<QString>("line");
    for (const QStringList &column : tableRows(QStringLiteral("discovery/player-faults.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0]))
            << int(*SpeakerSimulator::faultFromName(column[1])) << (column[2] == "yes")
            << column[3];
}

void TestDiscovery::playerFaults()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    QFETCH(int, fault);
    QFETCH(bool, announced);
    QFETCH(QString, line);
    auto household = SpeakerSimulator::household(1, 1);
    household[0].fault = SimulatedPlayer::Fault(fault);
    SpeakerSimulator simulator(household);
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery;
    discovery.setTransferTimeout(300);
    EventRecorder events(discoveryEvents);
    LogCapture capture;
    discovery.searchForDevices(0.2);
    CORVEL_WAIT(capture.count(line) > 0 && events.count("discoveryComplete") == 1);
    QTest::qWait(100);
    QCOMPARE(events.count("deviceDiscovered"), announced ? 1 : 0);
    QCOMPARE(capture.count("Warning SSDP fetchDeviceInfo failed: "), announced ? 0 : 1);
    if (announced)
        QCOMPARE(speakers(events)[0].second.group, household[0].udn);
}

void TestDiscovery::answerFloodIsBounded()
{
    // 32 fetches at once, 2 per host, 24 for announcements nobody asked for (the newest 64
    // waiting, behind every answer to a search), 1,024 answers per search.
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    QTcpServer silent; // accepts on every loopback address and never answers
    QVERIFY(silent.listen(QHostAddress::AnyIPv4));
    const auto at = [&](const QString &host, const QString &path = QStringLiteral("d.xml")) {
        SSDPMSearchResponse response;
        response.location =
            QUrl(QStringLiteral("http://%1:%2/%3").arg(host).arg(silent.serverPort()).arg(path));
        response.searchTarget = QStringLiteral("urn:schemas-upnp-org:device:ZonePlayer:1");
        response.announcement = QStringLiteral("ssdp:alive");
        return response;
    };
    DeviceDiscovery discovery;
    discovery.setTransferTimeout(600);
    LogCapture capture;
    discovery.searchForDevices(10);
    // A router answering with its own type is not a speaker.
    SSDPMSearchResponse router = at(QStringLiteral("127.0.0.1"));
    router.searchTarget = QStringLiteral("urn:schemas-upnp-org:device:InternetGatewayDevice:1");
    discovery.discoveredDevice(router, discovery.session());
    QVERIFY(capture.has("Debug SSDP Ignoring an answer for another device type: " +
                        router.searchTarget));
    // An answer that names another host than its sender is never fetched; said once.
    SSDPMSearchResponse forged = at(QStringLiteral("127.0.0.1"));
    forged.sender = QHostAddress(QStringLiteral("127.0.0.7"));
    discovery.discoveredDevice(forged, discovery.session());
    discovery.discoveredDevice(forged, discovery.session());
    QCOMPARE(capture.count("Warning SSDP Ignoring SSDP from 127.0.0.7: it speaks for another "
                           "host (http://127.0.0.1:"),
             1);
    const auto fetches = [&](const QString &prefix) {
        return capture.count("Info - Fetching XML from http://" + prefix);
    };
    for (int i = 1; i <= 200; ++i)
        discovery.handleAnnouncement(at(QStringLiteral("127.2.0.%1").arg(i)));
    QCOMPARE(fetches("127.2.0."), DeviceDiscovery::maxUnsolicitedInFlight);
    for (int i = 0; i < 10; ++i)
        discovery.discoveredDevice(at(QStringLiteral("127.0.0.5"), QString::number(i)),
                                   discovery.session());
    QCOMPARE(fetches("127.0.0.5:"), DeviceDiscovery::maxFetchesPerHost);
    for (int i = 1; i <= 10; ++i)
        discovery.discoveredDevice(at(QStringLiteral("127.3.0.%1").arg(i)), discovery.session());
    QCOMPARE(fetches("127.3.0."), 6); // the room left of 32
    // As slots free up, the waiting answers go first, then the newest announcements.
    CORVEL_WAIT(fetches("127.2.0.") == 24 + int(DeviceDiscovery::maxUnsolicitedWaiting));
    const QStringList lines = capture.lines();
    const auto firstIndex = [&](const QString &prefix) {
        for (qsizetype i = 0; i < lines.size(); ++i) {
            if (lines[i].startsWith("Info - Fetching XML from http://" + prefix))
                return i;
        }
        return qsizetype(-1);
    };
    QVERIFY(firstIndex(QStringLiteral("127.3.0.10:")) < firstIndex(QStringLiteral("127.2.0.200:")));
    QVERIFY(firstIndex(QStringLiteral("127.2.0.200:")) <
            firstIndex(QStringLiteral("127.2.0.137:")));
    QCOMPARE(fetches("127.2.0.136:"), 0); // dropped from the full queue
    for (int i = 0; i < DeviceDiscovery::maxAnswersPerSearch; ++i) {
        auto response = at(QStringLiteral("127.1.%1.%2").arg(i / 250).arg(i % 250 + 1));
        response.location.setPort(9); // refused at once
        discovery.discoveredDevice(response, discovery.session());
    }
    QCOMPARE(capture.count("Warning SSDP More than 1024 answers to one search"), 1);
    // 1,024 answers in all: 20 before the flood, then the flood up to its 1,004th.
    CORVEL_WAIT(fetches("127.1.") == DeviceDiscovery::maxAnswersPerSearch - 20);
    QVERIFY(fetches("127.1.4.4:") == 1 && fetches("127.1.4.5:") == 0);
    discovery.stopSearching();
}

void TestDiscovery::believedSpeakersAreBounded_data()
{
    QTest::addColumn<int>("players"); // on one address when few, two fetched at a time
    QTest::newRow("six on one address: four believed") << 6;
    QTest::newRow("more than a household holds, all at once: 256 believed") << 260;
}

void TestDiscovery::believedSpeakersAreBounded()
{
    QFETCH(int, players);
    const bool oneHost = players < 10;
    const size_t believed =
        oneHost ? DeviceDiscovery::maxLocationsPerHost : DeviceDiscovery::maxSpeakersKnown;
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    auto household = SpeakerSimulator::household(players, players);
    for (size_t i = 0; oneHost && i < household.size(); ++i) {
        household[i].address = household[0].address;
        household[i].port = quint16(1400 + i);
    }
    SpeakerSimulator simulator(household);
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery;
    EventRecorder events(discoveryEvents);
    LogCapture capture;
    discovery.searchForDevices(1.3);
    const QString line = oneHost ? "Warning SSDP 127.0.1.1 names more speakers than a player has"
                                 : "Warning SSDP 256 speakers known: describing no new ones";
    CORVEL_WAIT_MS(events.count("discoveryComplete") == 1 &&
                       discovery.devices().size() >= believed && capture.count(line) > 0,
                   30000);
    QVERIFY(discovery.devices().size() == believed && capture.count(line) == 1);
}

void TestDiscovery::keepsWatching()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    DeviceDiscovery discovery;
    EventRecorder events(discoveryEvents + QStringList{Notifications::deviceDeparted});
    LogCapture capture;
    { // the announcements' socket takes no proxy either
        const auto proxy = unusableProxy();
        discovery.startWatching();
        discovery.stopWatching(); // a watch started again still hears the network change
        discovery.startWatching();
    }
    // Players coming up announce themselves: each is described, with no search.
    SpeakerSimulator simulator(SpeakerSimulator::household(2, 1));
    QVERIFY(simulator.start(nullptr));
    CORVEL_WAIT(events.count("deviceDiscovered") == 2);
    QVERIFY(simulator.searchesReceived() == 0 && !answeredASearch(events.notifications.last()));
    simulator.announce(0, "ssdp:alive"); // nothing new: not described again
    simulator.announce(1, "ssdp:update");
    CORVEL_WAIT(events.count("deviceDiscovered") == 3);
    simulator.players()[0].bootSeq = 13; // restarted: described again
    simulator.announce(0, "ssdp:alive");
    CORVEL_WAIT(events.count("deviceDiscovered") == 4);
    // A goodbye counts only from the player itself.
    SSDPMSearchResponse forged;
    forged.announcement = QStringLiteral("ssdp:byebye");
    forged.searchTarget = discovery.searchTarget().text;
    forged.usn = QStringLiteral("uuid:") + simulator.players()[1].udn + QStringLiteral("::x");
    forged.sender = QHostAddress(QStringLiteral("127.0.0.99"));
    discovery.handleAnnouncement(forged);
    simulator.announce(0, "ssdp:byebye");
    CORVEL_WAIT(events.count("deviceDeparted") == 1);
    QCOMPARE(events.count("deviceDiscovered"), 4);
    QCOMPARE(events.notifications.last().userInfo.value(UserInfoKey::location).toUrl(),
             simulator.players()[0].location());
    // An address appears: a background search finds both, without the search's own events.
    QCOMPARE(QProcess::execute("ip", {"addr", "add", "127.0.9.9/32", "dev", "lo"}), 0);
    CORVEL_WAIT(events.count("deviceDiscovered") == 6);
    QVERIFY(answeredASearch(events.notifications.last()));
    QVERIFY(capture.has("Info SSDP Searching again after a network change"));
    QCOMPARE(events.count("discoveryStarted") + events.count("discoveryComplete"), 0);
    QVERIFY(!discovery.session());
    QCOMPARE(QProcess::execute("ip", {"link", "set", "lo", "mtu", "60000"}), 0); // no address moved
    QTest::qWait(1500);
    QCOMPARE(capture.count("Info SSDP Network changed"), 1);
    QProcess::execute("ip", {"addr", "del", "127.0.9.9/32", "dev", "lo"}); // searches send from it
    // Another host claiming a known speaker's UDN takes its place only once the speaker's
    // own address no longer answers as it.
    SimulatedPlayer twin = simulator.players()[1];
    twin.address = QHostAddress(QStringLiteral("127.0.1.60"));
    auto impostor = std::make_unique<SpeakerSimulator>(std::vector{twin});
    QVERIFY(impostor->start(nullptr));
    CORVEL_WAIT(capture.count("Warning SSDP Ignoring " + twin.location().toString() +
                              ": it claims to be uuid:" + twin.udn + ", which still answers at " +
                              simulator.players()[1].location().toString()) == 1);
    QCOMPARE(events.count("deviceDiscovered"), 6);
    simulator.players()[1].fault = SimulatedPlayer::DescriptionHtml; // another device there now
    impostor->announce(0, "ssdp:update");
    CORVEL_WAIT(events.count("deviceDiscovered") == 7);
    QCOMPARE(speakers(events).back().first.location, twin.location());
    QCOMPARE(discovery.devices().size(), size_t(2)); // its old record is gone
    QCOMPARE(capture.count("Warning SSDP Not listening"), 0);
}

void TestDiscovery::anUnheardSpeakerIsAskedBeforeItLeaves_data()
{
    QTest::addColumn<bool>("stillThere");
    QTest::newRow("quiet on the network, still answering: kept") << true;
    QTest::newRow("switched off: leaves") << false;
}

void TestDiscovery::anUnheardSpeakerIsAskedBeforeItLeaves()
{
    // A speaker that outlives its max-age unheard by a background search is described once
    // more before it is dropped.
    QFETCH(bool, stillThere);
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    DeviceDiscovery discovery;
    discovery.setShortestMaxAge(1);
    EventRecorder events({Notifications::deviceDiscovered, Notifications::deviceDeparted});
    LogCapture capture;
    discovery.startWatching();
    auto players = SpeakerSimulator::household(1, 1);
    players[0].maxAge = 1;
    auto simulator = std::make_unique<SpeakerSimulator>(players);
    QVERIFY(simulator->start(nullptr));
    CORVEL_WAIT(events.count("deviceDiscovered") == 1);
    const QString location = players[0].location().toString();
    simulator->players()[0].fault = SimulatedPlayer::SilentOnSsdp;
    if (!stillThere)
        simulator.reset();
    QTest::qWait(1200);
    const QString address = stillThere ? "127.0.9.7/32" : "127.0.9.8/32";
    QCOMPARE(QProcess::execute("ip", {"addr", "add", address, "dev", "lo"}), 0); // searches again
    // The search after an address change waits for the network to settle.
    CORVEL_WAIT_MS(capture.count("Info SSDP Speaker at " + location + " still answers") +
                           events.count("deviceDeparted") ==
                       1,
                   20000);
    QCOMPARE(events.count("deviceDeparted"), stillThere ? 0 : 1);
    QProcess::execute("ip", {"addr", "del", address, "dev", "lo"});
}

QTEST_GUILESS_MAIN(TestDiscovery)
#include "TestDiscovery.moc"

void TestDiscovery::httpFraming_data()
{
    // What a server sends (\x01 a pause), whether it closes the connection then, and the
    // error or body the GET must give; the cases are a table but for the one too large to write.
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("close");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QByteArray>("body");
    const auto bytes = [](const QString &text) { // "-" is none
        return text == "-" ? QByteArray() : unescaped(text).replace("\\p", "\x01");
    };
    for (const QStringList &column : tableRows(QStringLiteral("discovery/http.txt"), 5)) {
        QTest::addRow("%s", qPrintable(column[0]))
            << bytes(column[1]) << (column[2] == "closes") << QString::fromUtf8(bytes(column[3]))
            << bytes(column[4]);
    }
    QTest::newRow("body over the cap")
        << "HTTP/1.0 200 OK\r\n\r\n" + QByteArray(DeviceDiscovery::maxBodyBytes + 1, 'x') << false
        << HttpGet::tooLarge << QByteArray();
}

void TestDiscovery::httpFraming()
{
    QFETCH(QByteArray, answer);
    QFETCH(bool, close);
    QFETCH(QString, error);
    QFETCH(QByteArray, body);
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    QByteArray request;
    connect(&server, &QTcpServer::newConnection, &server, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [&, socket] {
            request += socket->readAll();
            if (!request.endsWith("\r\n\r\n"))
                return;
            const QList<QByteArray> parts = answer.split('\x01');
            socket->write(parts[0]);
            if (parts.size() > 1)
                QTimer::singleShot(50, socket, [socket, rest = parts[1]] { socket->write(rest); });
            if (close)
                socket->disconnectFromHost();
        });
    });
    std::optional<HttpGet::Result> result;
    HttpGet::start(
        QUrl(QStringLiteral("http://127.0.0.1:%1/status/topology?x=1").arg(server.serverPort())),
        2000, DeviceDiscovery::maxBodyBytes, [&result](const HttpGet::Result &r) { result = r; },
        nullptr);
    CORVEL_WAIT(result.has_value());
    QVERIFY(request.startsWith("GET /status/topology?x=1 HTTP/1.1\r\nHost: 127.0.0.1:"));
    QCOMPARE(result->error, error);
    QCOMPARE(result->body, body);
}
