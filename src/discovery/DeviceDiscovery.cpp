// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceDiscovery.h"

#include "DescriptionParser.h"
#include "HttpGet.h"
#include "JsonReader.h"
#include "Logging.h"
#include "NotificationCenter.h"
#include "Notifications.h"

#include <chrono>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTimer>

namespace {
DeviceDiscovery *g_shared = nullptr;
const QString category = QStringLiteral("SSDP");

// The counters a player raises when it restarts or its description changes.
QString bootMarker(const SSDPMSearchResponse &message)
{
    QStringList values;
    for (const char *name : {"BOOTID.UPNP.ORG", "CONFIGID.UPNP.ORG", "X-RINCON-BOOTSEQ"})
        values << message.header(QLatin1String(name)).value_or(QString());
    return values.join(QLatin1Char('/'));
}

} // namespace

QDeadlineTimer DeviceDiscovery::expiryOf(const SSDPMSearchResponse &message) const
{
    static const QRegularExpression maxAge(QStringLiteral("max-age\\s*=\\s*([0-9]+)"),
                                           QRegularExpression::CaseInsensitiveOption);
    const auto match =
        maxAge.match(message.header(QStringLiteral("CACHE-CONTROL")).value_or(QString()));
    const qint64 seconds = match.hasMatch() ? match.captured(1).toLongLong() : defaultMaxAgeSeconds;
    return QDeadlineTimer(
        std::chrono::seconds(std::clamp<qint64>(seconds, m_shortestMaxAgeSeconds, 86400)));
}

std::optional<std::pair<DeviceInfo, DeviceTopology>>
discoveredSpeaker(const Notification &notification)
{
    const QVariant info = notification.userInfo.value(UserInfoKey::deviceInfo);
    const QVariant topology = notification.userInfo.value(UserInfoKey::deviceTopology);
    if (info.metaType() != QMetaType::fromType<DeviceInfo>() ||
        topology.metaType() != QMetaType::fromType<DeviceTopology>())
        return std::nullopt;
    return std::pair(info.value<DeviceInfo>(), topology.value<DeviceTopology>());
}

bool answeredASearch(const Notification &notification)
{
    const QVariant response = notification.userInfo.value(UserInfoKey::response);
    return response.metaType() != QMetaType::fromType<SSDPMSearchResponse>() ||
           response.value<SSDPMSearchResponse>().announcement.isEmpty();
}

QString DiscoveryError::description() const
{
    if (!message.isEmpty())
        return message;
    return QStringLiteral("The operation couldn't be completed. (%1 error %2.)")
        .arg(domain)
        .arg(code);
}

DeviceDiscovery &DeviceDiscovery::shared()
{
    // main constructs the instance and destroys it before the application object; without
    // one (a test, a tool) a first use creates one that is never destroyed.
    if (!g_shared)
        new DeviceDiscovery;
    return *g_shared;
}

DeviceDiscovery::DeviceDiscovery(QObject *parent) : QObject(parent)
{
    if (!g_shared)
        g_shared = this;
    connect(&m_listener, &SSDPListener::announced, this, &DeviceDiscovery::handleAnnouncement);
    connect(&m_listener, &SSDPListener::networkChanged, this, [this] {
        logInfo(category, QStringLiteral("Searching again after a network change"));
        refresh();
    });
    m_refreshTimer.setInterval(refreshIntervalMs);
    connect(&m_refreshTimer, &QTimer::timeout, this, &DeviceDiscovery::refresh);
}

std::shared_ptr<SSDPDiscoverySession> DeviceDiscovery::startSession(double seconds, QString *error)
{
    SSDPMSearchRequest request;
    request.delegate = this;
    request.searchTarget = searchTarget();
    return SSDPDiscovery::defaultDiscovery().startDiscovery(request, seconds, error);
}

void DeviceDiscovery::startWatching()
{
    if (m_watching)
        return;
    m_watching = true;
    QString error;
    if (!m_listener.start(&error))
        logWarning(category, QStringLiteral("Not listening for announcements: ") + error);
    m_refreshTimer.start();
}

void DeviceDiscovery::stopWatching()
{
    m_watching = false;
    m_listener.stop();
    m_refreshTimer.stop();
    m_refreshSession.reset();
}

