// SPDX-License-Identifier: GPL-3.0-or-later
// The application controller: starts Corvel, turns the bridge on and off, and drives the
// bridge's lifecycle from discovery and bridge events; owns the tray menu.
#pragma once

#include "AppServices.h"
#include "BridgeSetupWindow.h"
#include "Controls.h"
#include "CrashReporter.h"
#include "DesktopNotices.h"
#include "NotificationCenter.h"
#include "Platform.h"
#include "SystemSleep.h"
#include "TrayIcon.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <QAction>
#include <QElapsedTimer>
#include <QHash>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QTimer>

class QSystemTrayIcon;

class AppDelegate : public QObject, public Controls, public CrashReporterDelegate
{
    Q_OBJECT

public:
    using Services = AppServices;

    // Where the bridge's lifecycle stands; the status line is derived from it.
    enum class State {
        StartingUp,
        Searching,
        NoSpeakers,
        Starting,
        Running,
        Retrying, // the bridge ended by itself; it is started again after a delay
        Stopped,
        Off,
        BridgeMissing // no bridge executable: the on/off item offers the bridge setup
    };

    // The lifecycle titles and the on/off commands, in English; shown through tr().
    static constexpr const char *statusOff = QT_TR_NOOP("Corvel: Off");
    static constexpr const char *statusSearching = QT_TR_NOOP("Corvel: Looking For Speakers...");
    static constexpr const char *statusNoSpeakers = QT_TR_NOOP("Corvel: No Speakers Found");
    static constexpr const char *statusStarting = QT_TR_NOOP("Corvel: Starting...");
    static constexpr const char *statusRunning = QT_TR_NOOP("Corvel: Running");
    static constexpr const char *statusStopped = QT_TR_NOOP("Corvel: Stopped");
    static constexpr const char *statusRetrying =
        QT_TR_NOOP("Corvel: Bridge Stopped, Restarting...");
    static constexpr const char *statusBridgeMissing = QT_TR_NOOP("Corvel: Bridge Not Installed");
    static constexpr const char *commandTurnOn = QT_TR_NOOP("Turn Corvel &On");
    static constexpr const char *commandTurnOff = QT_TR_NOOP("Turn Corvel O&ff");
    static constexpr const char *commandInstallBridge = QT_TR_NOOP("&Install Bridge…");

    // Speaker items are inserted from this menu position on; past maxInlineSpeakers they go
    // into a "Speakers" submenu, so the menu never splits into columns.
    static constexpr int firstDeviceMenuIndex = 4;
    static constexpr int maxInlineSpeakers = 12;

    // Changes to the speakers reach the bridge once they have been quiet this long.
    static constexpr int applyDelayMs = 2000;
    // A bridge that ends by itself is started again after 2, 4, 8 ... 60 seconds; after
    // maxFailures such ends within failureWindowMs Corvel stops trying. Running that long
    // without failing starts the count afresh.
    static constexpr int maxRetryDelaySeconds = 60;
    static constexpr int maxFailures = 5;
    static constexpr qint64 failureWindowMs = 10 * 60 * 1000;

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
    // The state's title in the user's language.
    static QString statusTitle(State state);
    // The same in English, for the service manager.
    static const char *statusSource(State state);
    // The tray icon's look and tool tip for the current state.
    TrayLook trayLook() const;
    QString toolTip() const;

    // Brings the speaker items in line with the active speakers, in location order.
    void updateDeviceMenuItems();
    // The same, once, on the next turn of the event loop.
    void scheduleMenuUpdate();
    QAction *makeDeviceMenuItem(const DeviceSettings &record);
    // Brings a visible preferences window to the front when the menu opens.
    void menuWillOpen();
    // Shows the preferences window, creating it once.
    void showWindow();
    // Shows the bridge setup window, creating it once.
    void showBridgeSetup();
    // A bridge was installed: search, then start it.
    void bridgeInstalled();
    BridgeSetupWindow *bridgeSetupWindow() const { return m_setupWindow.data(); }
    // Closing the preferences window quits Corvel (set when there is no tray).
    void setNoTray(bool noTray) { m_noTray = noTray; }
    bool noTray() const { return m_noTray; }
    // Asks a running launcher helper to quit.
    void stopLauncherApp();

