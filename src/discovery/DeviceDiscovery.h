// SPDX-License-Identifier: GPL-3.0-or-later
// Finds Sonos players: one timed SSDP search at a time, and for every answer a pipeline
// that fetches the player's description and zone topology and announces the player.
#pragma once

#include "DescriptionParser.h"
#include "DeviceInfo.h"
#include "SSDPDiscovery.h"
#include "SSDPListener.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <QDeadlineTimer>
#include <QObject>
#include <QTimer>
#include <set>

struct Notification;

// The description and topology that a "deviceDiscovered" event carries, or nothing when either
// is missing or of another type.
std::optional<std::pair<DeviceInfo, DeviceTopology>>
discoveredSpeaker(const Notification &notification);
// False when the "deviceDiscovered" event's speaker only announced itself and did not answer
// a search; an event without the datagram counts as an answer.
bool answeredASearch(const Notification &notification);

// An error of the discovery pipeline: the HTTP client's, or one of its own two domains.
struct DiscoveryError
{
    static inline const QString invalidDeviceLocation =
        QStringLiteral("InvalidDeviceLocationErrorDomain");
    static inline const QString invalidDeviceXML = QStringLiteral("InvalidDeviceXMLErrorDomain");

    QString domain;
    int code = -1;
    QString message; // the client's text; empty for the own domains

    // An error of one of the own domains (code -1).
    static DiscoveryError own(const QString &domain) { return {domain, -1, QString()}; }
    QString description() const;
};

class DeviceDiscovery : public QObject, public SSDPDiscoveryDelegate
{
    Q_OBJECT

public:
    // Players answer within milliseconds; a server still sending after 5 s is not a player,
    // and a short deadline keeps slow servers from holding the fetches for long.
    static constexpr int defaultTransferTimeoutMs = 5000;
    static constexpr qint64 maxBodyBytes = 1024 * 1024;
    // A flood of answers must not become a flood of connections: at most this many answers
    // are fetched at once (the rest wait their turn), and at most maxAnswersPerSearch of one
    // search are fetched at all.
    static constexpr int maxPipelinesInFlight = 32;
    static constexpr int maxAnswersPerSearch = 1024;
    // A player describes itself at one location; a host that names more than this many is
    // not believed beyond them (a flood of new UUIDs from one device stays bounded), and no
    // host has more than maxFetchesPerHost of its locations fetched at once.
    static constexpr int maxLocationsPerHost = 4;
    static constexpr int maxFetchesPerHost = 2;
    // Answers to Corvel's searches and speakers already known are fetched first. Announcements
    // of unknown speakers wait in a short queue of their own (newest first, the oldest dropped
    // when it is full) and hold at most maxUnsolicitedInFlight fetches, so a flood of them
    // never stands between a search and its answers.
    static constexpr size_t maxUnsolicitedWaiting = 64;
    static constexpr int maxUnsolicitedInFlight = 24;
    // No home has this many players: past it, only speakers already known are described.
    static constexpr size_t maxSpeakersKnown = 256;

    // The process-wide discovery: the first one constructed, else created on first use.
    static DeviceDiscovery &shared();

    // How long every search lasts.
    static constexpr double defaultSearchSeconds = 8.0;

    // The first instance becomes the shared one until it is destroyed.
    explicit DeviceDiscovery(QObject *parent = nullptr);
    ~DeviceDiscovery() override;

    const QString sonosDeviceType = QStringLiteral("ZonePlayer");
    const int sonosDeviceVersion = 1;

    // Starts a search lasting timeoutSeconds (defaultSearchSeconds when absent); closes an
    // earlier one. "discoveryStarted" is posted before any answer can arrive, so observers
    // may prepare for the search (the controller marks known speakers not found yet).
    void searchForDevices(std::optional<double> timeoutSeconds);
    // Ends the search in progress, if any, and posts "discoveryComplete".
    void stopSearching();

    // How often a background search runs while watching, and how long a player counts as
    // present after it was last heard when it does not say (CACHE-CONTROL max-age).
    static constexpr int refreshIntervalMs = 10 * 60 * 1000;
    static constexpr int defaultMaxAgeSeconds = 1800;
    // The shortest max-age believed: a player that asks for less is still checked on no more
    // often than this.
    static constexpr int defaultShortestMaxAgeSeconds = 60;

    // Keeps the speaker list current between searches: hears the players' announcements and
    // searches in the background on a network change and every refreshIntervalMs. A new or
    // changed player is described and posted as "deviceDiscovered", as in a search; one that
    // says goodbye or outlives its max-age unheard is posted as "deviceDeparted".
    void startWatching();
    void stopWatching();
    bool watching() const { return m_watching; }
    // A background search: its players are posted as in any search, but neither
    // "discoveryStarted" nor "discoveryComplete" is; skipped while another search runs.
    void refresh();
    void handleAnnouncement(const SSDPMSearchResponse &announcement);
    SSDPListener &listener() { return m_listener; }

    // What every search looks for: urn:schemas-upnp-org:device:ZonePlayer:1.
    SSDPSearchTarget searchTarget() const;