void DeviceDiscovery::refresh()
{
    if (m_session || m_refreshSession)
        return;
    logInfo(category, QStringLiteral("refresh"));
    QString error;
    m_refreshSession = startSession(defaultSearchSeconds, &error);
    if (!m_refreshSession) {
        logWarning(category, QStringLiteral("No background search: ") + error);
        return;
    }
    m_answersThisSearch = 0;
    m_described.clear();
    m_topologies.clear();
}

void DeviceDiscovery::handleAnnouncement(const SSDPMSearchResponse &announcement)
{
    // A player announces its root device, its UUID and each of its types; one is enough.
    if (announcement.searchTarget != searchTarget().text)
        return;
    if (announcement.isByeBye()) {
        // Only the player itself can say it is leaving: a goodbye from elsewhere is forged.
        const QString udn = announcement.udn();
        std::vector<QString> gone;
        for (const auto &[location, heard] : m_heard) {
            if (heard.udn == udn && fromItsOwnHost(announcement, heard.host, location))
                gone.push_back(location);
        }
        for (const QString &location : gone)
            depart(location, QStringLiteral("said goodbye"));
        return;
    }
    const QString location = absoluteString(announcement.location);
    if (!fromItsOwnHost(announcement, announcement.location.host(), location))
        return;
    const auto heard = m_heard.find(location);
    if (heard != m_heard.end() && heard->second.boot == bootMarker(announcement) &&
        announcement.announcement != QLatin1String("ssdp:update")) {
        heard->second.expires = expiryOf(announcement); // still there, unchanged
        return;
    }
    logInfo(category,
            QStringLiteral("Announcement (%1) from %2").arg(announcement.announcement, location));
    describe(announcement, false);
}

bool DeviceDiscovery::fromItsOwnHost(const SSDPMSearchResponse &response, const QString &host,
                                     const QString &location)
{
    if (response.sender.isNull() ||
        response.sender.isEqual(QHostAddress(host), QHostAddress::ConvertV4MappedToIPv4))
        return true;
    const QString sender = response.sender.toString();
    if (m_refusedSenders.size() < maxRefusedSendersLogged && m_refusedSenders.insert(sender).second)
        logWarning(category,
                   QStringLiteral("Ignoring SSDP from %1: it speaks for another host (%2)")
                       .arg(sender, location.left(80)));
    return false;
}

void DeviceDiscovery::depart(const QString &location, const QString &reason)
{
    m_heard.erase(location);
    logInfo(category, QStringLiteral("Speaker at %1 left: %2").arg(location, reason));
    NotificationCenter::defaultCenter().post(Notifications::deviceDeparted,
                                             {{UserInfoKey::location, QUrl(location)}});
}

void DeviceDiscovery::expireUnheard()
{
    for (const auto &[location, heard] : m_heard) {
        if (!heard.expires.hasExpired())
            continue;
        // A player that missed its announcements but still answers stays: one fetch decides.
        fetchXML(QUrl(location), [this, location,
                                  udn = heard.udn](const std::optional<DiscoveryError> &error,
                                                   const QByteArray &body) {
            const auto entry = m_heard.find(location);
            if (entry == m_heard.end() || entry->second.udn != udn)
                return; // heard anew, or gone, meanwhile
            const auto info =
                error
                    ? std::nullopt
                    : DescriptionParser::parseDeviceDescription(body, QUrl(location), std::nullopt);
            if (info && info->udn == udn) {
                entry->second.expires = QDeadlineTimer(std::chrono::seconds(defaultMaxAgeSeconds));
                logInfo(category, QStringLiteral("Speaker at %1 still answers").arg(location));
                return;
            }
            depart(location, QStringLiteral("not heard from within its max-age"));
        });
    }
}

SSDPSearchTarget DeviceDiscovery::searchTarget() const
{
    return SSDPSearchTarget::deviceType(SSDPSearchTarget::upnpOrgSchema, sonosDeviceType,
                                        sonosDeviceVersion);
}

DeviceDiscovery::~DeviceDiscovery()
{
    if (g_shared == this)
        g_shared = nullptr;
}

