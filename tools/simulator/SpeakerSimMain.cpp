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

bool onlyLoopback()
{
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (interface.flags().testFlag(QNetworkInterface::IsUp) &&
            !interface.flags().testFlag(QNetworkInterface::IsLoopBack))
            return false;
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
    parser.addOptions({players, groups, boost, fault, reportAnswers, firstAddress});
    parser.process(app);

    if (!onlyLoopback()) {
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

    SpeakerSimulator simulator(household);
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
