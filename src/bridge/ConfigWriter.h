// SPDX-License-Identifier: GPL-3.0-or-later
// Writes the bridge's configuration file, airupnp.xml, from the speaker records.
#pragma once

#include "DeviceSettings.h"
#include "Settings.h"

#include <vector>

enum class AttributeValueEscape { NoAttribute, EscapeQuot, EscapeApos };

// Replaces & < > (and " or ' by mode) with their entities; nothing else is touched.
QString xmlEscaped(const QString &text, AttributeValueEscape mode);

// The text without the characters XML 1.0 does not allow.
QString xmlCharacters(const QString &text);
// The name as the bridge gets it: allowed characters only, cut to maxSpeakerNameBytes of
// UTF-8 (logged when cut).
QString bridgeName(const QString &name);

// How the bridge is started, beyond its speakers.
struct BridgeOptions
{
    // <latency>: milliseconds of sound held against network jitter, then of silence sent at
    // the start of every stream. The first must not be 0: that takes the sender's value, and
    // the desktop's AirPlay output asks for none.
    QString latency = bridgeLatency(BridgeDelay::Balanced);
    // <ports>: "first:count" for the bridge's RTSP, RTP and HTTP ports; empty lets it pick.
    QString ports;
    // -b: the name of the interface it serves; empty lets it take the first one that is up.
    QString binding;

    static QString bridgeLatency(BridgeDelay delay);
    bool operator==(const BridgeOptions &) const = default;
};

// The file's text: the fixed head, one <device> block per record in the given order (one per
// UDN: an active record before an inactive one, else the first), and the closing tag without
// a final line feed.
QString configFileText(const std::vector<DeviceSettings> &records,
                       const BridgeOptions &options = {});

// Logs the text at debug level and writes it atomically to destination. On failure returns
// false with the error's description in *error, and leaves any existing file unchanged.
bool writeConfigFile(const QString &destination, const std::vector<DeviceSettings> &records,
                     const BridgeOptions &options, QString *error);