void DeviceDiscovery::searchForDevices(std::optional<double> timeoutSeconds)
{
    logInfo(category, QStringLiteral("searchForDevices"));
    m_answersThisSearch = 0;
    m_described.clear();
    m_topologies.clear();
    // Every speaker counts as not found until it answers, so its next announcement is
    // worth describing even if it misses this search.
    m_heard.clear();
    m_refreshSession.reset(); // this search finds what the background one would

    QString error;
    auto session = startSession(timeoutSeconds.value_or(defaultSearchSeconds), &error);
    if (!session) {
        logError(category,
                 QStringLiteral("Failed to establish socket for M-SEARCH broadcasts: ") + error);
        NotificationCenter::defaultCenter().post(Notifications::discoveryComplete);
        return;
    }
    m_session = std::move(session); // an earlier search is closed as its last owner lets go
    NotificationCenter::defaultCenter().post(Notifications::discoveryStarted);
}

void DeviceDiscovery::stopSearching()
{
    logInfo(category, QStringLiteral("stopSearching"));
    if (m_session)
        m_session->close();
    m_session.reset();
    NotificationCenter::defaultCenter().post(Notifications::discoveryComplete);
}

void DeviceDiscovery::discoveredDevice(const SSDPMSearchResponse &response,
                                       SSDPDiscoverySession *session)
{
    logInfo(category, QStringLiteral("discoveredDevice(") + response.description() +
                          QStringLiteral(", ") + session->description() + QLatin1Char(')'));
    // Only speakers are speakers: devices that answer every search with their own type
    // (routers do) are dropped.
    if (response.searchTarget != searchTarget().text) {
        logDebug(category, QStringLiteral("Ignoring an answer for another device type: ") +
                               response.searchTarget);
        return;
    }
    const QString location = absoluteString(response.location);
    if (!fromItsOwnHost(response, response.location.host(), location))
        return;
    if (++m_answersThisSearch > maxAnswersPerSearch) {
        if (m_answersThisSearch == maxAnswersPerSearch + 1) {
            logWarning(category,
                       QStringLiteral("More than %1 answers to one search: ignoring the rest")
                           .arg(maxAnswersPerSearch));
        }
        return;
    }
    if (const auto heard = m_heard.find(location); heard != m_heard.end())
        heard->second.expires = expiryOf(response);
    // Players answer each M-SEARCH of a search; one description per search is enough.
    if (m_described.count(location))
        return;
    describe(response, true);
}

const DescriptionParser::TopologyTable &DeviceDiscovery::topologyTable(const QByteArray &body)
{
    // Every player of a household serves the same document: it is parsed once per search.
    for (const auto &[seen, table] : m_topologies) {
        if (seen == body)
            return table;
    }
    if (m_topologies.size() >= maxTopologiesKept)
        m_topologies.pop_front();
    m_topologies.emplace_back(body, DescriptionParser::parseTopologyTable(body));
    return m_topologies.back().second;
}

bool DeviceDiscovery::known(const QString &location, const QString &udn) const
{
    return m_devices.count(QUrl(location)) || (!udn.isEmpty() && m_knownUdns.count(udn));
}

bool DeviceDiscovery::hasRoomFor(bool isKnown)
{
    if (isKnown || m_devices.size() < maxSpeakersKnown)
        return true;
    if (!std::exchange(m_toldTooMany, true))
        logWarning(
            category,
            QStringLiteral("%1 speakers known: describing no new ones").arg(maxSpeakersKnown));
    return false;
}

void DeviceDiscovery::describe(const SSDPMSearchResponse &response, bool answered)
{
    const QString location = absoluteString(response.location);
    const QString host = response.location.host();
    if (m_pipelines.count(location))
        return;
    const bool isKnown = known(location, response.udn());
    if (!hasRoomFor(isKnown))
        return;
    if (!m_heard.count(location)) {
        auto load = qsizetype(m_pipelineHosts.count(host));
        for (const auto &entry : m_heard)
            load += entry.second.host == host ? 1 : 0;
        if (load >= maxLocationsPerHost) {
            if (m_crowdedHosts.size() < maxRefusedSendersLogged &&
                m_crowdedHosts.insert(host).second)
                logWarning(category, QStringLiteral("%1 names more speakers than a player has; "
                                                    "ignoring all but %2")
                                         .arg(host)
                                         .arg(maxLocationsPerHost));
            return;
        }
    }
    if (m_pipelineHosts.count(host) >= maxFetchesPerHost)
        return; // the host's next answer is fetched once one of its own is done
    m_pipelines.insert(location);
    m_pipelineHosts.insert(host);
    if (answered || isKnown) {
        m_waiting.push_back(response);
    } else {
        if (m_unsolicited.size() >= maxUnsolicitedWaiting) {
            const SSDPMSearchResponse &oldest = m_unsolicited.front();
            m_pipelines.erase(absoluteString(oldest.location));
            m_pipelineHosts.erase(m_pipelineHosts.find(oldest.location.host()));
            m_unsolicited.pop_front();
        }
        m_unsolicited.push_back(response);
    }
    startWaitingPipelines();
}

