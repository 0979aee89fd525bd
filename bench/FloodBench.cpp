// SPDX-License-Identifier: GPL-3.0-or-later
// A hostile device on the network, against corvel --headless serving three simulated players
// through the stand-in bridge: announcements that name other hosts (one of them a service on
// Corvel's own machine), a reused UDN from another host, a forged goodbye, a flood of new
// speakers (RATE a second for SECONDS, each with a valid description, from SENDERS addresses),
// 100 descriptions of 30,000 icons each, then 200 servers that send a byte a second followed
// by one real new speaker. Prints what Corvel fetched, its peak memory, how long its CPU took
// to settle after the flood, the settings file's growth, whether a rename made during the
// flood reached the bridge, and how long the new speaker took to be described. It searches
// and answers searches: run it through scripts/netns (scripts/bench).
//   corvel-bench-flood [SECONDS] [RATE] [SENDERS]   (60 s, 1,000 a second, 1 address)
#include "HeadlessCorvel.h"
#include "ProcessCensus.h"
#include "SessionBus.h"
#include "SpeakerSimulator.h"

#include <csignal>
#include <cstdio>
#include <QCoreApplication>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>
#include <QUuid>
#include <unistd.h>

namespace {
constexpr quint16 attackPort = 1500; // every attacker address serves here
constexpr quint16 slowPort = 1501;
constexpr quint16 ownServicePort = 8080; // "a service on Corvel's own machine"

void pump(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

double rssMiB(qint64 pid)
{
    return census::memoryMiB("VmRSS", QString::number(pid));
}

QByteArray notify(const QString &location, const QString &udn, const QByteArray &kind)
{
    return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age = 1800\r\n"
           "LOCATION: " +
           location.toLatin1() +
           "\r\nNT: urn:schemas-upnp-org:device:ZonePlayer:1\r\nNTS: " + kind +
           "\r\nSERVER: Linux UPnP/1.0 Sonos/70.3-88200 (ZPS1)\r\nUSN: " + udn.toLatin1() +
           "::urn:schemas-upnp-org:device:ZonePlayer:1\r\nX-RINCON-BOOTSEQ: 1\r\n\r\n";
}

// Sends datagrams to the SSDP group from any loopback address.
class Announcer
{
public:
    void send(const QString &from, const QByteArray &datagram)
    {
        auto &socket = m_sockets[from];
        if (!socket) {
            socket = std::make_unique<QUdpSocket>();
            socket->bind(QHostAddress(from), 0);
            socket->setSocketOption(QAbstractSocket::MulticastLoopbackOption, 1);
        }
        socket->writeDatagram(datagram, QHostAddress(QStringLiteral("239.255.255.250")), 1900);
    }

private:
    std::map<QString, std::unique_ptr<QUdpSocket>> m_sockets;
};

// Answers GET /<udn>/<icons> with a valid player description of that UDN and that many icons;
// counts the requests per host it was asked at. slow: sends one byte a second instead.
class AttackServer : public QObject
{
public:
    AttackServer(quint16 port, bool slow, const QHostAddress &address = QHostAddress::AnyIPv4)
        : m_slow(slow)
    {
        if (!m_server.listen(address, port))
            std::fprintf(stderr, "cannot listen on %d\n", port);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                ++requests;
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                if (m_slow) {
                    auto *timer = new QTimer(socket);
                    connect(timer, &QTimer::timeout, socket, [socket] { socket->write("H"); });
                    timer->start(1000);
                    continue;
                }
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
            }
        });
    }
    int requests = 0;

private:
    void answer(QTcpSocket *socket)
    {
        const QByteArray head = socket->readAll();
        const QList<QByteArray> path = head.split(' ').value(1).split('/');
        QByteArray body;
        if (path.value(1) != "status") {
            SimulatedPlayer player;
            player.roomName = path.value(1) == "RINCON_NEWCOMER" ? QStringLiteral("Newcomer")
                                                                 : QStringLiteral("Phantom");
            player.udn = QString::fromLatin1(path.value(1));
            player.address = socket->localAddress();
            player.port = m_server.serverPort();
            body = m_simulator.descriptionXml(player);
            QByteArray icons;
            for (int i = 0; i < path.value(2).toInt(); ++i)
                icons += "<icon><url>/</url></icon>";
            body.insert(body.indexOf("<iconList>") + 10, icons);
        }
        socket->write((body.isEmpty() ? "HTTP/1.1 404 Not Found" : "HTTP/1.1 200 OK") +
                      QByteArray("\r\nContent-Type: text/xml\r\nContent-Length: ") +
                      QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
        socket->disconnectFromHost();
    }

    bool m_slow;
    QTcpServer m_server;
    SpeakerSimulator m_simulator{{}};
};

