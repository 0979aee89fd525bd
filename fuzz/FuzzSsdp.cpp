// SPDX-License-Identifier: GPL-3.0-or-later
// An SSDP datagram as the network hands it over.
#include "SSDPMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray datagram(reinterpret_cast<const char *>(data), qsizetype(size));
    QString reason;
    if (const auto response = SSDPMSearchResponse::parse(datagram, &reason))
        (void)response->description();
    return 0;
}