void DeviceDiscovery::startWaitingPipelines()
{
    // A pipeline can end at once (a bad location), which calls back here: the outer loop
    // carries on instead of recursing.
    if (m_starting)
        return;
    m_starting = true;
    while (m_inFlight < maxPipelinesInFlight) {
        SSDPMSearchResponse response;
        if (!m_waiting.empty()) {
            response = m_waiting.front();
            m_waiting.pop_front();
        } else if (!m_unsolicited.empty() &&
                   int(m_unsolicitedRunning.size()) < maxUnsolicitedInFlight) {
            response = m_unsolicited.back();
            m_unsolicited.pop_back();
            m_unsolicitedRunning.insert(absoluteString(response.location));
        } else {
            break;
        }
        ++m_inFlight;
        fetchDeviceInfo(response);
    }
    m_starting = false;
}

void DeviceDiscovery::discoveredService(const SSDPMSearchResponse &response,
                                        SSDPDiscoverySession *session)
{
    logInfo(category, QStringLiteral("discoveredService(") + response.description() +
                          QStringLiteral(", ") + session->description() + QLatin1Char(')'));
}

void DeviceDiscovery::closedSession(SSDPDiscoverySession *session)
{
    logInfo(category, QStringLiteral("closedSession(") + session->description() + QLatin1Char(')'));
    if (m_refreshSession.get() == session) {
        m_refreshSession.reset();
        expireUnheard();
        return;
    }
    m_session.reset();
    NotificationCenter::defaultCenter().post(Notifications::discoveryComplete);
}

void DeviceDiscovery::fetchXML(const QUrl &url, XmlCompletion completion)
{
    const QString urlText = absoluteString(url);
    logInfo(QStringLiteral("Fetching XML from ") + urlText);
    // Hostile devices exist: a body past the cap counts as a failed fetch, and so does a
    // transfer not complete within the time-out, whether the server is silent or trickles.
    HttpGet::start(
        url, m_transferTimeoutMs, maxBodyBytes,
        [urlText, completion = std::move(completion)](const HttpGet::Result &result) {
            // Any HTTP status is an answer: its body is used like any other. Only transport
            // failures are errors here.
            if (!result.error.isEmpty()) {
                const DiscoveryError error{.domain = QStringLiteral("HTTP"),
                                           .message = result.error};
                logError(QStringLiteral("Failed to fetch XML from ") + urlText +
                         QStringLiteral(" - ") + error.description());
                completion(error, QByteArray());
                return;
            }
            // An empty body is a document without elements, not a failed fetch.
            logInfo(QStringLiteral("Received a response from ") + urlText);
            completion(std::nullopt, result.body);
        },
        this);
}

void DeviceDiscovery::fetchDeviceInfo(const SSDPMSearchResponse &response)
{
    const QUrl topologyUrl = response.location.resolved(QUrl(QStringLiteral("/status/topology")));
    if (!topologyUrl.isValid() || topologyUrl.host().isEmpty()) {
        handleDeviceResult(DiscoveryError::own(DiscoveryError::invalidDeviceLocation), std::nullopt,
                           std::nullopt, response);
        return;
    }
    fetchXML(response.location,
             [this, response](const std::optional<DiscoveryError> &error, const QByteArray &body) {
                 // parseDeviceDescription
                 if (error) {
                     handleDeviceResult(error, std::nullopt, std::nullopt, response);
                     return;
                 }
                 auto info = DescriptionParser::parseDeviceDescription(body, response.location,
                                                                       response.server);
                 if (!info) {
                     handleDeviceResult(DiscoveryError::own(DiscoveryError::invalidDeviceXML),
                                        std::nullopt, std::nullopt, response);
                     return;
                 }
                 confirmMove(response, std::move(*info));
             });
}

