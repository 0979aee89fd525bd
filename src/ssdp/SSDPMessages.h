// SPDX-License-Identifier: GPL-3.0-or-later
// SSDP search targets, the M-SEARCH request and the parsing of search responses.
#pragma once

#include <optional>
#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QUrl>

class SSDPDiscoveryDelegate;

// A search target; a device-type target is "urn:<schema>:device:<type>:<version>".
struct SSDPSearchTarget
{
    // The UPnP forum's schema domain.
    static inline const QString upnpOrgSchema = QStringLiteral("schemas-upnp-org");

    static SSDPSearchTarget deviceType(const QString &schema, const QString &type, int version);

    QString text;
};

// One M-SEARCH: who gets the responses, what is searched for, and the MX wait.
struct SSDPMSearchRequest
{
    static constexpr int defaultMaxWaitTime = 1; // MX, seconds

    SSDPDiscoveryDelegate *delegate = nullptr;
    SSDPSearchTarget searchTarget;
    int maxWaitTime = defaultMaxWaitTime;
    QList<QPair<QByteArray, QByteArray>> otherHeaders;

    // The datagram, as the UPnP Device Architecture writes it (CR LF lines, empty last line).
    QByteArray datagram() const;
};

// A response to an M-SEARCH, or a device's own announcement (NOTIFY), as received.
struct SSDPMSearchResponse
{
    enum class Kind { Device, Service };

    QUrl location;                 // LOCATION, an absolute http URL; empty in a byebye
    std::optional<QString> server; // SERVER
    QString searchTarget;          // ST, or an announcement's NT
    QString usn;                   // USN
    // An announcement's NTS ("ssdp:alive", "ssdp:update", "ssdp:byebye"); empty in a response.
    QString announcement;
    Kind kind = Kind::Device;
    // Every header in arrival order; names as received, values trimmed.
    QList<QPair<QString, QString>> headers;
    QByteArray raw;
    // The address the datagram came from; null when it did not come from the network.
    QHostAddress sender;

    // The first header of that name (case-insensitive), or nothing.
    std::optional<QString> header(const QString &name) const;
    // A one-line text for log lines.
    QString description() const;

    // Largest datagram considered; anything bigger is not an SSDP response.
    static constexpr qsizetype maxDatagramSize = 8192;
    // What the sockets read of a datagram: one byte more than the largest tells a bigger one.
    static constexpr qsizetype readBound = maxDatagramSize + 1;

    // Parses one datagram. Returns nothing for anything that is not an "HTTP/1.1 200 OK"
    // search response with a valid absolute http LOCATION naming a device or service type;
    // *reason then says why (for a debug line).
    static std::optional<SSDPMSearchResponse> parse(const QByteArray &datagram, QString *reason);
    // Parses a "NOTIFY * HTTP/1.1" announcement the same way (NT for ST); a byebye needs no
    // LOCATION.
    static std::optional<SSDPMSearchResponse> parseAnnouncement(const QByteArray &datagram,
                                                                QString *reason);

    bool isByeBye() const { return announcement == QLatin1String("ssdp:byebye"); }
    // The device's UDN: the USN up to "::" ("uuid:RINCON_...").
    QString udn() const;
};

Q_DECLARE_METATYPE(SSDPMSearchResponse)
