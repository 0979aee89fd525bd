// SPDX-License-Identifier: GPL-3.0-or-later
#include "ConfigWriter.h"

#include "AtomicFile.h"
#include "BuildConfig.h"
#include "Logging.h"

QString xmlEscaped(const QString &text, AttributeValueEscape mode)
{
    QString escaped;
    escaped.reserve(text.size());
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

QString configFileText(const std::vector<DeviceSettings> &records)
{
    QString text = QStringLiteral("<?xml version=\"1.0\"?>\n"
                                  "<airupnp>\n"
                                  "<common>\n"
                                  "<enabled>1</enabled>\n"
                                  "<max_volume>100</max_volume>\n"
                                  "<codec>flac</codec>\n"
                                  "<latency>0:2000</latency>\n"
                                  "<name>Corvel</name>\n"
                                  "<artwork>" CORVEL_ARTWORK_URL "</artwork>\n"
                                  "</common>\n"
                                  "<main_log>info</main_log>\n"
                                  "<upnp_log>info</upnp_log>\n"
                                  "<util_log>warn</util_log>\n"
                                  "<raop_log>info</raop_log>\n"
                                  "<log_limit>-1</log_limit>\n");
    for (const DeviceSettings &record : records) {
        text += QStringLiteral("<device>\n  <udn>") +
                xmlEscaped(record.info.udn.value_or(QString()), AttributeValueEscape::NoAttribute) +
                QStringLiteral("</udn>\n  <name>") +
                xmlEscaped(record.name, AttributeValueEscape::NoAttribute) +
                QStringLiteral("</name>\n  <enabled>") +
                (record.offeredToBridge() ? QLatin1Char('1') : QLatin1Char('0')) +
                QStringLiteral("</enabled>\n</device>\n");
    }
    text += QStringLiteral("</airupnp>");
    return text;
}

bool writeConfigFile(const QString &destination, const std::vector<DeviceSettings> &records,
                     QString *error)
{
    const QString text = configFileText(records);
    logDebug(text);

    return writeFileAtomically(destination, text.toUtf8(), error);
}
