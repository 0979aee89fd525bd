// SPDX-License-Identifier: GPL-3.0-or-later
// The application controller: starts Corvel, turns the bridge on and off, and drives the
// bridge's lifecycle from discovery and bridge events; owns the tray menu.
#pragma once

#include "AppServices.h"
#include "Controls.h"
#include "CrashReporter.h"
#include "NotificationCenter.h"
#include "Platform.h"
#include "SystemSleep.h"

#include <functional>
#include <QAction>
#include <QMenu>
#include <QObject>
#include <QPointer>

class QSystemTrayIcon;

class AppDelegate : public QObject, public Controls, public CrashReporterDelegate
{
    Q_OBJECT

public:
    using Services = AppServices;

    // Where the bridge's lifecycle stands; the status line is derived from it.
    enum class State { StartingUp, Searching, NoSpeakers, Starting, Running, Stopped, Off };

    // The lifecycle titles.
    static inline const QString statusOff = QStringLiteral("Corvel: Off");
    static inline const QString statusSearching = QStringLiteral("Corvel: Looking For Speakers...");
    static inline const QString statusNoSpeakers = QStringLiteral("Corvel: No Speakers Found");
    static inline const QString statusStarting = QStringLiteral("Corvel: Starting...");
    static inline const QString statusRunning = QStringLiteral("Corvel: Running");
    static inline const QString statusStopped = QStringLiteral("Corvel: Stopped");
    static inline const QString commandTurnOn = QStringLiteral("Turn Corvel On");
    static inline const QString commandTurnOff = QStringLiteral("Turn Corvel Off");

    // Speaker items are inserted from this menu position on.
    static constexpr int firstDeviceMenuIndex = 4;

    // withTray: show a tray icon; headless runs without one.
    AppDelegate(Services services, Platform platform, bool withTray, QObject *parent = nullptr);
    ~AppDelegate() override;

    void applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    // Stops the bridge (waiting a bounded time) before Corvel exits.
    void applicationWillTerminate();

    State state() const { return m_state; }
    // Whether the on/off command turns the bridge on (its item reads "Turn Corvel On").
    bool onOffTurnsOn() const { return m_onOffTurnsOn; }
    static QString statusTitle(State state);

    // Rebuilds the speaker items from the active speakers, in location order.
    void updateDeviceMenuItems();
    QAction *makeDeviceMenuItem(const DeviceSettings &record);
    // Brings a visible preferences window to the front when the menu opens.
    void menuWillOpen();
    // Shows the preferences window, creating it once.
    void showWindow();
    // Asks a running launcher helper to quit.
    void stopLauncherApp();

    // Configures and starts the crash reporter (at launch, before the tray).
    void configureCrashReporting();
    QString applicationLogForCrashManager() override;
    void crashManagerWillShowSubmitCrashReportAlert() override;
    // The About box: version and credits.
    void showAbout();

    void onOffClicked();
    void preferencesClicked();
    void aboutClicked();
    void feedbackClicked();
    void quitClicked();

    // Controls, for the preferences window.
    Settings &settings() override { return m_services.settings(); }
    bool searchRunning() const override { return m_services.searchRunning(); }
    bool bridgeRunning() const override { return m_services.bridgeRunning(); }
    bool stoppedByUser() const override { return m_stoppedByUser; }
    void startSearching() override;
    void stopBridge() override { m_services.stopBridge(); }

    QMenu *statusMenu() { return &m_statusMenu; }
    QAction *firstMenuItem() const { return m_firstMenuItem; }
    QAction *onOffMenuItem() const { return m_onOffMenuItem; }
    const QList<QAction *> &deviceMenuItems() const { return m_deviceMenuItems; }
    QSystemTrayIcon *statusItem() const { return m_statusItem; }
    SystemSleep &systemSleep() { return m_systemSleep; }

    // Creates the preferences window on first use; unset until the window exists.
    void setPreferencesWindowFactory(std::function<QWidget *()> factory)
    {
        m_windowFactory = std::move(factory);
    }

signals:
    void quitRequested();

private:
    // Enters state; turnsOn, when given, is the new on/off command.
    void setState(State state, std::optional<bool> turnsOn = std::nullopt);
    void setUpStatusItem();
    void addObservers();
    void onDeviceSettingsChanged();
    void onDiscoveryStarted();
    void onDeviceDiscovered(const Notification &notification);
    void onDiscoveryComplete();
    void onServiceStarted();
    void onServiceReady();
    void onServiceTerminated();
    void showBridgeNotFound(const QString &message);

    Services m_services;
    Platform m_platform;
    SystemSleep m_systemSleep;
    bool m_withTray;
    State m_state = State::StartingUp;
    bool m_onOffTurnsOn = true;
    bool m_stoppedByUser = false;
    QMenu m_statusMenu;
    QAction *m_firstMenuItem = nullptr;
    QAction *m_onOffMenuItem = nullptr;
    QSystemTrayIcon *m_statusItem = nullptr;
    QList<QAction *> m_deviceMenuItems;
    QPointer<QWidget> m_preferencesWindow;
    std::function<QWidget *()> m_windowFactory;
    std::vector<NotificationCenter::Token> m_observers;
    bool m_toldBridgeMissing = false;
};