    // Configures and starts the crash reporter (at launch, before the tray).
    void configureCrashReporting();
    QString applicationLogForCrashManager() override;
    void crashManagerWillShowSubmitCrashReportAlert() override;
    // The About window: version, licence and what a bug report needs; one at a time.
    void showAbout();
    // The version, Qt version and desktop session, as copied for a bug report.
    static QString versionInfo();

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
    bool bridgeMissing() const override { return m_state == State::BridgeMissing; }
    void setUpBridge() override { showBridgeSetup(); }
    void startSearching() override;
    void stopBridge() override;

    // Rewrites the configuration and restarts the bridge when the speakers offered or their
    // names changed; starts it when speakers appeared after a search found none.
    void applyChanges();
    bool changesPending() const { return m_applyTimer.isActive(); }
    // The retry delays are in units of this many ms (1000; tests shorten it).
    void setRetryUnit(int ms) { m_retryUnitMs = ms; }
    // A notice for the user (the tray's balloon, or the desktop's notifications without a
    // tray); also logged. A click on it, or on actionLabel, runs onAction.
    void showNotice(const QString &title, const QString &message, const QString &actionLabel = {},
                    std::function<void()> onAction = {});

    QMenu *statusMenu() { return &m_statusMenu; }
    QAction *firstMenuItem() const { return m_firstMenuItem; }
    QAction *onOffMenuItem() const { return m_onOffMenuItem; }
    const QList<QAction *> &deviceMenuItems() const { return m_deviceMenuItems; }
    QMenu *speakersMenu() { return &m_speakersMenu; }
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
    void onDeviceDeparted(const Notification &notification);
    void scheduleApply();
    std::vector<DeviceSettings> allRecords();
    void bridgeEndedUnasked();
    void retryBridge();
    // Tells systemd (under a Type=notify unit) the state, and once that start-up is done.
    void reportToServiceManager();
    void onDiscoveryComplete();
    void onServiceStarted(const Notification &notification);
    void onServiceReady(const Notification &notification);
    void onServiceTerminated(const Notification &notification);
    void onBridgeMissing(const Notification &notification);
    void updateStatusItem();
    int offeredCount() const;

    Services m_services;
    Platform m_platform;
    SystemSleep m_systemSleep;
    bool m_withTray;
    State m_state = State::StartingUp;
    bool m_onOffTurnsOn = true;
    bool m_stoppedByUser = false;
    QMenu m_statusMenu;
    QMenu m_speakersMenu; // holds the speaker items past maxInlineSpeakers
    QAction *m_speakersHeader = nullptr;
    QAction *m_firstMenuItem = nullptr;
    QAction *m_onOffMenuItem = nullptr;
    QSystemTrayIcon *m_statusItem = nullptr;
    QList<QAction *> m_deviceMenuItems;
    QHash<QString, QAction *> m_menuItemByLocation;
    QAction *m_speakersEnd = nullptr; // the separator after the speaker items
    bool m_menuUpdatePending = false;
    QPointer<QWidget> m_preferencesWindow;
    QPointer<BridgeSetupWindow> m_setupWindow;
    QPointer<QWidget> m_aboutWindow;
    QPointer<QWidget> m_feedbackWindow;
    DesktopNotices m_desktopNotices;
    std::function<void()> m_balloonAction; // what a click on the tray's balloon does
    QStringList m_lookedIn;                // where the missing bridge was looked for
    bool m_noTray = false;
    bool m_gaveUp = false;                 // the bridge kept failing and Corvel stopped retrying
    std::map<TrayLook, QIcon> m_trayIcons; // drawn on first use
    std::optional<TrayLook> m_shownLook;   // the look the tray icon has
    std::function<QWidget *()> m_windowFactory;
    std::vector<NotificationCenter::Token> m_observers;
    bool m_toldBridgeMissing = false;
    QTimer m_applyTimer;
    QTimer m_retryTimer;
    QElapsedTimer m_clock;
    std::deque<qint64> m_failures; // when the bridge ended by itself, on m_clock
    int m_retries = 0;             // consecutive retries, for the backoff
    int m_retryUnitMs = 1000;
    bool m_toldRetrying = false;
    qint64 m_readySince = -1;
    quint64 m_launch = 0;        // the bridge launch the titles follow
    bool m_exitExpected = false; // a stop was asked for: the next exit is no failure
    bool m_toldReady = false;    // systemd has had READY=1
    QString m_reportedStatus;    // the STATUS systemd has
};
