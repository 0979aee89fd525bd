// SPDX-License-Identifier: GPL-3.0-or-later
#include "SSDPMessages.h"

#include "BuildConfig.h"

#include <QRegularExpression>

SSDPSearchTarget SSDPSearchTarget::deviceType(const QString &schema, const QString &type,
                                              int version)
{
    return {QStringLiteral("urn:%1:device:%2:%3").arg(schema, type).arg(version)};
}

QByteArray SSDPMSearchRequest::datagram() const
{
    QByteArray text = "M-SEARCH * HTTP/1.1\r\n"
                      "HOST: 239.255.255.250:1900\r\n"
                      "MAN: \"ssdp:discover\"\r\n"
                      "MX: " +
                      QByteArray::number(maxWaitTime) +
                      "\r\n"
                      "ST: " +
                      searchTarget.text.toUtf8() +
                      "\r\n"
                      "USER-AGENT: Linux UPnP/1.1 Corvel/" CORVEL_VERSION "\r\n";
    for (const auto &[name, value] : otherHeaders)
        text += name + ": " + value + "\r\n";
    return text + "\r\n";
}

std::optional<QString> SSDPMSearchResponse::header(const QString &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return std::nullopt;
}

QString SSDPMSearchResponse::description() const
{
    return QStringLiteral("SSDPMSearchResponse(location: %1, server: %2, st: %3, usn: %4)")
        .arg(location.toString(QUrl::FullyEncoded), server.value_or(QStringLiteral("nil")),
             searchTarget, usn);
}

namespace {
// "urn:domain:device:type:v" or "urn:domain:service:type:v", also as the tail of a USN.
std::optional<SSDPMSearchResponse::Kind> kindOf(const QString &target)
{
    static const QRegularExpression pattern(
        QStringLiteral("(?:^|::)urn:[^:]+:(device|service):[^:]+:[0-9]+$"));
    const QRegularExpressionMatch match = pattern.match(target);
    if (!match.hasMatch())
        return std::nullopt;
    return match.captured(1) == QLatin1String("device") ? SSDPMSearchResponse::Kind::Device
                                                        : SSDPMSearchResponse::Kind::Service;
}
} // namespace

namespace {
// A search response and an announcement share their shape: a start line, headers, a LOCATION
// (absent only from a byebye) and a device or service type (ST or NT).
std::optional<SSDPMSearchResponse> parseMessage(const QByteArray &datagram, bool announcement,
                                                QString *reason)
{
    const auto reject = [reason](const QString &why) {
        if (reason)
            *reason = why;
        return std::nullopt;
    };
    if (datagram.size() > SSDPMSearchResponse::maxDatagramSize)
        return reject(QStringLiteral("datagram of %1 bytes is too large").arg(datagram.size()));

    // Lines end in CR LF or LF alone; both occur in the field (every part is trimmed).
    QList<QByteArray> lines = datagram.split('\n'); // never empty
    const QByteArray startLine = announcement ? "NOTIFY * HTTP/1.1" : "HTTP/1.1 200 OK";
    if (lines.takeFirst().trimmed() != startLine)
        return reject(announcement ? QStringLiteral("not an announcement")
                                   : QStringLiteral("not a search response"));

    SSDPMSearchResponse response;
    response.raw = datagram;
    for (const QByteArray &line : std::as_const(lines)) {
        if (line.trimmed().isEmpty())
            break;
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            continue; // not a header line; ignored
        response.headers.append({QString::fromUtf8(line.left(colon)).trimmed(),
                                 QString::fromUtf8(line.mid(colon + 1)).trimmed()});
    }
    if (announcement) {
        response.announcement = response.header(QStringLiteral("NTS")).value_or(QString());
        if (!response.announcement.startsWith(QLatin1String("ssdp:")))
            return reject(QStringLiteral("no NTS"));
    }
    response.server = response.header(QStringLiteral("SERVER"));
    response.searchTarget =
        response.header(announcement ? QStringLiteral("NT") : QStringLiteral("ST"))
            .value_or(QString());
    response.usn = response.header(QStringLiteral("USN")).value_or(QString());

    // A departing device says only who it is.
    if (!response.isByeBye()) {
        const QString location = response.header(QStringLiteral("LOCATION")).value_or(QString());
        const QUrl url(location, QUrl::StrictMode);
        if (!url.isValid() || url.scheme() != QLatin1String("http") || url.host().isEmpty())
            return reject(QStringLiteral("no valid absolute http LOCATION (\"%1\")").arg(location));
        response.location = url;
    }

    auto kind = kindOf(response.searchTarget);
    if (!kind)
        kind = kindOf(response.usn);
    if (!kind)
        return reject(QStringLiteral("ST \"%1\" names neither a device nor a service type")
                          .arg(response.searchTarget));
    response.kind = *kind;
    return response;
}
} // namespace

std::optional<SSDPMSearchResponse> SSDPMSearchResponse::parse(const QByteArray &datagram,
                                                              QString *reason)
{
    return parseMessage(datagram, false, reason);
}

std::optional<SSDPMSearchResponse>
SSDPMSearchResponse::parseAnnouncement(const QByteArray &datagram, QString *reason)
{
    return parseMessage(datagram, true, reason);
}

QString SSDPMSearchResponse::udn() const
{
    return usn.section(QStringLiteral("::"), 0, 0); // all of it when there is no "::"
}
