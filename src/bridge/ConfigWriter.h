// SPDX-License-Identifier: GPL-3.0-or-later
// Writes the bridge's configuration file, airupnp.xml, from the speaker records.
#pragma once

#include "DeviceSettings.h"

#include <vector>

enum class AttributeValueEscape { NoAttribute, EscapeQuot, EscapeApos };

// Replaces & < > (and " or ' by mode) with their entities; nothing else is touched.
QString xmlEscaped(const QString &text, AttributeValueEscape mode);

// The text without the characters XML 1.0 does not allow.
QString xmlCharacters(const QString &text);
// The name as the bridge gets it: allowed characters only, cut to maxSpeakerNameBytes of
// UTF-8 (logged when cut).
QString bridgeName(const QString &name);

// The file's text: the fixed head, one <device> block per record in the given order (one per
// UDN: an active record before an inactive one, else the first), and the closing tag without
// a final line feed.
QString configFileText(const std::vector<DeviceSettings> &records);

// Logs the text at debug level and writes it atomically to destination. On failure returns
// false with the error's description in *error, and leaves any existing file unchanged.
bool writeConfigFile(const QString &destination, const std::vector<DeviceSettings> &records,
                     QString *error);
