// SPDX-License-Identifier: GPL-3.0-or-later
// Makes Corvel's windows on demand, one of each, and brings them forward: preferences, About,
// feedback and the bridge setup.
#pragma once

#include "Controls.h"
#include "Platform.h"
#include "Windows.h"

#include <array>
#include <QPointer>
#include <QWidget>

class WindowFactory : public Windows
{
public:
    // controls: the controller; platform: start at login and the sound outputs.
    WindowFactory(Controls &controls, Platform platform);
    ~WindowFactory() override;

    void show(Kind kind) override;
    bool isVisible(Kind kind) const override;
    void setBridgeLookedIn(const QStringList &lookedIn) override;
    // The window of that kind, if it exists.
    QWidget *window(Kind kind) const { return m_windows[size_t(kind)]; }

private:
    QWidget *make(Kind kind);

    Controls &m_controls;
    Platform m_platform;
    std::array<QPointer<QWidget>, 4> m_windows;
};
