// SPDX-License-Identifier: GPL-3.0-or-later
// What the lifecycle asks of the world, as fields a test sets.
#pragma once

#include "Lifecycle.h"

#include <QStringList>

// The tables' words for the lifecycle's events, in the enum's order.
inline const QStringList eventWords = {
    "launch",   "onoff",    "searchAsked", "stopAsked", "installed", "searchStarted", "searchEnded",
    "found",    "departed", "changed",     "started",   "ready",     "exit",          "cannotStart",
    "notReady", "missing",  "resumed",     "apply",     "retry",     "quit"};

struct FakeFacts : Lifecycle::Facts
{
    bool search = false, bridge = false, speakers = false, differs = false;
    bool searchRunning() const override { return search; }
    bool bridgeRunning() const override { return bridge; }
    bool hasSpeakers() const override { return speakers; }
    bool bridgeConfigDiffers() const override { return differs; }
};
