// SPDX-License-Identifier: GPL-3.0-or-later
// A /status/topology body.
#include "DescriptionParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const DeviceTopology topology =
        DescriptionParser::parseTopology(body, QStringLiteral("RINCON_000E58000001001400"));
    (void)topology;
    return 0;
}
