// SPDX-License-Identifier: GPL-3.0-or-later
// Reads a player's device description and its entry in the zone topology, leniently:
// whatever elements could be read are used.
#pragma once

#include <unordered_map>

#include "DeviceInfo.h"

#include <QByteArray>

namespace DescriptionParser {
// An optional sign and one or more decimal digits, nothing else, within 64 bits.
std::optional<qint64> parseInteger(const QString &text);
// The C library's strtof in the C locale; no leading white space, consumed to the end.
std::optional<float> parseFloat(const QString &text);

// A player lists a handful of icons; a description with more keeps the first ones, so that a
// hostile document cannot fill memory and the settings with them.
constexpr size_t maxIcons = 16;

// The DeviceInfo described by the direct children of /root/device, or nothing when the
// document has no such element (also for a body that is not XML at all).
std::optional<DeviceInfo> parseDeviceDescription(const QByteArray &body, const QUrl &location,
                                                 const std::optional<QString> &server);

// How the zone topology names the player: udn without a leading "uuid:", else the location.
QString udnKey(const DeviceInfo &info);

// The player's group from /ZPSupportInfo/ZonePlayers: the first entry for udnKey with a
// usable coordinator and group; without one, the coordinator of a group of its own.
DeviceTopology parseTopology(const QByteArray &body, const QString &udnKey);
// Every usable player entry of a topology document by its uuid (the first one of a uuid):
// one parse serves every player of a household, whose documents are the same.
using TopologyTable = std::unordered_map<QString, DeviceTopology>;
TopologyTable parseTopologyTable(const QByteArray &body);
// The entry for udnKey, or the player's own group when there is none.
DeviceTopology topologyFor(const TopologyTable &table, const QString &udnKey);
// The topology of a player whose zone topology could not be fetched.
DeviceTopology ownGroup(const QString &udnKey);
} // namespace DescriptionParser
