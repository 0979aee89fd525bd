// SPDX-License-Identifier: GPL-3.0-or-later
// The headless program against a hostile network, inside a private network namespace: broken
// and malicious description servers, a flood of answers, and a 256-player household. Every run
// must leave Corvel running and answering, log what went wrong, and keep the user's choices.
#include "HeadlessCorvel.h"
#include "NetworkGuard.h"
#include "Settings.h"
#include "SpeakerSimulator.h"

#include <QNetworkDatagram>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>
#include <unistd.h>

namespace {
const QUrl knownLocation(QStringLiteral("http://127.0.9.9:1400/xml/device_description.xml"));
const QString knownName = QStringLiteral("Den speaker");

QByteArray searchResponse(const QUrl &location, int index)
{
    return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age = 1800\r\nEXT:\r\nLOCATION: " +
           location.toString().toUtf8() +
           "\r\nSERVER: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n"
           "ST: urn:schemas-upnp-org:device:ZonePlayer:1\r\nUSN: uuid:RINCON_HOSTILE" +
           QByteArray::number(index) + "::urn:schemas-upnp-org:device:ZonePlayer:1\r\n\r\n";
}

// Answers every M-SEARCH on the loopback multicast group with the datagrams it is given,
// spread over spreadMs in ticks of 10 ms.
class Responder : public QObject
{
public:
    QList<QByteArray> datagrams;
    int spreadMs = 0;
    int searches = 0;
    QElapsedTimer firstSearch;

    bool start()
    {
        if (!SpeakerSimulator::listenForSearches(&m_listener, nullptr) ||
            !m_sender.bind(QHostAddress::LocalHost, 0))
            return false;
        connect(&m_listener, &QUdpSocket::readyRead, this, [this] {
            while (m_listener.hasPendingDatagrams()) {
                const QNetworkDatagram search = m_listener.receiveDatagram();
                if (!search.data().startsWith("M-SEARCH"))
                    continue;
                if (searches++ == 0)
                    firstSearch.start();
                answer(search.senderAddress(), quint16(search.senderPort()));
            }
        });
        return true;
    }

private:
    void answer(const QHostAddress &to, quint16 port)
    {
        const int ticks = std::max(1, spreadMs / 10);
        const qsizetype perTick = (datagrams.size() + ticks - 1) / ticks;
        for (int tick = 0; tick < ticks; ++tick) {
            QTimer::singleShot(tick * 10, this, [this, to, port, tick, perTick] {
                for (qsizetype i = tick * perTick;
                     i < std::min(datagrams.size(), (tick + 1) * perTick); ++i)
                    m_sender.writeDatagram(datagrams[i], to, port);
            });
        }
    }

    QUdpSocket m_listener;
    QUdpSocket m_sender;
};

// One loopback HTTP server with a misbehaving answer per path, and a well-behaved player at
// /xml/device_description.xml whose description changes after the first request.
class HostileServer : public QObject
{
public:
    static constexpr qint64 hugeBytes = 50LL * 1024 * 1024;
    int descriptionRequests = 0;
    qint64 hugeBytesSent = 0;

    bool start()
    {
        if (!m_server.listen(QHostAddress::LocalHost, 0))
            return false;
        SimulatedPlayer player;
        player.address = QHostAddress::LocalHost;
        player.port = m_server.serverPort();
        player.udn = QStringLiteral("RINCON_000E58CHANGE01400");
        player.group = player.udn + QStringLiteral(":1");
        player.roomName = QStringLiteral("Study");
        SpeakerSimulator before({player});
        m_descriptionBefore = before.descriptionXml(player);
        m_topology = before.topologyXml();
        player.roomName = QStringLiteral("Attic");
        m_descriptionAfter = SpeakerSimulator({player}).descriptionXml(player);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
            }
        });
        return true;
    }

    QUrl url(const QString &path) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }

