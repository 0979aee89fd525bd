// SPDX-License-Identifier: GPL-3.0-or-later
// Searches a simulated household over real sockets, inside a private network namespace.
#include "DescriptionParser.h"
#include "DeviceDiscovery.h"
#include "LogCapture.h"
#include "NetworkGuard.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "Settings.h"
#include "SpeakerSimulator.h"

#include <QProcess>
#include <QTest>

namespace {
struct Discovered
{
    SSDPMSearchResponse response;
    DeviceInfo info;
    DeviceTopology topology;
};

// Records the discovery events in order, with the payload of each "deviceDiscovered".
class Events
{
public:
    Events()
    {
        for (const QString &name :
             {Notifications::discoveryStarted, Notifications::deviceDiscovered,
              Notifications::discoveryComplete}) {
            m_tokens << NotificationCenter::defaultCenter().addObserver(
                name, [this](const Notification &n) {
                    names << n.name;
                    if (n.name == Notifications::deviceDiscovered) {
                        discovered.push_back(
                            {n.userInfo.value(UserInfoKey::response).value<SSDPMSearchResponse>(),
                             n.userInfo.value(UserInfoKey::deviceInfo).value<DeviceInfo>(),
                             n.userInfo.value(UserInfoKey::deviceTopology)
                                 .value<DeviceTopology>()});
                        QCOMPARE(n.userInfo.size(), 3);
                    }
                });
        }
    }
    ~Events()
    {
        for (auto token : m_tokens)
            NotificationCenter::defaultCenter().removeObserver(token);
    }
    int count(const QString &name) const { return int(names.count(name)); }
    const Discovered *byLocation(const QUrl &location) const
    {
        for (const Discovered &d : discovered) {
            if (d.info.location == location)
                return &d;
        }
        return nullptr;
    }

    QStringList names;
    std::vector<Discovered> discovered;

private:
    QList<NotificationCenter::Token> m_tokens;
};

bool runIp(const QStringList &arguments)
{
    return QProcess::execute(QStringLiteral("ip"), arguments) == 0;
}
} // namespace

class TestDeviceDiscovery : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { CORVEL_REQUIRE_PRIVATE_NETWORK(); }
    void init() { m_settings = Settings::load(std::make_unique<MemorySettingsStorage>()); }

    void searchesAHousehold();
    void twoResponsesGiveTwoEvents();
    void searchIsRepeatedAfterASecond();
    void searchWithoutAnswersOnlyCompletes();
    void stopWhileIdlePostsCompleteOnce();
    void stopDuringSearch();
    void newSearchClosesTheEarlierOne();
    void socketFailureCompletesWithoutStarting();
    void playerFaults_data();
    void playerFaults();
    void answerFloodIsBounded();

private:
    std::unique_ptr<Settings> m_settings;
};

void TestDeviceDiscovery::searchesAHousehold()
{
    auto household = SpeakerSimulator::household(5, 2, true);
    household[2].fault = SimulatedPlayer::Description404;
    household[3].fault = SimulatedPlayer::TopologyMissing;
    SpeakerSimulator simulator(household);
    QString error;
    QVERIFY2(simulator.start(&error), qPrintable(error));

    // A speaker known from the settings is marked not found when the search starts.
    DeviceInfo known;
    known.location = QUrl(QStringLiteral("http://127.0.9.9:1400/xml/device_description.xml"));
    m_settings->mergeDiscoveredSpeaker(known, DeviceTopology{true, QStringLiteral("g")});

    DeviceDiscovery discovery(m_settings.get());
    Events events;
    LogCapture capture;
    discovery.searchForDevices(0.6);
    QVERIFY(discovery.session());
    QVERIFY(m_settings->activeDevices().empty());
    QCOMPARE(events.names, QStringList{"discoveryStarted"});
    QTRY_COMPARE(events.count("discoveryComplete"), 1);
    QTRY_COMPARE(events.count("deviceDiscovered"), 4);
    QVERIFY(!discovery.session());
    QCOMPARE(events.names.first(), QStringLiteral("discoveryStarted"));

    struct Expected
    {
        int player;
        bool coordinator;
        QString group;
    };
    const QList<Expected> expected = {{0, true, "GROUP_0:1"},
                                      {1, true, "GROUP_1:2"},
                                      {3, true, household[3].udn}, // no topology: its own group
                                      {4, false, "GROUP_0:1"}};
    for (const Expected &e : expected) {
        const SimulatedPlayer &player = household[size_t(e.player)];
        const Discovered *found = events.byLocation(player.location());
        QVERIFY2(found, qPrintable(player.roomName));
        QCOMPARE(found->response.location, player.location());
        QCOMPARE(*found->info.roomName, player.roomName);
        QCOMPARE(*found->info.udn, QStringLiteral("uuid:") + player.udn);
        QCOMPARE(*found->info.server, QStringLiteral("Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)"));
        QCOMPARE(found->info.iconList.size(), 1u);
        QCOMPARE(found->info.iconList[0]->url->host(), player.address.toString());
        QCOMPARE(found->topology.coordinator, e.coordinator);
        QCOMPARE(found->topology.group, e.group);
    }
    QCOMPARE(discovery.devices().size(), 4u);

    const QString boost = household[5].location().toString();
    QVERIFY(capture.contains(LogLevel::Info, QStringLiteral("SSDP"),
                             QStringLiteral("searchForDevices")));
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             QStringLiteral("Ignoring BOOST device at ") + boost));
    QVERIFY(capture.contains(
        LogLevel::Warning, QStringLiteral("SSDP"),
        QStringLiteral("fetchDeviceInfo failed: The operation couldn't be completed. "
                       "(InvalidDeviceXMLErrorDomain error -1.)")));
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             QStringLiteral("Fetching XML from ") +
                                 household[0].location().toString()));
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             "Received a response from http://127.0.1.1:1400/status/topology"));
    for (const QString &error : capture.messages(LogLevel::Error))
        QVERIFY2(!error.startsWith("Failed to fetch topology"), qPrintable(error)); // quiet
    const QStringList infos = capture.messages(LogLevel::Info);
    QVERIFY(std::any_of(infos.begin(), infos.end(), [](const QString &line) {
        return line.startsWith(
                   "discoveredDevice(SSDPMSearchResponse(location: http://127.0.1.1:1400/") &&
               line.contains("SSDPDiscoverySession(");
    }));
    QVERIFY(std::any_of(infos.begin(), infos.end(),
                        [](const QString &l) { return l.startsWith("closedSession("); }));
}

