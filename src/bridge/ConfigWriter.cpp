// SPDX-License-Identifier: GPL-3.0-or-later
#include "ConfigWriter.h"

#include "AtomicFile.h"
#include "BuildConfig.h"
#include "Logging.h"

#include <map>

QString xmlEscaped(const QString &text, AttributeValueEscape mode)
{
    QString escaped;
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '&':
            escaped += QStringLiteral("&amp;");
            break;
        case '<':
            escaped += QStringLiteral("&lt;");
            break;
        case '>':
            escaped += QStringLiteral("&gt;");
            break;
        case '"':
            escaped += mode == AttributeValueEscape::EscapeQuot ? QStringLiteral("&quot;") : c;
            break;
        case '\'':
            escaped += mode == AttributeValueEscape::EscapeApos ? QStringLiteral("&apos;") : c;
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

QString xmlCharacters(const QString &text)
{
    // The bridge's strict parser rejects the whole file for one character that XML 1.0 does
    // not allow (a control character from a description, or pasted into a name), and then
    // offers every renderer it finds; such characters are dropped.
    QString kept;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            kept += c;
            kept += text.at(++i);
        } else if ((c.unicode() >= 0x20 && !c.isSurrogate() && c.unicode() != 0xFFFE &&
                    c.unicode() != 0xFFFF) ||
                   c == QLatin1Char('\t') || c == QLatin1Char('\n') || c == QLatin1Char('\r')) {
            kept += c;
        }
    }
    return kept;
}

QString bridgeName(const QString &name)
{
    // The bridge copies names into fixed fields and announces "<MAC>@<name>" in a 63-byte
    // mDNS label, so a name is cut at maxNameBytes of UTF-8, on a character boundary.
    QString cut = xmlCharacters(name);
    if (cut.toUtf8().size() <= maxSpeakerNameBytes)
        return cut;
    while (cut.toUtf8().size() > maxSpeakerNameBytes)
        cut.chop(cut.size() > 1 && cut.back().isLowSurrogate() ? 2 : 1);
    logInfo(QStringLiteral("Speaker name \"%1\" is longer than %2 bytes; the bridge gets \"%3\"")
                .arg(name)
                .arg(maxSpeakerNameBytes)
                .arg(cut));
    return cut;
}

QString BridgeOptions::bridgeLatency(BridgeDelay delay)
{
    // Hold, then start silence, in ms. Users of the bridge with Sonos report: 1000:1000 and
    // 1000:2000 as the usual advice, 250:500 and less on wired networks for a short delay,
    // 1500:2500 on unsteady Wi-Fi (AirConnect README and issues #15, #34).
    switch (delay) {
    case BridgeDelay::Lowest:
        return QStringLiteral("250:500");
    case BridgeDelay::Steady:
        return QStringLiteral("1500:2500");
    case BridgeDelay::Balanced:
        break;
    }
    return QStringLiteral("1000:1000");
}

QString configFileText(const std::vector<DeviceSettings> &records, const BridgeOptions &options)
{
    // <enabled>0</enabled> in <common>: the bridge offers only the speakers listed below, not
    // every other UPnP renderer (televisions, receivers). <codec>wav</codec>: Sonos firmware
    // from 2023 on refuses FLAC streams of unknown length, so a FLAC speaker stays silent.
    QString text = QStringLiteral("<?xml version=\"1.0\"?>\n"
                                  "<airupnp>\n"
                                  "<common>\n"
                                  "<enabled>0</enabled>\n"
                                  "<max_volume>100</max_volume>\n"
                                  "<codec>wav</codec>\n"
                                  "<latency>") +
                   xmlEscaped(xmlCharacters(options.latency), AttributeValueEscape::NoAttribute) +
                   QStringLiteral("</latency>\n"
                                  "<name>Corvel</name>\n"
                                  "<artwork>") +
                   xmlEscaped(xmlCharacters(QStringLiteral(CORVEL_ARTWORK_URL)),
                              AttributeValueEscape::NoAttribute) +
                   QStringLiteral("</artwork>\n"
                                  "</common>\n"
                                  "<main_log>info</main_log>\n"
                                  "<upnp_log>info</upnp_log>\n"
                                  "<util_log>warn</util_log>\n"
                                  "<raop_log>info</raop_log>\n"
                                  "<log_limit>-1</log_limit>\n");
    if (!options.ports.isEmpty())
        text += QStringLiteral("<ports>") +
                xmlEscaped(xmlCharacters(options.ports), AttributeValueEscape::NoAttribute) +
                QStringLiteral("</ports>\n");
    // The bridge takes the first block for a UDN, so each UDN gets one: the active record's.
    std::map<QString, const DeviceSettings *> byUdn;
    for (const DeviceSettings &record : records) {
        const QString udn = record.info.udn.value_or(QString());
        auto [it, added] = byUdn.emplace(udn, &record);
        if (!added && !it->second->active && record.active)
            it->second = &record;
    }
    for (const DeviceSettings &record : records) {
        const QString udn = record.info.udn.value_or(QString());
        if (!udn.isEmpty() && byUdn.at(udn) != &record)
            continue;
        text += QStringLiteral("<device>\n  <udn>") +
                xmlEscaped(xmlCharacters(udn), AttributeValueEscape::NoAttribute) +
                QStringLiteral("</udn>\n  <name>") +
                xmlEscaped(bridgeName(record.name), AttributeValueEscape::NoAttribute) +
                QStringLiteral("</name>\n  <enabled>") +
                (record.offeredToBridge() ? QLatin1Char('1') : QLatin1Char('0')) +
                QStringLiteral("</enabled>\n</device>\n");
    }
    text += QStringLiteral("</airupnp>");
    return text;
}

bool writeConfigFile(const QString &destination, const std::vector<DeviceSettings> &records,
                     const BridgeOptions &options, QString *error)
{
    const QString text = configFileText(records, options);
    logDebug(text);

    return writeFileAtomically(destination, text.toUtf8(), error);
}
