// SPDX-License-Identifier: GPL-3.0-or-later
#include "Settings.h"

#include "JsonReader.h"
#include "Logging.h"

#include <mutex>
#include <QCoreApplication>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <vector>

namespace {
const QString category = QStringLiteral("settings");

// Seconds between 1970-01-01 and 2001-01-01 UTC.
constexpr double referenceEpochOffset = 978307200.0;

// QString can hold unpaired surrogates, which have no UTF-8 form.
bool isUtf8Convertible(const QString &text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate()) {
            if (i + 1 >= text.size() || !text.at(i + 1).isLowSurrogate())
                return false;
            ++i;
        } else if (c.isLowSurrogate()) {
            return false;
        }
    }
    return true;
}

std::unique_ptr<Settings> &sharedInstance()
{
    static std::unique_ptr<Settings> instance;
    return instance;
}
std::once_flag sharedOnce;
} // namespace

double referenceDateNow()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0 - referenceEpochOffset;
}

SettingsDocument SettingsDocument::makeFresh(const std::function<double()> &clock)
{
    SettingsDocument document;
    document.installedAt = clock();
    document.lastRatingsPrompt = clock();
    return document;
}

QString bridgeDelayKey(BridgeDelay delay)
{
    switch (delay) {
    case BridgeDelay::Lowest:
        return QStringLiteral("lowest");
    case BridgeDelay::Steady:
        return QStringLiteral("steady");
    case BridgeDelay::Balanced:
        break;
    }
    return QStringLiteral("balanced");
}

std::optional<BridgeDelay> bridgeDelayFromKey(const QString &key)
{
    for (const BridgeDelay delay :
         {BridgeDelay::Balanced, BridgeDelay::Lowest, BridgeDelay::Steady}) {
        if (bridgeDelayKey(delay) == key)
            return delay;
    }
    return std::nullopt;
}

bool SettingsDocument::validBridgePorts(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    bool firstOk, countOk; // set by the conversions
    const int first = parts.value(0).toInt(&firstOk);
    const int count = parts.value(1).toInt(&countOk);
    return parts.size() == 2 && firstOk && countOk && first >= 1024 && count >= 1 &&
           first + count - 1 <= 65535;
}