private:
    static QByteArray head(qint64 length)
    {
        return "HTTP/1.1 200 OK\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: " +
               QByteArray::number(length) + "\r\nConnection: close\r\n\r\n";
    }
    static void reply(QTcpSocket *socket, const QByteArray &body)
    {
        socket->write(head(body.size()) + body);
        socket->disconnectFromHost();
    }

    void serve(QTcpSocket *socket)
    {
        QByteArray request = socket->property("request").toByteArray() + socket->readAll();
        socket->setProperty("request", request);
        if (!request.contains("\r\n\r\n") || socket->property("served").toBool())
            return;
        socket->setProperty("served", true);
        const QByteArray path = request.split(' ').value(1);
        if (path == "/never")
            return; // accepted, never answered
        if (path == "/trickle") {
            socket->write(head(4096));
            auto *timer = new QTimer(socket);
            connect(timer, &QTimer::timeout, socket, [socket] { socket->write("<"); });
            timer->start(1000);
        } else if (path == "/huge") {
            socket->write(head(hugeBytes));
            const auto more = [this, socket] {
                const QByteArray chunk(64 * 1024, ' ');
                while (socket->bytesToWrite() < 256 * 1024 && hugeBytesSent < hugeBytes) {
                    socket->write(chunk);
                    hugeBytesSent += chunk.size();
                }
            };
            connect(socket, &QTcpSocket::bytesWritten, socket, more);
            more();
        } else if (path == "/deep") {
            reply(socket, QByteArray("<a>").repeated(100000) + QByteArray("</a>").repeated(100000));
        } else if (path == "/bomb") {
            QByteArray bomb = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol \"lol\">\n";
            for (int level = 1; level <= 9; ++level) {
                bomb += "<!ENTITY lol" + QByteArray::number(level) + " \"" +
                        ("&lol" + (level > 1 ? QByteArray::number(level - 1) : QByteArray()) + ";")
                            .repeated(10) +
                        "\">\n";
            }
            reply(socket, bomb + "]>\n<root><device><UDN>&lol9;</UDN></device></root>");
        } else if (path == "/xml/device_description.xml") {
            reply(socket, descriptionRequests++ == 0 ? m_descriptionBefore : m_descriptionAfter);
        } else if (path == "/status/topology") {
            reply(socket, m_topology);
        } else {
            socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
            socket->disconnectFromHost();
        }
    }

    QTcpServer m_server;
    QByteArray m_descriptionBefore;
    QByteArray m_descriptionAfter;
    QByteArray m_topology;
};

// Peak resident memory (MiB) and CPU time used so far (seconds) of a running process.
struct Usage
{
    double peakMiB = 0;
    double cpuSeconds = 0;
};

Usage usageOf(qint64 pid)
{
    Usage usage;
    usage.peakMiB = census::memoryMiB("VmHWM", QString::number(pid));
    // Fields after the parenthesised command name: utime and stime are the 12th and 13th.
    const QByteArray stat = census::readWholeFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    usage.cpuSeconds =
        (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
    return usage;
}

// The headless program with this suite's bridge name and the suite's settings folder.
class CorvelRun : public HeadlessCorvel
{
public:
    explicit CorvelRun(const QString &configHome)
        : HeadlessCorvel(QStringLiteral(CORVEL_EXECUTABLE), QStringLiteral(FAKE_BRIDGE),
                         QStringLiteral("airupnp-hostile"), configHome)
    {
    }
    QByteArray bridgeConfig() const { return bridgeRecord(QStringLiteral("config.xml")); }
};
} // namespace

class TestHostileNetwork : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void brokenAndMaliciousServers();
    void answerFlood();
    void household256();

private:
    std::optional<SettingsDocument> storedSettings();
    QTemporaryDir m_config;
};

void TestHostileNetwork::initTestCase()
{
    CORVEL_REQUIRE_PRIVATE_NETWORK();
    QVERIFY(m_config.isValid());
    // The user renamed a speaker and switched it off in an earlier run; every run below must
    // keep that.
    qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
    auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
    DeviceInfo known;
    known.location = knownLocation;
    settings->mergeDiscoveredSpeaker(known, DeviceTopology{true, QStringLiteral("G")});
    settings->renameDevice(knownLocation, knownName);
    settings->setDeviceEnabled(knownLocation, false);
    settings->save();
}

