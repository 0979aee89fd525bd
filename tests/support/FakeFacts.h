// SPDX-License-Identifier: GPL-3.0-or-later
// What the lifecycle asks of the world, as fields a test sets.
#pragma once

#include "Lifecycle.h"

struct FakeFacts : Lifecycle::Facts
{
    bool search = false, bridge = false, speakers = false, differs = false;
    bool searchRunning() const override { return search; }
    bool bridgeRunning() const override { return bridge; }
    bool hasSpeakers() const override { return speakers; }
    bool bridgeConfigDiffers() const override { return differs; }
};
