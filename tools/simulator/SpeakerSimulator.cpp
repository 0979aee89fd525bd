// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeakerSimulator.h"

#include <QNetworkAccessManager>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QNetworkReply>
#include <QPointer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUdpSocket>

namespace {
const QHostAddress multicastGroup(QStringLiteral("239.255.255.250"));
constexpr quint16 ssdpPort = 1900;

QByteArray escaped(const QString &text)
{
    return text.toHtmlEscaped().toUtf8();
}

QByteArray httpResponse(const QByteArray &status, const QByteArray &contentType,
                        const QByteArray &body)
{
    return "HTTP/1.1 " + status + "\r\nCONTENT-TYPE: " + contentType +
           "\r\nCONTENT-LENGTH: " + QByteArray::number(body.size()) +
           "\r\nConnection: close\r\nServer: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n\r\n" + body;
}

const QByteArray notFoundPage = "<html><head><title>404 Not Found</title></head><body><h1>404 Not "
                                "Found</h1></body></html>";
} // namespace

QUrl SimulatedPlayer::location() const
{
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(address.toString());
    url.setPort(port);
    url.setPath(QStringLiteral("/xml/device_description.xml"));
    return url;
}

std::vector<SimulatedPlayer> SpeakerSimulator::household(int players, int groups, bool boost,
                                                         int firstAddress)
{
    static const QStringList rooms = {"Living Room",
                                      "Kitchen",
                                      "Bedroom",
                                      "Office",
                                      "Bathroom",
                                      "Garden",
                                      QStringLiteral("K\u00fcche"),
                                      "Den"};
    std::vector<SimulatedPlayer> household;
    groups = std::max(groups, 1);
    const int total = players + (boost ? 1 : 0);
    for (int i = 0; i < total; ++i) {
        SimulatedPlayer player;
        // 127.0.1.1 ... 127.0.1.250, then 127.0.2.1 ... (from firstAddress on)
        const int slot = i + firstAddress - 1;
        player.address =
            QHostAddress(QStringLiteral("127.0.%1.%2").arg(1 + slot / 250).arg(slot % 250 + 1));
        player.udn =
            QStringLiteral("RINCON_000E58%1001400").arg(i + 1, 6, 16, QLatin1Char('0')).toUpper();
        if (i < players) {
            const int groupIndex = i % groups;
            player.roomName = rooms[i % rooms.size()];
            if (i >= rooms.size())
                player.roomName += QStringLiteral(" %1").arg(i + 1);
            player.coordinator = i < groups;
            player.group = QStringLiteral("GROUP_%1:%2").arg(groupIndex).arg(groupIndex + 1);
        } else {
            player.roomName = QStringLiteral("BOOST");
            player.displayName = QStringLiteral("BOOST");
            player.modelName = QStringLiteral("Sonos BOOST");
            player.modelNumber = QStringLiteral("WD100");
            player.group = QStringLiteral("BOOST_GROUP:1");
        }
        household.push_back(player);
    }
    return household;
}

QString SpeakerSimulator::faultName(SimulatedPlayer::Fault fault)
{
    static const QStringList names = {"none",
                                      "description-404",
                                      "description-html",
                                      "description-garbage",
                                      "description-slow",
                                      "description-huge",
                                      "description-trickle",
                                      "topology-missing",
                                      "topology-empty",
                                      "topology-blank",
                                      "router",
                                      "silent"};
    return names.value(int(fault));
}

std::optional<SimulatedPlayer::Fault> SpeakerSimulator::faultFromName(const QString &name)
{
    for (int f = SimulatedPlayer::NoFault; f <= SimulatedPlayer::SilentOnSsdp; ++f) {
        if (faultName(SimulatedPlayer::Fault(f)) == name)
            return SimulatedPlayer::Fault(f);
    }
    return std::nullopt;
}

SpeakerSimulator::SpeakerSimulator(std::vector<SimulatedPlayer> players, QObject *parent)
    : QObject(parent), m_players(std::move(players))
{
}

SpeakerSimulator::~SpeakerSimulator() = default;

