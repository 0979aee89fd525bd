// SPDX-License-Identifier: GPL-3.0-or-later
// A simulated Sonos household: players that answer M-SEARCH on the loopback multicast group
// from their own loopback address and serve a realistic description and zone topology.
// Use it only inside a private network namespace (scripts/netns).
#pragma once

#include <QHostAddress>
#include <QObject>
#include <QUrl>
#include <vector>

class QTcpServer;
class QTcpSocket;
class QNetworkAccessManager;
class QUdpSocket;

struct SimulatedPlayer
{
    enum Fault {
        NoFault,
        Description404,     // an HTML 404 page for the description
        DescriptionHtml,    // 200 with an HTML page
        DescriptionGarbage, // 200 with bytes that are not XML
        DescriptionSlow,    // accepts and never answers
        DescriptionHuge,    // 200 with a 2 MiB body
        DescriptionTrickle, // 200 whose body arrives one byte every 100 ms
        TopologyMissing,    // current firmware: 404 for /status/topology
        TopologyEmpty,      // <ZPSupportInfo/> without ZonePlayers
        TopologyBlank,      // 404 for /status/topology with an empty body
        Router,             // answers every search as an InternetGatewayDevice
        SilentOnSsdp,       // never answers a search
    };

    QString roomName;
    QString displayName = QStringLiteral("PLAY:3");
    QString modelName = QStringLiteral("Sonos PLAY:3");
    QString modelNumber = QStringLiteral("S3");
    QString udn; // without "uuid:"
    QString group;
    bool coordinator = true;
    QHostAddress address;
    quint16 port = 1400;
    Fault fault = NoFault;
    int answersPerSearch = 1;
    int maxAge = 1800; // seconds, as its announcements and answers say
    int bootSeq = 12;  // raised when the player restarts
    // The headers of its announcements and answers that say how long it stays and which boot.
    QByteArray lifeHeaders() const
    {
        return "CACHE-CONTROL: max-age = " + QByteArray::number(maxAge) +
               "\r\nX-RINCON-BOOTSEQ: " + QByteArray::number(bootSeq) + "\r\n";
    }
    // The description of a real UPnP renderer that plays for this player: its AVTransport and
    // RenderingControl calls are passed on there (the renderer shares the player's address).
    QUrl renderer;

    QUrl location() const;
};

class SpeakerSimulator : public QObject
{
    Q_OBJECT

public:
    // players on 127.0.1.1, 127.0.1.2, ... (127.0.1.firstAddress on) spread over groups (the first
    // of each group is its coordinator); with boost, one more device whose model is "Sonos BOOST".
    static std::vector<SimulatedPlayer> household(int players, int groups, bool boost = false,
                                                  int firstAddress = 1);
    static QString faultName(SimulatedPlayer::Fault fault);
    static std::optional<SimulatedPlayer::Fault> faultFromName(const QString &name);

    // Binds socket to the SSDP port and joins the search group on loopback, as every responder
    // here does; false with *error when that fails.
    static bool listenForSearches(QUdpSocket *socket, QString *error);

    explicit SpeakerSimulator(std::vector<SimulatedPlayer> players, QObject *parent = nullptr);
    ~SpeakerSimulator() override;

    // Binds every socket and announces every player (ssdp:alive), as players do when they
    // come up; false with *error when a socket cannot be bound.
    bool start(QString *error);
    // Multicasts an announcement ("ssdp:alive", "ssdp:update", "ssdp:byebye") for the player,
    // of its root device and of its ZonePlayer type, as players do.
    void announce(int player, const QByteArray &kind);

    const std::vector<SimulatedPlayer> &players() const { return m_players; }
    std::vector<SimulatedPlayer> &players() { return m_players; }
    int searchesReceived() const { return m_searches; }
    int httpRequests() const { return m_requests; }

    QByteArray descriptionXml(const SimulatedPlayer &player) const;
    QByteArray topologyXml() const;

signals:
    // A player answered a search (once per datagram sent).
    void answered(int player);
    // A control point called action on one of the player's media services.
    void controlled(int player, const QString &action);

private:
    void handleSearch();
    void handleRequest(int player, QTcpSocket *socket);
    // Answers a call to AVTransport or RenderingControl, or passes it on to the renderer.
    void handleControl(int player, QTcpSocket *socket, const QByteArray &headers,
                       const QByteArray &body);

    std::vector<SimulatedPlayer> m_players;
    QUdpSocket *m_listener = nullptr;
    std::vector<QUdpSocket *> m_senders;
    std::vector<QTcpServer *> m_servers;
    QNetworkAccessManager *m_network = nullptr;
    int m_searches = 0;
    int m_requests = 0;
};
