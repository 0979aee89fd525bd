// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceSettings.h"

#include "JsonReader.h"

#include <algorithm>
#include <QCollator>
#include <QCoreApplication>
#include <QLocale>
#include <tuple>

std::optional<UserText> speakerNameProblem(const QString &name)
{
    if (name.trimmed().isEmpty())
        return UserText::make(
            "DeviceSettings",
            QT_TRANSLATE_NOOP("DeviceSettings", "A speaker needs a name: the old one stays."));
    // One line: a line break would split "corvel --list" and the menu item.
    if (std::any_of(name.cbegin(), name.cend(), DeviceInfo::isControlCharacter))
        return UserText::make("DeviceSettings",
                              QT_TRANSLATE_NOOP("DeviceSettings",
                                                "A speaker name is one line of text, without "
                                                "control characters or line breaks."));
    const qsizetype bytes = name.toUtf8().size();
    if (bytes <= maxSpeakerNameBytes)
        return std::nullopt;
    return UserText::make(
        "DeviceSettings",
        QT_TRANSLATE_NOOP("DeviceSettings", "A speaker name can be at most %1 bytes long (about "
                                            "%1 letters, fewer with accents or emoji); \"%2\" "
                                            "has %3."),
        QString::number(maxSpeakerNameBytes), excerpt(name), QString::number(bytes));
}

bool DeviceSettings::offeredToBridge() const
{
    return topology && topology->coordinator && active && enabled;
}

QJsonObject DeviceSettings::toJson() const
{
    QJsonObject json{{QStringLiteral("name"), name},
                     {QStringLiteral("info"), info.toJson()},
                     {QStringLiteral("enabled"), enabled},
                     {QStringLiteral("nameChanged"), nameChanged}};
    if (topology)
        json.insert(QStringLiteral("topology"), topology->toJson());
    return json;
}

std::optional<DeviceSettings> DeviceSettings::fromJson(const QJsonObject &object, QString *error)
{
    JsonReader reader(object, QStringLiteral("DeviceSettings"));
    const auto name = reader.get<QString>(QStringLiteral("name"), true);
    const auto infoObject = reader.get<QJsonObject>(QStringLiteral("info"), true);
    if (!reader.ok()) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    auto info = DeviceInfo::fromJson(*infoObject, error);
    if (!info)
        return std::nullopt;

    DeviceSettings record;
    record.name = *name;
    record.info = std::move(*info);
    // The optional keys are read forgivingly: each failure only gives its default.
    const auto topologyValue = object.value(QStringLiteral("topology"));
    if (topologyValue.isObject())
        record.topology = DeviceTopology::fromJson(topologyValue.toObject(), nullptr);
    const auto enabled = object.value(QStringLiteral("enabled"));
    record.enabled = enabled.isBool() ? enabled.toBool() : true;
    const auto nameChanged = object.value(QStringLiteral("nameChanged"));
    record.nameChanged = nameChanged.isBool() ? nameChanged.toBool() : false;
    return record;
}

QString speakerStateText(const DeviceSettings &record, const DeviceMap &devices)
{
    if (!record.active)
        return QCoreApplication::translate("SpeakerState", "Not found");
    if (record.topology && !record.topology->coordinator) {
        // A member plays through its group's coordinator, which the bridge offers for both.
        for (const auto &entry : devices) {
            const DeviceSettings &other = entry.second;
            if (other.topology && other.topology->coordinator &&
                other.topology->group == record.topology->group)
                return QCoreApplication::translate("SpeakerState", "In %1's group").arg(other.name);
        }
        return QCoreApplication::translate("SpeakerState", "In a group");
    }
    if (!record.enabled)
        return QCoreApplication::translate("SpeakerState", "Not offered");
    if (record.playingHere)
        return QCoreApplication::translate("SpeakerState", "Playing from this computer");
    switch (record.bridgeView) {
    case BridgeView::Unknown:
        break;
    case BridgeView::NotOffered:
        return QCoreApplication::translate("SpeakerState", "Not offered by the bridge");
    case BridgeView::Ready:
        return QCoreApplication::translate("SpeakerState", "Ready");
    case BridgeView::Playing:
        return QCoreApplication::translate("SpeakerState", "Playing");
    case BridgeView::Unresponsive:
        return QCoreApplication::translate("SpeakerState", "Not answering");
    }
    return {};
}

std::pair<int, int> readyAndPlaying(const DeviceMap &devices)
{
    int ready = 0;
    int playing = 0;
    for (const auto &entry : devices) {
        const BridgeView view = entry.second.bridgeView;
        const bool plays = view == BridgeView::Playing || entry.second.playingHere;
        ready += plays || view == BridgeView::Ready ? 1 : 0;
        playing += plays ? 1 : 0;
    }
    return {ready, playing};
}

bool markPlayingHere(DeviceMap &devices, const QSet<QString> &udns)
{
    bool changed = false;
    for (auto &entry : devices) {
        DeviceSettings &record = entry.second;
        const bool now = record.info.udn && udns.contains(*record.info.udn);
        changed = changed || now != record.playingHere;
        record.playingHere = now;
    }
    return changed;
}

std::vector<const DeviceMap::value_type *>
displayOrder(const DeviceMap &devices,
             const std::function<bool(const DeviceMap::value_type &)> &keep)
{
    const auto isMember = [](const DeviceSettings &record) {
        return record.topology && !record.topology->coordinator;
    };
    // A member sorts under its coordinator's name, when that one was found.
    const auto groupName = [&](const DeviceSettings &record) -> const QString & {
        if (isMember(record)) {
            for (const auto &entry : devices) {
                const DeviceSettings &other = entry.second;
                if (other.active && other.topology && other.topology->coordinator &&
                    other.topology->group == record.topology->group)
                    return other.name;
            }
        }
        return record.name;
    };
    // Qt compares plainly in the C locale, numbers included: natural order needs a language.
    const QLocale locale;
    QCollator collator(locale.language() == QLocale::C ? QLocale(QLocale::English) : locale);
    collator.setNumericMode(true); // case differences only order names otherwise equal
    // Sort keys are made once per name: a household of hundreds sorts in a millisecond.
    struct Sorted
    {
        QCollatorSortKey group;
        bool member;
        QCollatorSortKey name;
        const DeviceMap::value_type *entry;
    };
    std::vector<Sorted> sorted;
    for (const auto &entry : devices) {
        if (keep(entry))
            sorted.push_back({collator.sortKey(groupName(entry.second)), isMember(entry.second),
                              collator.sortKey(entry.second.name), &entry});
    }
    // Each group's coordinator first; equal names keep the order of their addresses.
    std::stable_sort(sorted.begin(), sorted.end(), [](const Sorted &a, const Sorted &b) {
        return std::tie(a.group, a.member, a.name) < std::tie(b.group, b.member, b.name);
    });
    std::vector<const DeviceMap::value_type *> ordered;
    for (const Sorted &entry : sorted)
        ordered.push_back(entry.entry);
    return ordered;
}