bool SpeakerSimulator::listenForSearches(QUdpSocket *socket, QString *error)
{
    const auto fail = [error](const QString &message) {
        if (error)
            *error = message;
        return false;
    };
    QNetworkInterface loopback;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags().testFlag(QNetworkInterface::IsLoopBack))
            loopback = interface;
    }
    if (!loopback.isValid())
        return fail(QStringLiteral("no loopback interface"));
    if (!socket->bind(QHostAddress::AnyIPv4, ssdpPort,
                      QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint))
        return fail(QStringLiteral("cannot bind port 1900: ") + socket->errorString());
    if (!socket->joinMulticastGroup(multicastGroup, loopback))
        return fail(QStringLiteral("cannot join the SSDP group on lo: ") + socket->errorString());
    return true;
}

bool SpeakerSimulator::start(QString *error)
{
    const auto fail = [error](const QString &message) {
        if (error)
            *error = message;
        return false;
    };
    m_listener = new QUdpSocket(this);
    if (!listenForSearches(m_listener, error))
        return false;
    // Players given an address of another interface (a veth into a test's own namespace)
    // hear the searches that arrive there too.
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags().testFlag(QNetworkInterface::IsLoopBack) || m_players.empty())
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip() == m_players.front().address &&
                !m_listener->joinMulticastGroup(multicastGroup, interface))
                return fail(QStringLiteral("cannot join the SSDP group on ") + interface.name());
        }
    }
    connect(m_listener, &QUdpSocket::readyRead, this, &SpeakerSimulator::handleSearch);

    for (size_t i = 0; i < m_players.size(); ++i) {
        const SimulatedPlayer &player = m_players[i];
        auto *sender = new QUdpSocket(this);
        if (!sender->bind(player.address, 0))
            return fail(QStringLiteral("cannot bind %1: %2")
                            .arg(player.address.toString(), sender->errorString()));
        m_senders.push_back(sender);
        auto *server = new QTcpServer(this);
        if (!server->listen(player.address, player.port))
            return fail(QStringLiteral("cannot listen on %1:%2: %3")
                            .arg(player.address.toString())
                            .arg(player.port)
                            .arg(server->errorString()));
        connect(server, &QTcpServer::newConnection, this, [this, server, i] {
            while (QTcpSocket *socket = server->nextPendingConnection()) {
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, this,
                        [this, socket, i] { handleRequest(int(i), socket); });
            }
        });
        m_servers.push_back(server);
    }
    for (size_t i = 0; i < m_players.size(); ++i)
        announce(int(i), "ssdp:alive");
    return true;
}

void SpeakerSimulator::announce(int index, const QByteArray &kind)
{
    const SimulatedPlayer &player = m_players[size_t(index)];
    if (player.fault == SimulatedPlayer::SilentOnSsdp || player.fault == SimulatedPlayer::Router)
        return;
    for (const QByteArray &type :
         {QByteArray("upnp:rootdevice"), QByteArray("urn:schemas-upnp-org:device:ZonePlayer:1")}) {
        QByteArray message = "NOTIFY * HTTP/1.1\r\n"
                             "HOST: 239.255.255.250:1900\r\n" +
                             player.lifeHeaders();
        if (kind != "ssdp:byebye")
            message += "LOCATION: " + player.location().toString().toUtf8() + "\r\n";
        message += "NT: " + type + "\r\nNTS: " + kind +
                   "\r\n"
                   "SERVER: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n"
                   "USN: uuid:" +
                   player.udn.toUtf8() + "::" + type + "\r\n\r\n";
        m_senders[size_t(index)]->writeDatagram(
            message, QHostAddress(QStringLiteral("239.255.255.250")), 1900);
    }
}