std::optional<SettingsDocument> TestHostileNetwork::storedSettings()
{
    const auto text = UserSettingsStorage().read();
    if (!text)
        return std::nullopt;
    QString error;
    return SettingsDocument::decode(text->toUtf8(), &error);
}

// After every run: the settings document still reads, with the user's choices in it.
void TestHostileNetwork::cleanup()
{
    const auto document = storedSettings();
    QVERIFY(document);
    const auto known = document->devices.find(knownLocation);
    QVERIFY(known != document->devices.end());
    QCOMPARE(known->second.name, knownName);
    QVERIFY(known->second.nameChanged);
    QVERIFY(!known->second.enabled);
}

void TestHostileNetwork::brokenAndMaliciousServers()
{
    HostileServer server;
    QVERIFY(server.start());
    QTcpServer closed;
    QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
    const quint16 closedPort = closed.serverPort();
    closed.close();
    const QUrl refused(
        QStringLiteral("http://127.0.0.1:%1/xml/device_description.xml").arg(closedPort));
    Responder responder;
    int index = 0;
    for (const QUrl &location :
         {refused, server.url("/never"), server.url("/trickle"), server.url("/huge"),
          server.url("/deep"), server.url("/bomb"), server.url("/xml/device_description.xml")})
        responder.datagrams << searchResponse(location, index++);
    QVERIFY(responder.start());

    CorvelRun corvel(m_config.path());
    const QByteArray failed = "Failed to fetch XML from ";
    const QByteArray invalid = "fetchDeviceInfo failed: The operation couldn't be completed. "
                               "(InvalidDeviceXMLErrorDomain error -1.)";
    QVERIFY2(corvel.waitFor("Discovery complete, starting AirConnect", 20000),
             corvel.output.right(4000).constData());
    QVERIFY2(corvel.waitFor("adding renderer", 30000), corvel.output.right(4000).constData());
    QVERIFY(corvel.output.contains(failed + refused.toString().toUtf8() + " - Connection refused"));
    QVERIFY(corvel.output.contains(failed + server.url("/huge").toString().toUtf8() +
                                   " - The response is larger than 1 MiB"));
    // Corvel hung up long before the end of either 50 MB answer (socket buffers hold a few MB).
    QVERIFY2(server.hugeBytesSent < HostileServer::hugeBytes,
             QByteArray::number(server.hugeBytesSent).constData());
    for (const char *path : {"/deep", "/bomb"}) {
        QVERIFY(corvel.output.contains("Received a response from " +
                                       server.url(path).toString().toUtf8()));
    }
    // The deep document is refused; the bomb is a well-formed device whose entities are never
    // expanded (checked in the stored record below).
    QCOMPARE(corvel.output.count(invalid), 2);

    // The description changed between the two answers: the second one wins.
    QCOMPARE(server.descriptionRequests, 2);
    QVERIFY(corvel.output.contains("Adding menu item Study - PLAY:3"));
    QVERIFY(corvel.output.contains("Updating menu item Study - PLAY:3"));
    QVERIFY(corvel.bridgeConfig().contains("<name>Attic - PLAY:3</name>"));
    // The bomb's speaker reached the bridge with its entity reference as written.
    QVERIFY(corvel.bridgeConfig().contains("<udn>&amp;lol9;</udn>"));
    QVERIFY(corvel.bridgeConfig().size() < 16 * 1024);

    // The silent server and the trickle end with the 60-second limit, not before.
    QVERIFY(!corvel.output.contains(failed + server.url("/never").toString().toUtf8()));
    QVERIFY2(corvel.waitFor(failed + server.url("/trickle").toString().toUtf8() +
                                " - No complete response within 60000 ms",
                            70000, 2),
             corvel.output.right(3000).constData());
    QVERIFY(corvel.waitFor(failed + server.url("/never").toString().toUtf8(), 10000, 2));
    QVERIFY(corvel.running());
    QVERIFY(corvel.stop());
}

