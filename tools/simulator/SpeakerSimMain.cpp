// SPDX-License-Identifier: GPL-3.0-or-later
// A simulated Sonos household for manual runs, demos and benchmarks. It answers searches only
// on loopback and refuses to start where other interfaces are up: run it through scripts/netns.
#include "SpeakerSimulator.h"

#include <cstdio>
#include <ctime>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QNetworkInterface>
#include <QTimer>

namespace {
qint64 monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Whether every interface that is up is loopback, or holds only addresses of the ranges kept
// for documentation (192.0.2.0/24, 198.51.100.0/24, 203.0.113.0/24), which no real network
// uses: the veths of a test's own namespaces.
bool onlyPrivateTestNetworks()
{
    const auto documentation = [](const QHostAddress &ip) {
        for (const char *range : {"192.0.2.0/24", "198.51.100.0/24", "203.0.113.0/24"}) {
            if (ip.isInSubnet(QHostAddress::parseSubnet(QLatin1String(range))))
                return true;
        }
        return false;
    };
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (!interface.flags().testFlag(QNetworkInterface::IsUp) ||
            interface.flags().testFlag(QNetworkInterface::IsLoopBack))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (!documentation(entry.ip()) && !entry.ip().isLinkLocal())
                return false;
        }
    }
    return true;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corvel-speaker-sim"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Simulates a Sonos household on loopback addresses 127.0.1.1, 127.0.1.2, ...\n"
        "Run it inside a private network namespace:\n"
        "  scripts/netns build/bin/corvel-speaker-sim --players 3"));
    parser.addHelpOption();
    const QCommandLineOption players({QStringLiteral("p"), QStringLiteral("players")},
                                     QStringLiteral("Number of players (default 3)."),
                                     QStringLiteral("n"), "3");
    const QCommandLineOption groups({QStringLiteral("g"), QStringLiteral("groups")},
                                    QStringLiteral("Number of zone groups (default 1)."),
                                    QStringLiteral("n"), "1");
    const QCommandLineOption boost(QStringLiteral("boost"), QStringLiteral("Add a Sonos BOOST."));
    const QCommandLineOption fault(
        QStringLiteral("fault"),
        QStringLiteral("Give player INDEX (from 0) a fault: description-404, description-html, "
                       "description-garbage, description-slow, description-huge, "
                       "description-trickle, topology-missing, "
                       "topology-empty, topology-blank, router, silent. Repeatable."),
        QStringLiteral("index:fault"));
    const QCommandLineOption reportAnswers(
        QStringLiteral("report-answers"),
        QStringLiteral(
            "Print \"answer INDEX NANOSECONDS\" (monotonic clock) for every answer sent."));
    const QCommandLineOption firstAddress(
        QStringLiteral("first-address"),
        QStringLiteral("The first player answers from 127.0.1.N (default 1): a router that "
                       "handed out new addresses."),
        QStringLiteral("N"), "1");
    const QCommandLineOption address(
        QStringLiteral("address"),
        QStringLiteral("Players answer from this address on, one more for each (a veth in a "
                       "test's own namespace, in 192.0.2.0/24, 198.51.100.0/24 or "
                       "203.0.113.0/24), instead of loopback."),
        QStringLiteral("IPv4"));
    const QCommandLineOption model(
        QStringLiteral("model"),
        QStringLiteral("Give player INDEX (from 0) another model, such as 1:S18:Sonos One (an "
                       "AirPlay speaker itself) or 1:S1:Sonos PLAY:1. Repeatable."),
        QStringLiteral("index:number:name"));
    const QCommandLineOption renderer(
        QStringLiteral("renderer"),
        QStringLiteral("The first player passes its AVTransport and RenderingControl calls on to "
                       "the UPnP renderer described at URL (it shares the player's address). "
                       "Every call is printed as \"control INDEX ACTION\"."),
        QStringLiteral("URL"));
    parser.addOptions(
        {players, groups, boost, fault, reportAnswers, firstAddress, address, model, renderer});
    parser.process(app);

    if (!onlyPrivateTestNetworks()) {
        std::fprintf(stderr,
                     "Refusing to answer searches on a real network: run this through "
                     "scripts/netns, which gives it a private network with only loopback.\n");
        return 2;
    }

    auto household = SpeakerSimulator::household(parser.value(players).toInt(),
                                                 parser.value(groups).toInt(), parser.isSet(boost),
                                                 std::max(1, parser.value(firstAddress).toInt()));
    for (const QString &entry : parser.values(fault)) {
        const int index = entry.section(QLatin1Char(':'), 0, 0).toInt();
        const auto kind = SpeakerSimulator::faultFromName(entry.section(QLatin1Char(':'), 1));
        if (!kind || index < 0 || index >= int(household.size())) {
            std::fprintf(stderr, "Bad --fault %s\n", qPrintable(entry));
            return 2;
        }
        household[size_t(index)].fault = *kind;
    }

    for (const QString &entry : parser.values(model)) {
        const int index = entry.section(QLatin1Char(':'), 0, 0).toInt();
        if (index < 0 || index >= int(household.size()) || entry.count(QLatin1Char(':')) < 2) {
            std::fprintf(stderr, "Bad --model %s\n", qPrintable(entry));
            return 2;
        }
        household[size_t(index)].modelNumber = entry.section(QLatin1Char(':'), 1, 1);
        household[size_t(index)].modelName = entry.section(QLatin1Char(':'), 2);
    }
    if (parser.isSet(address)) {
        const QHostAddress first(parser.value(address));
        if (first.protocol() != QAbstractSocket::IPv4Protocol) {
            std::fprintf(stderr, "Bad --address %s\n", qPrintable(parser.value(address)));
            return 2;
        }
        for (size_t i = 0; i < household.size(); ++i)
            household[i].address = QHostAddress(first.toIPv4Address() + quint32(i));
    }

    if (parser.isSet(renderer) && !household.empty())
        household.front().renderer = QUrl(parser.value(renderer));

    SpeakerSimulator simulator(household);
    QObject::connect(&simulator, &SpeakerSimulator::controlled,
                     [](int index, const QString &action) {
                         std::printf("control %d %s\n", index, qPrintable(action));
                         std::fflush(stdout);
                     });
    QString error;
    if (!simulator.start(&error)) {
        std::fprintf(stderr, "Cannot start: %s\n", qPrintable(error));
        return 1;
    }
    const bool report = parser.isSet(reportAnswers);
    if (report) {
        QObject::connect(&simulator, &SpeakerSimulator::answered, [](int index) {
            std::printf("answer %d %lld\n", index, static_cast<long long>(monotonicNanoseconds()));
        });
    }
    for (size_t i = 0; i < household.size(); ++i) {
        const SimulatedPlayer &p = household[i];
        std::printf("player %zu %s \"%s\" %s %s %s\n", i, qPrintable(p.location().toString()),
                    qPrintable(p.roomName), qPrintable(p.modelName),
                    p.coordinator ? "coordinator" : "member",
                    qPrintable(SpeakerSimulator::faultName(p.fault)));
    }
    std::printf("ready\n");
    std::fflush(stdout);
    if (report) {
        // Flush answer lines promptly for a reader on the other end of a pipe.
        QTimer *flush = new QTimer(&app);
        QObject::connect(flush, &QTimer::timeout, [] { std::fflush(stdout); });
        flush->start(20);
    }
    return app.exec();
}