void SpeakerSimulator::handleSearch()
{
    while (m_listener->hasPendingDatagrams()) {
        const QNetworkDatagram datagram = m_listener->receiveDatagram();
        const QByteArray data = datagram.data();
        if (!data.startsWith("M-SEARCH * HTTP/1.1"))
            continue;
        if (!data.contains("urn:schemas-upnp-org:device:ZonePlayer:1") &&
            !data.contains("ssdp:all"))
            continue;
        ++m_searches;
        for (size_t i = 0; i < m_players.size(); ++i) {
            const SimulatedPlayer &player = m_players[i];
            if (player.fault == SimulatedPlayer::SilentOnSsdp)
                continue;
            // A router answers every search with its own type.
            const QByteArray type = player.fault == SimulatedPlayer::Router
                                        ? "urn:schemas-upnp-org:device:InternetGatewayDevice:1"
                                        : "urn:schemas-upnp-org:device:ZonePlayer:1";
            const QByteArray response = "HTTP/1.1 200 OK\r\n" + player.lifeHeaders() +
                                        "EXT:\r\n"
                                        "LOCATION: " +
                                        player.location().toString().toUtf8() +
                                        "\r\n"
                                        "SERVER: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)\r\n"
                                        "ST: " +
                                        type +
                                        "\r\n"
                                        "USN: uuid:" +
                                        player.udn.toUtf8() + "::" + type +
                                        "\r\n"
                                        "X-RINCON-HOUSEHOLD: Sonos_CorvelSimulatedHousehold\r\n"
                                        "X-RINCON-WIFIMODE: 0\r\n"
                                        "X-RINCON-VARIANT: 0\r\n"
                                        "\r\n";
            for (int n = 0; n < player.answersPerSearch; ++n) {
                m_senders[i]->writeDatagram(response, datagram.senderAddress(),
                                            quint16(datagram.senderPort()));
                emit answered(int(i));
            }
        }
    }
}

void SpeakerSimulator::handleRequest(int index, QTcpSocket *socket)
{
    QByteArray request = socket->property("request").toByteArray() + socket->readAll();
    socket->setProperty("request", request);
    const qsizetype headerEnd = request.indexOf("\r\n\r\n");
    if (headerEnd < 0 || socket->property("answered").toBool())
        return;
    const QByteArray headers = request.left(headerEnd);
    const QRegularExpression lengthHeader(QStringLiteral("\r\ncontent-length:\\s*(\\d+)"),
                                          QRegularExpression::CaseInsensitiveOption);
    const qsizetype length =
        lengthHeader.match(QString::fromLatin1(headers)).captured(1).toLongLong();
    if (request.size() < headerEnd + 4 + length)
        return; // the body is still on its way
    socket->setProperty("answered", true);
    ++m_requests;
    const SimulatedPlayer &player = m_players[size_t(index)];
    const QByteArray path = request.split(' ').value(1);
    QByteArray answer;
    if (request.startsWith("POST ") && path.startsWith("/MediaRenderer/")) {
        handleControl(index, socket, headers, request.mid(headerEnd + 4, length));
        return;
    } else if (path == "/xml/device_description.xml") {
        switch (player.fault) {
        case SimulatedPlayer::Description404:
            answer = httpResponse("404 Not Found", "text/html", notFoundPage);
            break;
        case SimulatedPlayer::DescriptionHtml:
            answer =
                httpResponse("200 OK", "text/html", "<html><body><p>Loading...</p></body></html>");
            break;
        case SimulatedPlayer::DescriptionGarbage:
            answer = httpResponse("200 OK", "text/xml", QByteArray("\x00\x01garbage\xff{}", 13));
            break;
        case SimulatedPlayer::DescriptionSlow:
            return; // holds the connection open
        case SimulatedPlayer::DescriptionTrickle: {
            const QByteArray body = descriptionXml(player);
            socket->write(httpResponse("200 OK", "text/xml", body).chopped(body.size()));
            auto *trickle = new QTimer(socket);
            connect(trickle, &QTimer::timeout, socket,
                    [socket, body, sent = qsizetype(0)]() mutable {
                        if (sent < body.size())
                            socket->write(body.mid(sent++, 1));
                    });
            trickle->start(100);
            return;
        }
        case SimulatedPlayer::DescriptionHuge:
            answer = httpResponse("200 OK", "text/xml",
                                  descriptionXml(player) + QByteArray(2 * 1024 * 1024, ' '));
            break;
        default:
            answer = httpResponse("200 OK", "text/xml; charset=\"utf-8\"", descriptionXml(player));
        }
    } else if (path == "/status/topology") {
        if (player.fault == SimulatedPlayer::TopologyMissing)
            answer = httpResponse("404 Not Found", "text/html", notFoundPage);
        else if (player.fault == SimulatedPlayer::TopologyBlank)
            answer = httpResponse("404 Not Found", "text/html", QByteArray());
        else if (player.fault == SimulatedPlayer::TopologyEmpty)
            answer = httpResponse("200 OK", "text/xml", "<?xml version=\"1.0\" ?><ZPSupportInfo/>");
        else
            answer = httpResponse("200 OK", "text/xml", topologyXml());
    } else {
        answer = httpResponse("404 Not Found", "text/html", notFoundPage);
    }
    socket->write(answer);
    socket->disconnectFromHost();
}