// 10,000 datagrams in one second, half of them valid answers for one real player and half
// garbage of every kind.
void TestHostileNetwork::answerFlood()
{
    SpeakerSimulator household(SpeakerSimulator::household(1, 1));
    QVERIFY(household.start(nullptr));
    const QUrl player = household.players()[0].location();
    Responder responder;
    responder.spreadMs = 1000;
    QRandomGenerator random(8);
    for (int i = 0; i < 5000; ++i) {
        responder.datagrams << searchResponse(player, i);
        QByteArray garbage;
        switch (i % 5) {
        case 0:
            garbage.resize(1 + random.bounded(1400));
            for (char &c : garbage)
                c = char(random.bounded(256));
            break;
        case 1:
            garbage = "HTTP/1.1 200 OK\r\nLOCATION: ftp://127.0.0.1/x.xml\r\nST: "
                      "urn:schemas-upnp-org:device:ZonePlayer:1\r\n\r\n";
            break;
        case 2:
            garbage = searchResponse(player, i) + QByteArray(9000, 'x'); // past the size limit
            break;
        case 3:
            garbage = searchResponse(player, i).left(40); // cut short
            break;
        default:
            garbage = "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNTS: ssdp:alive\r\n\r\n";
        }
        responder.datagrams << garbage;
    }
    QVERIFY(responder.start());

    CorvelRun corvel(m_config.path());
    QTRY_VERIFY_WITH_TIMEOUT(responder.searches > 0, 10000);
    const Usage before = usageOf(corvel.pid());
    QTest::qWait(1500);
    const Usage during = usageOf(corvel.pid());
    QVERIFY2(corvel.waitFor("Discovery complete, starting AirConnect", 20000),
             corvel.output.right(4000).constData());
    QVERIFY2(corvel.waitFor("adding renderer", 30000), corvel.output.right(4000).constData());
    // Past 1,024 answers the rest are refused with one line; a loaded machine may drop some
    // datagrams before Corvel reads them, but never so many that the flood goes unnoticed.
    const qsizetype answers = corvel.output.count("[Info][SSDP] discoveredDevice(");
    QVERIFY2(answers > 200, QByteArray::number(answers).constData());
    QCOMPARE(corvel.output.contains("More than 1024 answers to one search: ignoring the rest"),
             answers > 1024);
    QVERIFY(corvel.running());
    const Usage after = usageOf(corvel.pid());
    qInfo("answer flood: %lld valid answers read; peak memory %.1f MiB; CPU %.2f s in the first "
          "1.5 s, %.2f s in all",
          static_cast<long long>(answers), after.peakMiB, during.cpuSeconds - before.cpuSeconds,
          after.cpuSeconds);
    QVERIFY(corvel.stop());
    QVERIFY(corvel.bridgeConfig().contains("<name>Living Room - PLAY:3</name>"));
}

void TestHostileNetwork::household256()
{
    SpeakerSimulator household(SpeakerSimulator::household(256, 16));
    QString error;
    QVERIFY2(household.start(&error), qPrintable(error));
    CorvelRun corvel(m_config.path());
    QVERIFY2(corvel.waitFor("Discovery complete, starting AirConnect", 30000),
             corvel.output.right(4000).constData());
    QVERIFY2(corvel.waitFor("adding renderer", 30000), corvel.output.right(4000).constData());
    // Every player is described, if not all of them within the 8-second search on a loaded
    // machine; the bridge was configured with those found by then, and the known speaker.
    QVERIFY2(corvel.waitFor("Adding menu item ", 60000, 256),
             corvel.output.right(4000).constData());
    QVERIFY(corvel.running());
    const Usage usage = usageOf(corvel.pid());
    qInfo("256 players: peak memory %.1f MiB; CPU %.2f s", usage.peakMiB, usage.cpuSeconds);
    const QByteArray config = corvel.bridgeConfig();
    const qsizetype found =
        corvel.output.left(corvel.output.indexOf("Discovery complete")).count("Adding menu item ");
    QCOMPARE(config.count("<device>"), found + 1);
    QVERIFY(config.contains("<name>Den speaker</name>"));
    QVERIFY(corvel.stop());
}

QTEST_GUILESS_MAIN(TestHostileNetwork)
#include "TestHostileNetwork.moc"