void TestDeviceDiscovery::twoResponsesGiveTwoEvents()
{
    auto household = SpeakerSimulator::household(1, 1);
    household[0].answersPerSearch = 2;
    SpeakerSimulator simulator(household);
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    discovery.searchForDevices(0.5);
    QTRY_COMPARE(events.count("deviceDiscovered"), 2);
    QCOMPARE(events.discovered[0].info.location, events.discovered[1].info.location);
    QCOMPARE(simulator.httpRequests(), 4); // description and topology, twice
}

void TestDeviceDiscovery::searchIsRepeatedAfterASecond()
{
    SpeakerSimulator simulator(SpeakerSimulator::household(1, 1));
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    discovery.searchForDevices(1.5);
    QTRY_COMPARE(events.count("discoveryComplete"), 1);
    QCOMPARE(simulator.searchesReceived(), 2);
    QTRY_COMPARE(events.count("deviceDiscovered"), 2);
}

void TestDeviceDiscovery::searchWithoutAnswersOnlyCompletes()
{
    auto household = SpeakerSimulator::household(2, 1);
    for (auto &player : household)
        player.fault = SimulatedPlayer::SilentOnSsdp;
    SpeakerSimulator simulator(household);
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    discovery.searchForDevices(0.3);
    QTRY_COMPARE(events.count("discoveryComplete"), 1);
    QTest::qWait(100);
    QCOMPARE(events.names, QStringList({"discoveryStarted", "discoveryComplete"}));
    QCOMPARE(simulator.searchesReceived(), 1);
}

void TestDeviceDiscovery::stopWhileIdlePostsCompleteOnce()
{
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    LogCapture capture;
    discovery.stopSearching();
    QCOMPARE(events.names, QStringList({"discoveryComplete"}));
    QVERIFY(
        capture.contains(LogLevel::Info, QStringLiteral("SSDP"), QStringLiteral("stopSearching")));
    QVERIFY(!discovery.session());
}

void TestDeviceDiscovery::stopDuringSearch()
{
    SpeakerSimulator simulator(SpeakerSimulator::household(1, 1));
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    discovery.searchForDevices(0.3);
    discovery.stopSearching();
    QCOMPARE(events.names, QStringList({"discoveryStarted", "discoveryComplete"}));
    QTest::qWait(500); // past the time-out: the closed session reports nothing more
    QCOMPARE(events.count("discoveryComplete"), 1);
}

void TestDeviceDiscovery::newSearchClosesTheEarlierOne()
{
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    discovery.searchForDevices(0.3);
    SSDPDiscoverySession *first = discovery.session();
    discovery.searchForDevices(0.3);
    QVERIFY(discovery.session() != first);
    QTRY_COMPARE(events.count("discoveryComplete"), 1);
    QTest::qWait(400);
    QCOMPARE(events.names,
             QStringList({"discoveryStarted", "discoveryStarted", "discoveryComplete"}));
}

void TestDeviceDiscovery::socketFailureCompletesWithoutStarting()
{
    QVERIFY(runIp({"link", "set", "lo", "down"}));
    DeviceDiscovery discovery(m_settings.get());
    Events events;
    LogCapture capture;
    discovery.searchForDevices(8.0);
    QVERIFY(runIp({"link", "set", "lo", "up"}));
    QVERIFY(runIp({"route", "replace", "239.0.0.0/8", "dev", "lo", "src", "127.0.0.1"}));
    QCOMPARE(events.names, QStringList({"discoveryComplete"}));
    QVERIFY(!discovery.session());
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("SSDP"),
                             QStringLiteral("Failed to establish socket for M-SEARCH broadcasts: "
                                            "no network interface is up and able to multicast")));
}