void SpeakerSimulator::handleControl(int index, QTcpSocket *socket, const QByteArray &headers,
                                     const QByteArray &body)
{
    const QRegularExpression actionHeader(QStringLiteral("\r\nsoapaction:\\s*\"?([^\"\r]*)"),
                                          QRegularExpression::CaseInsensitiveOption);
    const QString soapAction = actionHeader.match(QString::fromLatin1(headers)).captured(1);
    const QString service = soapAction.section(QLatin1Char('#'), 0, 0);
    const QString action = soapAction.section(QLatin1Char('#'), 1);
    emit controlled(index, action);
    const QUrl renderer = m_players[size_t(index)].renderer;
    if (renderer.isEmpty()) {
        socket->write(httpResponse(
            "200 OK", "text/xml; charset=\"utf-8\"",
            "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
            "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
                action.toUtf8() + "Response xmlns:u=\"" + service.toUtf8() +
                "\"></u:" + action.toUtf8() + "Response></s:Body></s:Envelope>"));
        socket->disconnectFromHost();
        return;
    }
    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    // The renderer's control URL for the service, from its description, then the call itself.
    QNetworkReply *description = m_network->get(QNetworkRequest(renderer));
    const QPointer<QTcpSocket> client(socket);
    connect(
        description, &QNetworkReply::finished, this,
        [this, description, client, renderer, service, body, soapAction] {
            description->deleteLater();
            const QString xml = QString::fromUtf8(description->readAll());
            const QRegularExpression control(
                QRegularExpression::escape(service) +
                    QStringLiteral("</serviceType>.*?<controlURL>([^<]*)</controlURL>"),
                QRegularExpression::DotMatchesEverythingOption);
            const QString controlPath = control.match(xml).captured(1);
            if (controlPath.isEmpty()) {
                if (client) {
                    client->write(httpResponse("500 Internal Server Error", "text/plain",
                                               "no such service at the renderer"));
                    client->disconnectFromHost();
                }
                return;
            }
            QNetworkRequest request(renderer.resolved(QUrl(controlPath)));
            request.setHeader(QNetworkRequest::ContentTypeHeader,
                              QByteArrayLiteral("text/xml; charset=\"utf-8\""));
            request.setRawHeader("SOAPACTION", '"' + soapAction.toUtf8() + '"');
            QNetworkReply *call = m_network->post(request, body);
            connect(call, &QNetworkReply::finished, this, [call, client] {
                call->deleteLater();
                const int status =
                    call->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
                if (!client)
                    return;
                client->write(httpResponse(
                    QByteArray::number(status ? status : 502) + ' ' +
                        call->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toByteArray(),
                    "text/xml; charset=\"utf-8\"", call->readAll()));
                client->disconnectFromHost();
            });
        });
}

