// SPDX-License-Identifier: GPL-3.0-or-later
// The persisted settings document and the per-speaker operations on it.
#pragma once

#include "DeviceSettings.h"
#include "SettingsStorage.h"

#include <functional>
#include <map>
#include <memory>

// Seconds since 2001-01-01 00:00:00 UTC, the epoch of the stored dates.
double referenceDateNow();

// How much sound the bridge holds back against network jitter, as the user chose it.
enum class BridgeDelay { Balanced, Lowest, Steady };
// The word each choice is stored as ("balanced", "lowest", "steady").
QString bridgeDelayKey(BridgeDelay delay);
std::optional<BridgeDelay> bridgeDelayFromKey(const QString &key);

// The document as stored: plain data and its JSON form.
struct SettingsDocument
{
    // The bridge's ports (RTSP, RTP and HTTP), as the bridge takes them: "first:count".
    static constexpr const char *defaultBridgePorts = "49200:64";
    // Whether text is "first:count" with the whole range within 1024..65535.
    static bool validBridgePorts(const QString &text);

    // No home has this many players: past it, only the records the user changed (named,
    // switched) and then those found in this run are written, so a flood of made-up
    // speakers cannot grow the file without bound.
    static constexpr size_t maxStoredSpeakers = 256;

    DeviceMap devices;
    BridgeDelay bridgeDelay = BridgeDelay::Balanced;
    QString bridgePorts = QString::fromLatin1(defaultBridgePorts);
    // Each offered speaker is a sound output of this computer, streamed by Corvel.
    bool soundOutputs = false;
    std::map<QString, qint64> crashesByVersion;
    double installedAt = 0; // seconds since 2001-01-01 UTC
    double lastRatingsPrompt = 0;
    bool hasPromptedForRating = false;
    bool hasRated = false;

    // No speakers, no crashes, both dates now (read one after the other), both flags false.
    static SettingsDocument makeFresh(const std::function<double()> &clock = referenceDateNow);

    // Compact JSON; "devices" alternates location text and record.
    QByteArray encode() const;
    // Strict read of the whole document; every record read starts not active. The bridge's
    // delay and ports, written by newer versions, are optional: a value this version does not
    // know is replaced by the default, with a log line.
    static std::optional<SettingsDocument> decode(const QByteArray &json, QString *error);
};

class Settings : public SettingsDocument
{
public:
    // The process-wide settings, loaded from the user's store on first use.
    static Settings &shared();
    // Replaces the process-wide settings; for tests that drive the whole program.
    static void replaceShared(std::unique_ptr<Settings> settings);

    // Reads the document from storage. A missing, non-UTF-8 or undecodable document is
    // replaced by a fresh one, which is saved at once (the undecodable one is logged).
    static std::unique_ptr<Settings> load(std::unique_ptr<SettingsStorage> storage);

    // Writes the whole document to the store; a failure is logged and the session goes on
    // with the document in memory.
    void save();
    // Why the last save failed; nothing when it succeeded (or none was made).
    const std::optional<QString> &saveError() const { return m_saveError; }

    // The application's version, or "?.?.?" (with an error line) when it is not set.
    static QString currentVersion();
    // Crashes recorded for the current version.
    qint64 crashCount() const;
    // Counts one more crash for the current version and saves.
    void recordCrashReport();

    // Records a speaker that discovery reported: a known one keeps enabled, nameChanged and
    // (when chosen by the user) its name; a new one gets its default name and is enabled
    // unless its model plays AirPlay by itself (it would be listed twice), unless
    // a record with its UDN is stored at another location: then that record's choices move
    // here and it goes (saved at once). Either way the speaker becomes active with the new
    // description and topology. Otherwise does not save. answered: the speaker answered a
    // search (false: it only announced itself).
    const DeviceSettings &mergeDiscoveredSpeaker(const DeviceInfo &info,
                                                 const DeviceTopology &topology,
                                                 bool answered = true);
    // Renames the speaker and marks the name as the user's; saves. Returns false (and does
    // nothing) for an unknown location or a name canonically equal to the current one.
    bool renameDevice(const QUrl &location, const QString &newName);
    // Chooses the bridge's delay; saves. False when it was the choice already.
    bool setBridgeDelay(BridgeDelay delay);
    // Makes the speakers sound outputs of this computer, or no longer; saves. False when it
    // was so already.
    bool setSoundOutputs(bool on);
    // Switches the speaker on or off for the bridge; saves. False for an unknown location.
    bool setDeviceEnabled(const QUrl &location, bool enabled);
    // The records found in this run, in location order.
    DeviceMap activeDevices() const;
    // Marks every known record not found yet; called when a search starts, so the user's
    // choices outlive the search.
    void markAllDevicesNotActive();
    // Marks one speaker not found (it left the network); false when unknown or already so.
    bool markDeviceNotActive(const QUrl &location);

    SettingsStorage &storage() { return *m_storage; }

private:
    // The record with this UDN at a location other than except; end() when none.
    DeviceMap::iterator findByUdn(const std::optional<QString> &udn, const QUrl &except);
    Settings(std::unique_ptr<SettingsStorage> storage, SettingsDocument document);

    std::unique_ptr<SettingsStorage> m_storage;
    std::optional<QString> m_saveError;
};
