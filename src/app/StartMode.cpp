// SPDX-License-Identifier: GPL-3.0-or-later
#include "StartMode.h"

#include <algorithm>
#include <QtGlobal>

StartMode startModeFor(const QByteArrayList &arguments)
{
    const auto anyOf = [&arguments](std::initializer_list<const char *> options) {
        return std::any_of(options.begin(), options.end(),
                           [&arguments](const char *option) { return arguments.contains(option); });
    };
    StartMode mode;
    mode.noDisplay =
        qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    mode.printsOnly = anyOf({"-h", "--help", "--help-all", "-v", "--version"});
    mode.headless = mode.printsOnly || mode.noDisplay ||
                    anyOf({"--headless", "--list", "--enable", "--disable", "--rename"});
    return mode;
}