QByteArray SpeakerSimulator::descriptionXml(const SimulatedPlayer &player) const
{
    const QByteArray udn = player.udn.toUtf8();
    const QByteArray host = player.address.toString().toUtf8();
    const QByteArray model = escaped(player.modelName);
    return R"(<?xml version="1.0" encoding="utf-8" ?>
<root xmlns="urn:schemas-upnp-org:device-1-0">
  <specVersion><major>1</major><minor>0</minor></specVersion>
  <device>
    <deviceType>urn:schemas-upnp-org:device:ZonePlayer:1</deviceType>
    <friendlyName>)" +
           host + " - " + model + R"(</friendlyName>
    <manufacturer>Sonos, Inc.</manufacturer>
    <manufacturerURL>http://www.sonos.com</manufacturerURL>
    <modelNumber>)" +
           escaped(player.modelNumber) + R"(</modelNumber>
    <modelDescription>)" +
           model + R"(</modelDescription>
    <modelName>)" +
           model + R"(</modelName>
    <modelURL>http://www.sonos.com/products/zoneplayers/)" +
           escaped(player.modelNumber) + R"(</modelURL>
    <softwareVersion>57.3-81090</softwareVersion>
    <swGen>1</swGen>
    <hardwareVersion>1.8.3.7-2.0</hardwareVersion>
    <serialNum>00-0E-58-00-00-01:A</serialNum>
    <MACAddress>00:0E:58:00:00:01</MACAddress>
    <UDN>uuid:)" +
           udn + R"(</UDN>
    <iconList>
      <icon>
        <id>0</id>
        <mimetype>image/png</mimetype>
        <width>48</width>
        <height>48</height>
        <depth>24</depth>
        <url>/img/icon-)" +
           escaped(player.modelNumber) + R"(.png</url>
      </icon>
    </iconList>
    <minCompatibleVersion>56.0-00000</minCompatibleVersion>
    <legacyCompatibleVersion>36.0-00000</legacyCompatibleVersion>
    <apiVersion>1.18.9</apiVersion>
    <displayVersion>11.1</displayVersion>
    <extraVersion/>
    <roomName>)" +
           escaped(player.roomName) + R"(</roomName>
    <displayName>)" +
           escaped(player.displayName) + R"(</displayName>
    <zoneType>7</zoneType>
    <feature1>0x00000000</feature1>
    <feature2>0x00006332</feature2>
    <feature3>0x0003002e</feature3>
    <variant>0</variant>
    <internalSpeakerSize>4</internalSpeakerSize>
    <bassExtension>60.000</bassExtension>
    <satGainOffset>3.000</satGainOffset>
    <memory>128</memory>
    <flash>64</flash>
    <ampOnTime>425</ampOnTime>
    <retailMode>0</retailMode>
    <serviceList>
      <service>
        <serviceType>urn:schemas-upnp-org:service:ZoneGroupTopology:1</serviceType>
        <serviceId>urn:upnp-org:serviceId:ZoneGroupTopology</serviceId>
        <controlURL>/ZoneGroupTopology/Control</controlURL>
        <eventSubURL>/ZoneGroupTopology/Event</eventSubURL>
        <SCPDURL>/xml/ZoneGroupTopology1.xml</SCPDURL>
      </service>
    </serviceList>
    <deviceList>
      <device>
        <deviceType>urn:schemas-upnp-org:device:MediaRenderer:1</deviceType>
        <friendlyName>)" +
           escaped(player.roomName) + " - " + model + R"( Media Renderer</friendlyName>
        <modelName>)" +
           model + R"(</modelName>
        <UDN>uuid:)" +
           udn + R"(_MR</UDN>
        <iconList><icon><mimetype>image/png</mimetype><url>/img/icon-MR.png</url></icon></iconList>
      </device>
    </deviceList>
  </device>
</root>
)";
}

QByteArray SpeakerSimulator::topologyXml() const
{
    QByteArray players;
    for (const SimulatedPlayer &player : m_players) {
        players += "<ZonePlayer group='" + escaped(player.group) + "' coordinator='" +
                   (player.coordinator ? "true" : "false") + "' wirelessmode='0' location='" +
                   player.location().toString().toUtf8() + "' version='57.3-81090' uuid='" +
                   player.udn.toUtf8() + "'>" + escaped(player.roomName) + "</ZonePlayer>";
    }
    return "<?xml version=\"1.0\" ?><?xml-stylesheet type=\"text/xsl\" href=\"/xml/review.xsl\"?>"
           "<ZPSupportInfo type=\"User\"><ZonePlayers>" +
           players + "</ZonePlayers><MediaServers></MediaServers></ZPSupportInfo>";
}
