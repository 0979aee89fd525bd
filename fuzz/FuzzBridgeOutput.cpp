// SPDX-License-Identifier: GPL-3.0-or-later
// Chunks of the bridge's output: the input is split at 0xFF bytes into successive reads.
#include "AirConnect.h"

#include <QCoreApplication>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    AirConnect bridge;
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    for (const QByteArray &chunk : input.split('\xff'))
        bridge.handleOutput(chunk);
    return 0;
}