QString settingsFile(const QString &home)
{
    QDirIterator files(home + QStringLiteral("/config"), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        if (path.endsWith(QStringLiteral(".conf")))
            return path;
    }
    return {};
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 60;
    const int rate = argc > 2 ? std::max(10, atoi(argv[2])) : 1000;
    const int senders = argc > 3 ? std::clamp(atoi(argv[3]), 1, 250) : 1;
    QTemporaryDir home;
    QProcess household;
    household.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    household.start(QStringLiteral(SPEAKER_SIM), {"--players", "3", "--groups", "3"});
    household.waitForReadyRead(5000);
    SessionBus bus(home.path()); // the rename reaches the running Corvel over it
    HeadlessCorvel corvel(QStringLiteral(CORVEL_EXECUTABLE), QStringLiteral(FAKE_BRIDGE),
                          home.path(), QStringLiteral("airupnp-flood"),
                          {"DBUS_SESSION_BUS_ADDRESS=" + bus.address});
    if (!corvel.waitFor("adding renderer", 30000)) {
        std::fprintf(stderr, "corvel did not start its bridge:\n%s\n",
                     corvel.output.right(3000).constData());
        return 1;
    }
    pump(3000); // every player described and applied
    const qint64 pid = corvel.pid();
    const QString kitchen = QStringLiteral("http://127.0.1.1:1400/xml/device_description.xml");

    AttackServer attack(attackPort, false);
    AttackServer slow(slowPort, true);
    AttackServer ownService(ownServicePort, false, QHostAddress::LocalHost);
    Announcer announcer;
    // Other hosts named: one on Corvel's machine, one far away.
    announcer.send("127.6.0.1",
                   notify(QStringLiteral("http://127.0.0.1:%1/x/0").arg(ownServicePort),
                          "uuid:RINCON_OWN", "ssdp:alive"));
    announcer.send("127.6.0.1",
                   notify("http://198.51.100.7:1400/x.xml", "uuid:RINCON_FAR", "ssdp:alive"));
    // A reused UDN and a forged goodbye for the first real player.
    const QString realUdn = QStringLiteral("uuid:") + SpeakerSimulator::household(3, 3)[0].udn;
    announcer.send(
        "127.6.0.2",
        notify(QStringLiteral("http://127.6.0.2:%1/%2/0").arg(attackPort).arg(realUdn.mid(5)),
               realUdn, "ssdp:alive"));
    announcer.send("127.6.0.3", notify(kitchen, realUdn, "ssdp:byebye"));
    pump(3000);

    // The flood: rate new speakers a second, from senders addresses.
    double peak = rssMiB(pid);
    QElapsedTimer clock;
    clock.start();
    int sent = 0;
    bool renamed = false;
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] { peak = std::max(peak, rssMiB(pid)); });
    sampler.start(100);
    while (clock.elapsed() < seconds * 1000) {
        const int due = int(qint64(rate) * clock.elapsed() / 1000);
        for (; sent < due; ++sent) {
            const QString from = QStringLiteral("127.6.1.%1").arg(sent % senders + 1);
            const QString udn = QUuid::createUuid().toString(QUuid::Id128).toUpper();
            announcer.send(
                from,
                notify(
                    QStringLiteral("http://%1:%2/RINCON_%3/0").arg(from).arg(attackPort).arg(udn),
                    "uuid:RINCON_" + udn, "ssdp:alive"));
        }
        if (!renamed && clock.elapsed() > seconds * 500) {
            QByteArray out;
            renamed = corvel.run({"--rename", kitchen, "Flooded Kitchen"}, &out) == 0;
        }
        pump(5);
    }
    const qint64 floodEnd = clock.elapsed();
    // CPU back to idle: the first whole second after the flood under 2 % of a core.
    double idleAfter = -1;
    for (qint64 last = census::cpuTicks(pid);
         idleAfter < 0 && clock.elapsed() - floodEnd < 60000;) {
        pump(1000);
        const qint64 now = census::cpuTicks(pid);
        if (double(now - last) / double(sysconf(_SC_CLK_TCK)) < 0.02)
            idleAfter = double(clock.elapsed() - floodEnd - 1000) / 1000.0;
        last = now;
    }
    pump(3000);
    const bool renameReached = corvel.bridgeRecord("config.xml").contains("Flooded Kitchen");
    // The real player is still offered: its entry in the bridge's file is enabled.
    const QByteArray config = corvel.bridgeRecord("config.xml");
    const qsizetype entry = config.indexOf(realUdn.toLatin1());
    const bool realKept =
        entry >= 0 && config.mid(config.indexOf("<enabled>", entry), 11) == "<enabled>1<";

    // 100 descriptions of 30,000 icons each.
    for (int i = 1; i <= 100; ++i) {
        const QString from = QStringLiteral("127.6.2.%1").arg(i);
        announcer.send(from, notify(QStringLiteral("http://%1:%2/RINCON_ICONS%3/30000")
                                        .arg(from)
                                        .arg(attackPort)
                                        .arg(i),
                                    QStringLiteral("uuid:RINCON_ICONS%1").arg(i), "ssdp:alive"));
    }
    pump(8000);
    // 200 slow servers, then one real new speaker.
    for (int i = 1; i <= 200; ++i) {
        const QString from = QStringLiteral("127.6.3.%1").arg(i);
        announcer.send(from, notify(QStringLiteral("http://%1:%2/d.xml").arg(from).arg(slowPort),
                                    QStringLiteral("uuid:RINCON_SLOW%1").arg(i), "ssdp:alive"));
    }
    pump(500);
    QElapsedTimer newcomer;
    newcomer.start();
    announcer.send("127.0.1.50",
                   notify(QStringLiteral("http://127.0.1.50:%1/RINCON_NEWCOMER/0").arg(attackPort),
                          "uuid:RINCON_NEWCOMER", "ssdp:alive"));
    const bool described = corvel.waitFor(
        QStringLiteral("(http://127.0.1.50:%1/RINCON_NEWCOMER/0)").arg(attackPort).toLatin1(),
        30000);
    const double newcomerSeconds = double(newcomer.elapsed()) / 1000.0;
    sampler.stop();
    peak = std::max(peak, rssMiB(pid));
    // Phantom speakers the settings file holds once Corvel saved on quitting.
    corvel.end(SIGTERM);
    QFile stored(settingsFile(home.path()));
    stored.open(QIODevice::ReadOnly);
    const QByteArray settingsText = stored.readAll();
    const int phantoms = int(settingsText.count("roomName\\\":\\\"Phantom"));

    const int otherHosts = ownService.requests + int(corvel.output.count("Fetching XML from "
                                                                         "http://198.51.100.7"));
    std::printf(
        "| flood, %d new speakers a second for %d s from %d address(es) (%d sent) | fetches of "
        "other hosts %d; "
        "reused UDN %s; forged goodbye %s; real speakers %s; rename during the flood %s; CPU "
        "idle %.0f s after; settings file %lld bytes, %d phantom speakers in it; 200 slow servers "
        "then a new "
        "speaker: %s in %.1f s | %.1f |\n",
        rate, seconds, senders, sent, otherHosts,
        corvel.output.contains("which still answers at") ? "refused" : "ACCEPTED",
        corvel.output.contains("left: said goodbye") ? "BELIEVED" : "ignored",
        realKept ? "kept" : "LOST", renameReached ? "reached the bridge" : "LOST", idleAfter,
        qlonglong(settingsText.size()), phantoms, described ? "described" : "NOT FOUND",
        newcomerSeconds, peak);
    if (qEnvironmentVariableIsSet("FLOOD_DEBUG")) {
        for (const QByteArray &line : corvel.output.split('\n'))
            if (line.contains("127.0.1.50") || line.contains("Warning"))
                std::fprintf(stderr, "%s\n", line.left(300).constData());
    }
    household.kill();
    household.waitForFinished();
    return 0;
}