QByteArray SettingsDocument::encode() const
{
    QJsonArray deviceArray;
    // A speaker only announced, never changed by the user, is not written at all. Past the
    // cap, records the user changed come first, then those found in this run.
    std::vector<DeviceMap::const_pointer> writable;
    for (const auto &entry : devices) {
        if (!entry.second.onlyAnnounced || entry.second.touchedByUser())
            writable.push_back(&entry);
    }
    size_t room = maxStoredSpeakers;
    const bool crowded = writable.size() > maxStoredSpeakers;
    for (const int pass : {0, 1, 2}) {
        for (const auto *entry : writable) {
            const DeviceSettings &record = entry->second;
            const int rank = !crowded || record.touchedByUser() ? 0 : record.active ? 1 : 2;
            if (rank != pass || (rank > 0 && room == 0))
                continue;
            deviceArray.append(absoluteString(entry->first));
            deviceArray.append(record.toJson());
            room -= room > 0 ? 1 : 0;
        }
    }
    if (deviceArray.size() / 2 < qsizetype(writable.size()))
        logWarning(QStringLiteral("More than %1 speakers known: writing %2 of %3")
                       .arg(maxStoredSpeakers)
                       .arg(deviceArray.size() / 2)
                       .arg(writable.size()));
    QJsonObject crashes;
    for (const auto &[version, count] : crashesByVersion)
        crashes.insert(version, QJsonValue(count));
    const QJsonObject json{{QStringLiteral("devices"), deviceArray},
                           {QStringLiteral("crashesByVersion"), crashes},
                           {QStringLiteral("installedAt"), installedAt},
                           {QStringLiteral("lastRatingsPrompt"), lastRatingsPrompt},
                           {QStringLiteral("hasPromptedForRating"), hasPromptedForRating},
                           {QStringLiteral("hasRated"), hasRated},
                           {QStringLiteral("bridgeDelay"), bridgeDelayKey(bridgeDelay)},
                           {QStringLiteral("bridgePorts"), bridgePorts},
                           {QStringLiteral("soundOutputs"), soundOutputs}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

std::optional<SettingsDocument> SettingsDocument::decode(const QByteArray &json, QString *error)
{
    const auto fail = [error](const QString &message) {
        if (error)
            *error = message;
        return std::nullopt;
    };
    QJsonParseError parseError;
    const QJsonDocument parsed = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(QStringLiteral("JSON error at offset %1: %2")
                        .arg(parseError.offset)
                        .arg(parseError.errorString()));
    if (!parsed.isObject())
        return fail(QStringLiteral("the document is not a JSON object"));

    JsonReader reader(parsed.object(), QStringLiteral("Settings"));
    SettingsDocument document;
    const auto deviceArray = reader.get<QJsonArray>(QStringLiteral("devices"), true);
    const auto crashes = reader.get<QJsonObject>(QStringLiteral("crashesByVersion"), true);
    const auto installedAt = reader.get<double>(QStringLiteral("installedAt"), true);
    const auto lastRatingsPrompt = reader.get<double>(QStringLiteral("lastRatingsPrompt"), true);
    const auto prompted = reader.get<bool>(QStringLiteral("hasPromptedForRating"), true);
    const auto rated = reader.get<bool>(QStringLiteral("hasRated"), true);
    if (!reader.ok())
        return fail(reader.error());

    if (deviceArray->size() % 2 != 0)
        return fail(QStringLiteral("\"devices\" has an odd number of elements (%1)")
                        .arg(deviceArray->size()));
    for (qsizetype i = 0; i < deviceArray->size(); i += 2) {
        const QJsonValue key = deviceArray->at(i);
        const QJsonValue value = deviceArray->at(i + 1);
        const auto location = key.isString() ? parseUrl(key.toString()) : std::nullopt;
        if (!location)
            return fail(QStringLiteral("\"devices\" element %1 is not a valid URL").arg(i));
        if (!value.isObject())
            return fail(QStringLiteral("\"devices\" element %1 is not an object").arg(i + 1));
        QString recordError;
        auto record = DeviceSettings::fromJson(value.toObject(), &recordError);
        if (!record)
            return fail(recordError);
        document.devices.insert_or_assign(*location, std::move(*record));
    }

    // Each value is read through its iterator: looking a key up again is not safe, as Qt
    // orders some keys mixing U+E000..U+FFFF and characters beyond U+FFFF differently when
    // parsing and when searching, and would not find them.
    for (auto it = crashes->constBegin(); it != crashes->constEnd(); ++it) {
        const auto count = JsonReader::integerValue(it.value());
        if (!count)
            return fail(QStringLiteral("crashesByVersion: value for key \"%1\" is not a 64-bit "
                                       "integer")
                            .arg(it.key()));
        document.crashesByVersion[it.key()] = *count;
    }

    document.installedAt = *installedAt;
    document.lastRatingsPrompt = *lastRatingsPrompt;
    document.hasPromptedForRating = *prompted;
    document.hasRated = *rated;
    // Optional, and never a reason to set the user's speakers aside: a value this version
    // cannot use falls back to the default.
    const QJsonValue delay = parsed.object().value(QStringLiteral("bridgeDelay"));
    if (!delay.isUndefined()) {
        if (const auto known = bridgeDelayFromKey(delay.toString()))
            document.bridgeDelay = *known;
        else
            logWarning(category, QStringLiteral("Unknown bridgeDelay in the settings, using "
                                                "\"balanced\""));
    }
    const QJsonValue ports = parsed.object().value(QStringLiteral("bridgePorts"));
    if (!ports.isUndefined()) {
        if (validBridgePorts(ports.toString()))
            document.bridgePorts = ports.toString();
        else
            logWarning(category, QStringLiteral("Invalid bridgePorts in the settings, using \"%1\"")
                                     .arg(QLatin1String(defaultBridgePorts)));
    }
    const QJsonValue outputs = parsed.object().value(QStringLiteral("soundOutputs"));
    if (outputs.isBool())
        document.soundOutputs = outputs.toBool();
    else if (!outputs.isUndefined())
        logWarning(category, QStringLiteral("Invalid soundOutputs in the settings, using false"));
    return document;
}

Settings::Settings(std::unique_ptr<SettingsStorage> storage, SettingsDocument document)
    : SettingsDocument(std::move(document)), m_storage(std::move(storage))
{
}

Settings &Settings::shared()
{
    std::call_once(sharedOnce, [] {
        if (!sharedInstance())
            sharedInstance() = load(std::make_unique<UserSettingsStorage>());
    });
    return *sharedInstance();
}

void Settings::replaceShared(std::unique_ptr<Settings> settings)
{
    std::call_once(sharedOnce, [] {});
    sharedInstance() = std::move(settings);
}

std::unique_ptr<Settings> Settings::load(std::unique_ptr<SettingsStorage> storage)
{
    const auto makeFreshAndSave = [&storage] {
        std::unique_ptr<Settings> settings(new Settings(std::move(storage), makeFresh()));
        settings->save();
        return settings;
    };

    const std::optional<QString> stored = storage->read();
    if (!stored)
        return makeFreshAndSave();
    logVerbose(QStringLiteral("Loading settings:\n") + *stored);
    // A document Corvel cannot read is never thrown away: a copy stays beside the fresh one.
    if (!isUtf8Convertible(*stored)) {
        if (const auto kept = storage->keepCopy())
            logInfo(category, QStringLiteral("Kept the unreadable settings as ") + *kept);
        return makeFreshAndSave();
    }

    QString error;
    auto document = decode(stored->toUtf8(), &error);
    if (!document) {
        const auto kept = storage->keepCopy();
        logError(category, QStringLiteral("Failed to deserialize settings, ") + error +
                               QStringLiteral(" - \"") + *stored + QLatin1Char('"') +
                               (kept ? QStringLiteral(" (kept as %1)").arg(*kept) : QString()));
        return makeFreshAndSave();
    }
    return std::unique_ptr<Settings>(new Settings(std::move(storage), std::move(*document)));
}

void Settings::save()
{
    QString error;
    if (m_storage->write(QString::fromUtf8(encode()), &error)) {
        m_saveError.reset();
        return;
    }
    logError(category, QStringLiteral("Failed to save settings: ") + error);
    m_saveError = error;
}

QString Settings::currentVersion()
{
    const QString version = QCoreApplication::applicationVersion();
    if (version.isEmpty()) {
        logError(category, QStringLiteral("Failed to lookup CFBundleShortVersionString"));
        return QStringLiteral("?.?.?");
    }
    return version;
}

qint64 Settings::crashCount() const
{
    const auto it = crashesByVersion.find(currentVersion());
    return it == crashesByVersion.end() ? 0 : it->second;
}

void Settings::recordCrashReport()
{
    ++crashesByVersion[currentVersion()]; // a new entry starts at 0
    save();
}

const DeviceSettings &Settings::mergeDiscoveredSpeaker(const DeviceInfo &info,
                                                       const DeviceTopology &topology,
                                                       bool answered)
{
    const QString locationText = absoluteString(info.location);
    DeviceSettings record;
    bool moveSaved = false, onlyAnnouncedSoFar = true;
    const auto existing = devices.find(info.location);
    if (existing != devices.end()) {
        const DeviceSettings &known = existing->second;
        logInfo(QStringLiteral("Updating menu item ") + known.name + QStringLiteral(" (") +
                locationText + QLatin1Char(')'));
        record.name = known.nameChanged ? known.name : info.defaultName();
        record.enabled = known.enabled;
        record.nameChanged = known.nameChanged;
        onlyAnnouncedSoFar = known.onlyAnnounced;
    } else if (const auto moved = findByUdn(info.udn, info.location); moved != devices.end()) {
        // A speaker's identity is its UDN: when the router gives it a new address, the user's
        // choices move with it and the record at the old address goes.
        const DeviceSettings known = moved->second;
        const QString from = absoluteString(moved->first);
        devices.erase(moved);
        record.name = known.nameChanged ? known.name : info.defaultName();
        record.enabled = known.enabled;
        record.nameChanged = known.nameChanged;
        onlyAnnouncedSoFar = known.onlyAnnounced;
        logInfo(
            QStringLiteral("Speaker %1 moved from %2 to %3").arg(record.name, from, locationText));
        moveSaved = true;
    } else {
        record.name = info.defaultName();
        logInfo(QStringLiteral("Adding menu item ") + record.name + QStringLiteral(" (") +
                locationText + QLatin1Char(')'));
        // A speaker that plays AirPlay itself would be listed twice in every AirPlay menu.
        record.enabled = !info.hasOwnAirPlay();
        if (!record.enabled)
            logInfo(QStringLiteral("%1 (%2) plays AirPlay itself: not offered until chosen")
                        .arg(record.name, info.modelNumber.value_or(QString())));
    }
    record.info = info;
    record.topology = topology;
    record.active = true;
    record.onlyAnnounced = onlyAnnouncedSoFar && !answered;
    const auto stored = devices.insert_or_assign(info.location, std::move(record)).first;
    if (moveSaved)
        save();
    return stored->second;
}

bool Settings::setBridgeDelay(BridgeDelay delay)
{
    if (delay == bridgeDelay)
        return false;
    logInfo(category, QStringLiteral("Bridge delay set to ") + bridgeDelayKey(delay));
    bridgeDelay = delay;
    save();
    return true;
}

bool Settings::setSoundOutputs(bool on)
{
    if (on == soundOutputs)
        return false;
    logInfo(category, on ? QStringLiteral("Speakers as sound outputs turned on")
                         : QStringLiteral("Speakers as sound outputs turned off"));
    soundOutputs = on;
    save();
    return true;
}

bool Settings::renameDevice(const QUrl &location, const QString &newName)
{
    const auto it = devices.find(location);
    if (it == devices.end())
        return false;
    DeviceSettings &record = it->second;
    // Names are equal when their canonical (NFD) forms are, as a user would see them.
    if (newName.normalized(QString::NormalizationForm_D) ==
        record.name.normalized(QString::NormalizationForm_D))
        return false;
    logInfo(QStringLiteral("Changing name for speaker at ") + absoluteString(location) +
            QStringLiteral(" from \"") + record.name + QStringLiteral("\" to \"") + newName +
            QLatin1Char('"'));
    record.name = newName;
    record.nameChanged = true;
    save();
    return true;
}

bool Settings::setDeviceEnabled(const QUrl &location, bool enabled)
{
    const auto it = devices.find(location);
    if (it == devices.end())
        return false;
    logInfo((enabled ? QStringLiteral("Enabling") : QStringLiteral("Disabling")) +
            QStringLiteral(" speaker at ") + absoluteString(location));
    it->second.enabled = enabled;
    save();
    return true;
}

DeviceMap::iterator Settings::findByUdn(const std::optional<QString> &udn, const QUrl &except)
{
    if (!udn || udn->isEmpty())
        return devices.end();
    return std::find_if(devices.begin(), devices.end(), [&](const auto &entry) {
        return entry.second.info.udn == udn && entry.first.url != except;
    });
}

DeviceMap Settings::activeDevices() const
{
    DeviceMap active;
    for (const auto &[location, record] : devices) {
        if (record.active)
            active.emplace(location, record);
    }
    return active;
}

void Settings::markAllDevicesNotActive()
{
    for (auto &entry : devices)
        entry.second.active = false;
}

bool Settings::markDeviceNotActive(const QUrl &location)
{
    const auto record = devices.find(location);
    if (record == devices.end() || !record->second.active)
        return false;
    record->second.active = false;
    return true;
}
