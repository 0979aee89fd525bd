// SPDX-License-Identifier: GPL-3.0-or-later
// One speaker's record in the settings: the user's choices and its last known description.
#pragma once

#include <functional>
#include <QSet>
#include <vector>

#include "DeviceInfo.h"
#include "UserText.h"

#include <map>

// What the running bridge does with a speaker; known only while Corvel runs, never stored.
enum class BridgeView { Unknown, NotOffered, Ready, Playing, Unresponsive };

struct DeviceSettings
{
    QString name;
    DeviceInfo info;
    std::optional<DeviceTopology> topology;
    bool active = false; // found since this process read or created the record; never stored
    bool enabled = true;
    bool nameChanged = false;
    BridgeView bridgeView = BridgeView::Unknown; // never stored
    bool playingHere = false;                    // plays this computer's sound; never stored
    // New in this run and heard only in announcements, never answering a search: not written
    // until it answers or the user changes it, so that a device announcing made-up speakers
    // does not grow the settings file. Never stored.
    bool onlyAnnounced = false;

    // True when the bridge is to offer the speaker: a known coordinator, found in this
    // run and enabled by the user.
    bool offeredToBridge() const;
    // Whether the user changed the record: named it, or switched it from its default.
    bool touchedByUser() const { return nameChanged || enabled == info.hasOwnAirPlay(); }

    QJsonObject toJson() const;
    // "name" and "info" are required; a missing or unreadable "topology", "enabled" or
    // "nameChanged" gives its default. The result is not active.
    static std::optional<DeviceSettings> fromJson(const QJsonObject &object, QString *error);
};

// The longest speaker name the bridge can announce, in bytes of UTF-8.
constexpr int maxSpeakerNameBytes = 50;
// Why name cannot be a speaker's name (for the log and for the user), nothing when it can.
std::optional<UserText> speakerNameProblem(const QString &name);

using DeviceMap = std::map<LocationKey, DeviceSettings>;

// The speaker's state in a few words of the user's language ("Playing", "Ready", "In Living
// Room's group", "Not offered by the bridge"); empty when there is nothing to say (no bridge).
QString speakerStateText(const DeviceSettings &record, const DeviceMap &devices);
// How many offered speakers the bridge has ready (playing ones included) and playing.
std::pair<int, int> readyAndPlaying(const DeviceMap &devices);
// Marks as playing this computer's sound the records whose UDN is in udns, and no others;
// true when a record changed.
bool markPlayingHere(DeviceMap &devices, const QSet<QString> &udns);

// The records kept by keep, in the order people read them: by name in the user's language
// (numbers in natural order), each group's members right under its coordinator (one found in
// this run). The window, the tray menu and --list all list speakers this way.
std::vector<const DeviceMap::value_type *>
displayOrder(const DeviceMap &devices,
             const std::function<bool(const DeviceMap::value_type &)> &keep);