void TestDeviceDiscovery::playerFaults_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<bool>("announced");
    QTest::addColumn<QString>("line"); // a line that must be logged
    const QString invalid = QStringLiteral("fetchDeviceInfo failed: The operation couldn't be "
                                           "completed. (InvalidDeviceXMLErrorDomain error -1.)");
    QTest::newRow("HTML page") << int(SimulatedPlayer::DescriptionHtml) << false << invalid;
    QTest::newRow("garbage") << int(SimulatedPlayer::DescriptionGarbage) << false << invalid;
    QTest::newRow("no answer within the time-out")
        << int(SimulatedPlayer::DescriptionSlow) << false
        << "Failed to fetch XML from http://127.0.1.1:1400/xml/device_description.xml - ";
    QTest::newRow("body trickling in past the time-out")
        << int(SimulatedPlayer::DescriptionTrickle) << false
        << "Failed to fetch XML from http://127.0.1.1:1400/xml/device_description.xml - No "
           "complete response within 300 ms";
    QTest::newRow("body over 1 MiB")
        << int(SimulatedPlayer::DescriptionHuge) << false
        << "Failed to fetch XML from http://127.0.1.1:1400/xml/device_description.xml - The "
           "response is larger than 1 MiB";
    QTest::newRow("topology without players")
        << int(SimulatedPlayer::TopologyEmpty) << true
        << "Received a response from http://127.0.1.1:1400/status/topology";
}

void TestDeviceDiscovery::playerFaults()
{
    QFETCH(int, fault);
    QFETCH(bool, announced);
    QFETCH(QString, line);
    auto household = SpeakerSimulator::household(1, 1);
    household[0].fault = SimulatedPlayer::Fault(fault);
    SpeakerSimulator simulator(household);
    QVERIFY(simulator.start(nullptr));
    DeviceDiscovery discovery(m_settings.get());
    discovery.setTransferTimeout(300);
    Events events;
    LogCapture capture;
    discovery.searchForDevices(0.2);
    QTRY_VERIFY(capture.countStartingWith(line) > 0);
    QTRY_COMPARE(events.count("discoveryComplete"), 1);
    QTest::qWait(100);
    QCOMPARE(events.count("deviceDiscovered"), announced ? 1 : 0);
    if (announced) {
        QCOMPARE(events.discovered[0].topology.coordinator, true);
        QCOMPARE(events.discovered[0].topology.group, household[0].udn);
    } else {
        const QStringList warnings = capture.messages(LogLevel::Warning);
        QCOMPARE(warnings.size(), 1);
        QVERIFY(warnings[0].startsWith(QStringLiteral("fetchDeviceInfo failed: ")));
    }
}

// Answers naming 1,124 different ports where nothing listens: only 32 fetches run at once,
// only the first 1,024 answers are fetched at all, and the rest are refused with one line.
void TestDeviceDiscovery::answerFloodIsBounded()
{
    DeviceDiscovery discovery(m_settings.get());
    discovery.setTransferTimeout(2000);
    LogCapture capture;
    discovery.searchForDevices(5);
    QVERIFY(discovery.session());
    const int answers = DeviceDiscovery::maxAnswersPerSearch + 100;
    for (int i = 0; i < answers; ++i) {
        SSDPMSearchResponse response;
        response.location = QUrl(QStringLiteral("http://127.0.0.1:%1/xml/d.xml").arg(20000 + i));
        discovery.discoveredDevice(response, discovery.session());
    }
    const auto count = [&capture](const QString &prefix) {
        return capture.countStartingWith(prefix);
    };
    QCOMPARE(count("Fetching XML from "), DeviceDiscovery::maxPipelinesInFlight);
    QCOMPARE(count("More than 1024 answers to one search: ignoring the rest"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(count("fetchDeviceInfo failed: "),
                              DeviceDiscovery::maxAnswersPerSearch, 30000);
    QCOMPARE(count("Fetching XML from "), DeviceDiscovery::maxAnswersPerSearch);
    QCOMPARE(count("Fetching XML from http://127.0.0.1:21023/"), 1);
    QCOMPARE(count("Fetching XML from http://127.0.0.1:21024/"), 0);

    // A new search counts afresh.
    discovery.searchForDevices(5);
    SSDPMSearchResponse response;
    response.location = QUrl(QStringLiteral("http://127.0.0.1:19999/xml/d.xml"));
    discovery.discoveredDevice(response, discovery.session());
    QCOMPARE(count("Fetching XML from http://127.0.0.1:19999/"), 1);
    discovery.stopSearching();
}

QTEST_GUILESS_MAIN(TestDeviceDiscovery)
#include "TestDeviceDiscovery.moc"