    // The running search, or null.
    SSDPDiscoverySession *session() const { return m_session.get(); }
    // Every player described since the program started, by location.
    const std::map<LocationKey, DeviceInfo> &devices() const { return m_devices; }

    // How long each HTTP transfer may take in all; 5 seconds unless a test shortens it.
    void setTransferTimeout(int ms) { m_transferTimeoutMs = ms; }
    // The shortest max-age believed; defaultShortestMaxAgeSeconds unless a test shortens it.
    void setShortestMaxAge(int seconds) { m_shortestMaxAgeSeconds = seconds; }

    void discoveredDevice(const SSDPMSearchResponse &response,
                          SSDPDiscoverySession *session) override;
    void discoveredService(const SSDPMSearchResponse &response,
                           SSDPDiscoverySession *session) override;
    void closedSession(SSDPDiscoverySession *session) override;

private:
    // Until when a player counts as present unheard: its message's max-age, within bounds.
    QDeadlineTimer expiryOf(const SSDPMSearchResponse &message) const;
    using XmlCompletion =
        std::function<void(const std::optional<DiscoveryError> &, const QByteArray &)>;
    // GETs url and completes with (error, body); the body is empty with an error.
    void fetchXML(const QUrl &url, XmlCompletion completion);
    void fetchDeviceInfo(const SSDPMSearchResponse &response);
    // A search for players of searchTarget() lasting seconds; nothing, with *error, when no
    // socket could be opened.
    std::shared_ptr<SSDPDiscoverySession> startSession(double seconds, QString *error);
    // The parsed form of a topology document, parsed only when this search has not seen it.
    const DescriptionParser::TopologyTable &topologyTable(const QByteArray &body);
    static constexpr size_t maxTopologiesKept = 4;
    // Queues a pipeline for the player, unless one for its location is queued or running;
    // answered: the datagram answered one of Corvel's searches.
    void describe(const SSDPMSearchResponse &response, bool answered);
    // Whether the speaker at location, or with udn, was described before.
    bool known(const QString &location, const QString &udn) const;
    // Whether a speaker may be added: known already, or fewer than maxSpeakersKnown known;
    // the first refusal is logged.
    bool hasRoomFor(bool isKnown);
    // Ends the pipeline when the description claims a UDN described at another location that
    // still answers as that speaker (one fetch); otherwise goes on with the topology.
    void confirmMove(const SSDPMSearchResponse &response, DeviceInfo info);
    void fetchTopology(const SSDPMSearchResponse &response, DeviceInfo info);
    // Starts waiting pipelines while there is room.
    void startWaitingPipelines();
    // Whether the datagram came from host, the one its location names (or not from the
    // network): a player always answers for itself, and a device that names another host would
    // make Corvel fetch from wherever it says. A refusal is logged once per sender.
    bool fromItsOwnHost(const SSDPMSearchResponse &response, const QString &host,
                        const QString &location);
    static constexpr size_t maxRefusedSendersLogged = 256;
    // Posts "deviceDeparted" for the location and forgets having heard it.
    void depart(const QString &location, const QString &reason);
    // Departs each player unheard within its max-age, once one fetch shows it no longer
    // answers; one that answers counts as heard.
    void expireUnheard();
    void handleDeviceResult(const std::optional<DiscoveryError> &error,
                            const std::optional<DeviceInfo> &info,
                            const std::optional<DeviceTopology> &topology,
                            const SSDPMSearchResponse &response);

    std::shared_ptr<SSDPDiscoverySession> m_session;
    std::shared_ptr<SSDPDiscoverySession> m_refreshSession;
    // What was last heard from each described player, by location text.
    struct Heard
    {
        QString udn;
        QString boot; // the boot and configuration counters it announced
        QDeadlineTimer expires;
        QString host;
    };
    std::map<QString, Heard> m_heard;
    std::set<QString> m_pipelines;          // locations queued or being described
    std::set<QString> m_described;          // locations described in the current search
    std::set<QString> m_refusedSenders;     // senders whose refusal was logged
    std::multiset<QString> m_pipelineHosts; // the host of each location in m_pipelines
    std::set<QString> m_crowdedHosts;       // hosts whose refusal was logged
    std::deque<std::pair<QByteArray, DescriptionParser::TopologyTable>> m_topologies;
    SSDPListener m_listener;
    QTimer m_refreshTimer;
    bool m_watching = false;
    std::map<LocationKey, DeviceInfo> m_devices;
    int m_transferTimeoutMs = defaultTransferTimeoutMs;
    int m_shortestMaxAgeSeconds = defaultShortestMaxAgeSeconds;
    std::deque<SSDPMSearchResponse> m_waiting;     // answers and known speakers, in order
    std::deque<SSDPMSearchResponse> m_unsolicited; // announcements of unknown ones
    std::set<QString> m_unsolicitedRunning;        // their locations being fetched
    std::set<QString> m_knownUdns;                 // of the speakers in m_devices
    bool m_toldTooMany = false;
    int m_inFlight = 0;
    int m_answersThisSearch = 0;
    bool m_starting = false;
};
