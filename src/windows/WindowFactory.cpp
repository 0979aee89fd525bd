// SPDX-License-Identifier: GPL-3.0-or-later
#include "WindowFactory.h"

#include "AboutWindow.h"
#include "BridgeLocator.h"
#include "BridgeSetupWindow.h"
#include "BuildConfig.h"
#include "FeedbackWindow.h"
#include "PreferencesWindow.h"

#include <QApplication>

WindowFactory::WindowFactory(Controls &controls, Platform platform)
    : m_controls(controls), m_platform(std::move(platform))
{
    // Corvel lives on in the tray when its windows close; where closing one quits, the window
    // asks the controller.
    QApplication::setQuitOnLastWindowClosed(false);
}

WindowFactory::~WindowFactory()
{
    for (const QPointer<QWidget> &window : m_windows)
        delete window.data();
}

QWidget *WindowFactory::make(Kind kind)
{
    switch (kind) {
    case Kind::Preferences: {
        auto *window = new PreferencesWindow(m_controls, m_platform);
        // Without a tray the window is Corvel's only face: closing it quits.
        window->setClosingQuits(m_controls.noTray());
        QObject::connect(window, &PreferencesWindow::closedToQuit, window,
                         [this] { m_controls.quit(); });
        return window;
    }
    case Kind::About:
        return new AboutWindow;
    case Kind::Feedback:
        return new FeedbackWindow(QUrl(QStringLiteral(CORVEL_FEEDBACK_ENDPOINT)));
    case Kind::BridgeSetup: {
        auto *window =
            new BridgeSetupWindow(currentBridgeArchitecture(), m_controls.bridgeLookedIn());
        QObject::connect(window, &BridgeSetupWindow::installed, window,
                         [this] { m_controls.bridgeInstalled(); });
        return window;
    }
    }
    return nullptr;
}

void WindowFactory::show(Kind kind)
{
    QPointer<QWidget> &window = m_windows[size_t(kind)];
    if (!window) {
        window = make(kind);
        // The preferences window lives as long as Corvel; the others go when closed.
        if (kind != Kind::Preferences)
            window->setAttribute(Qt::WA_DeleteOnClose);
    }
    window->show();
    window->raise();
    window->activateWindow();
}

bool WindowFactory::isVisible(Kind kind) const
{
    const QWidget *shown = window(kind);
    return shown && shown->isVisible();
}

void WindowFactory::setBridgeLookedIn(const QStringList &lookedIn)
{
    if (auto *setup = qobject_cast<BridgeSetupWindow *>(window(Kind::BridgeSetup)))
        setup->setLookedIn(lookedIn);
}
