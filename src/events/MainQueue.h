// SPDX-License-Identifier: GPL-3.0-or-later
// The hop to the main thread: work queued here runs later on the main event loop, in order.
#pragma once

#include <functional>

// Queues fn on the main thread's event loop (first in, first out). Without an
// application object there is no loop to run it: the call is logged and dropped.
void mainQueueAsync(std::function<void()> fn);
