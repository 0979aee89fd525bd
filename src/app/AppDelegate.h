// SPDX-License-Identifier: GPL-3.0-or-later
// The application controller: starts Corvel, turns the bridge on and off, and drives the
// bridge's lifecycle from discovery and bridge events; owns the tray menu.
#pragma once

#include "AppServices.h"
#include "CrashReporter.h"
#include "NotificationCenter.h"

#include <functional>
#include <QAction>
#include <QMenu>
#include <QObject>
#include <QPointer>

class QSystemTrayIcon;

class AppDelegate : public QObject, public CrashReporterDelegate
{
    Q_OBJECT

public:
    using Services = AppServices;

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
    static constexpr double searchSeconds = 8.0;

    // withTray: show a tray icon; headless runs without one.
    AppDelegate(Services services, bool withTray, QObject *parent = nullptr);
    ~AppDelegate() override;

    void applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    // Stops the bridge (waiting a bounded time) before Corvel exits.
    void applicationWillTerminate();

    // Rebuilds the speaker items from the active speakers, in location order.
    void updateDeviceMenuItems();
    QAction *makeDeviceMenuItem(const DeviceSettings &record);
    // Brings a visible preferences window to the front when the menu opens.
    void menuWillOpen();
    // Shows the preferences window, creating it once.
    void showWindow();
    // Asks a running launcher helper to quit.
    void stopLauncherApp();

    // Configures, attaches and starts the crash reporter (at launch, before the tray).
    void configureCrashReporting();
    QString applicationLogForCrashManager() override;
    void crashManagerWillShowSubmitCrashReportAlert() override;
    // The crash reporter's log lines, errors and warnings only, into Corvel's log.
    static void crashReporterLogHandler(const CrashReporter::MessageProvider &message, int level,
                                        const char *file, const char *function, quint32 line);
    // The About box: version and credits.
    void showAbout();

    void onOffClicked();
    void preferencesClicked();
    void aboutClicked();
    void feedbackClicked();
    void quitClicked();

    QMenu *statusMenu() { return &m_statusMenu; }
    QAction *firstMenuItem() const { return m_firstMenuItem; }
    QAction *onOffMenuItem() const { return m_onOffMenuItem; }
    const QList<QAction *> &deviceMenuItems() const { return m_deviceMenuItems; }
    QSystemTrayIcon *statusItem() const { return m_statusItem; }

    // Creates the preferences window on first use; unset until the window exists.
    void setPreferencesWindowFactory(std::function<QWidget *()> factory)
    {
        m_windowFactory = std::move(factory);
    }

signals:
    void quitRequested();

private:
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
    bool m_withTray;
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