void DeviceDiscovery::confirmMove(const SSDPMSearchResponse &response, DeviceInfo info)
{
    // A speaker is who it says only if the place it was known at no longer answers as it:
    // another device reusing its UDN must not take its record.
    const auto previous = std::find_if(m_devices.begin(), m_devices.end(), [&](const auto &entry) {
        return entry.second.udn == info.udn && entry.first.url != info.location;
    });
    if (!info.udn || previous == m_devices.end()) {
        fetchTopology(response, std::move(info));
        return;
    }
    const QUrl old = previous->first;
    fetchXML(old, [this, response, old, info = std::move(info)](
                      const std::optional<DiscoveryError> &error, const QByteArray &body) mutable {
        const auto there = error
                               ? std::nullopt
                               : DescriptionParser::parseDeviceDescription(body, old, std::nullopt);
        if (there && there->udn == info.udn) {
            logWarning(category,
                       QStringLiteral("Ignoring %1: it claims to be %2, which still "
                                      "answers at %3")
                           .arg(absoluteString(response.location), *info.udn, absoluteString(old)));
            handleDeviceResult(DiscoveryError::own(DiscoveryError::invalidDeviceLocation),
                               std::nullopt, std::nullopt, response);
            return;
        }
        fetchTopology(response, std::move(info));
    });
}

void DeviceDiscovery::fetchTopology(const SSDPMSearchResponse &response, DeviceInfo info)
{
    const QUrl topologyUrl = response.location.resolved(QUrl(QStringLiteral("/status/topology")));
    const QString key = DescriptionParser::udnKey(info);
    fetchXML(topologyUrl, [this, response, topologyUrl, info = std::move(info),
                           key](const std::optional<DiscoveryError> &topologyError,
                                const QByteArray &topologyBody) {
        // Never fails the pipeline.
        DeviceTopology topology;
        if (topologyError) {
            logError(QStringLiteral("Failed to fetch topology from ") +
                     absoluteString(topologyUrl));
            topology = DescriptionParser::ownGroup(key);
        } else {
            topology = DescriptionParser::topologyFor(topologyTable(topologyBody), key);
        }
        handleDeviceResult(std::nullopt, info, topology, response);
    });
}

void DeviceDiscovery::handleDeviceResult(const std::optional<DiscoveryError> &error,
                                         const std::optional<DeviceInfo> &info,
                                         const std::optional<DeviceTopology> &topology,
                                         const SSDPMSearchResponse &response)
{
    // Every pipeline ends here, once: when it is done, its place goes to the next answer.
    const QString location = absoluteString(response.location);
    const auto next = qScopeGuard([this, location, host = response.location.host()] {
        m_pipelines.erase(location);
        m_pipelineHosts.erase(m_pipelineHosts.find(host));
        m_unsolicitedRunning.erase(location);
        --m_inFlight;
        startWaitingPipelines();
    });
    if (error || !info || !topology) {
        logWarning(category, QStringLiteral("fetchDeviceInfo failed: ") +
                                 (error ? error->description() : QStringLiteral("no error")));
        return;
    }
    m_described.insert(location);
    // Answers that came at once were all let in while there was room: the cap holds here.
    if (!hasRoomFor(known(location, info->udn.value_or(QString()))))
        return;
    if (info->modelName == QStringLiteral("Sonos BOOST")) {
        logInfo(QStringLiteral("Ignoring BOOST device at ") + absoluteString(info->location));
        return;
    }
    // A player that moved is heard at its new location only.
    const QString udn = info->udn.value_or(response.udn());
    std::erase_if(m_heard, [&udn](const auto &entry) { return entry.second.udn == udn; });
    m_heard[location] = {udn, bootMarker(response), expiryOf(response), response.location.host()};
    std::erase_if(m_devices, [&](const auto &entry) {
        return entry.second.udn == info->udn && entry.first.url != info->location;
    });
    m_devices.insert_or_assign(info->location, *info);
    if (info->udn)
        m_knownUdns.insert(*info->udn);
    NotificationCenter::defaultCenter().post(
        Notifications::deviceDiscovered,
        {{UserInfoKey::response, QVariant::fromValue(response)},
         {UserInfoKey::deviceInfo, QVariant::fromValue(*info)},
         {UserInfoKey::deviceTopology, QVariant::fromValue(*topology)}});
}
