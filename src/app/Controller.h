// SPDX-License-Identifier: GPL-3.0-or-later
// The controller: turns what discovery, the bridge and the user report into lifecycle
// events, runs the commands the lifecycle answers with, keeps the speaker records, and lets
// the tray, the notices and systemd show where things stand.
#pragma once

#include "AppServices.h"
#include "Controls.h"
#include "CrashReporter.h"
#include "Lifecycle.h"
#include "Notices.h"
#include "NotificationCenter.h"
#include "Platform.h"
#include "SpeakerStreams.h"
#include "SystemSleep.h"
#include "TrayPresenter.h"
#include "Windows.h"

#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QObject>
#include <QSet>
#include <QTimer>

class Controller : public QObject,
                   public Controls,
                   public CrashReporterDelegate,
                   private Lifecycle::Facts
{
    Q_OBJECT

public:
    using Services = AppServices;
    using State = Lifecycle::State;
    using Event = Lifecycle::Event;

    // withTray: show a tray icon, notices and windows; headless runs without them.
    Controller(Services services, Platform platform, bool withTray, QObject *parent = nullptr);
    ~Controller() override;

    // Starts Corvel: the tray icon, the observers, the first search.
    void start();
    // Stops the bridge (waiting a bounded time) before Corvel exits.
    void shutdown();
    // Configures and starts the crash reporter (its prompts, if any, are set before).
    void startCrashReporting();

    // Feeds one event to the lifecycle and runs what it answers.
    void handle(Event event, quint64 launch = 0);

    const Lifecycle &lifecycle() const { return m_lifecycle; }
    State state() const { return m_lifecycle.state(); }
    TrayPresenter &tray() { return m_tray; }
    SystemSleep &systemSleep() { return m_systemSleep; }
    bool changesPending() const { return m_applyTimer.isActive(); }
    // The retry delays are in units of this many ms (1000; tests shorten it).
    void setRetryUnit(int ms) { m_lifecycle.setRetryUnit(ms); }

    // The windows to open (none in a headless run).
    void setWindows(Windows *windows) { m_windows = windows; }
    void setNoTray(bool noTray);
    void showPreferences();
    void showBridgeSetup();
    void onOffClicked();

    // Controls, for the windows.
    Settings &settings() override { return m_services.settings(); }
    bool searchRunning() const override { return m_services.searchRunning(); }
    bool bridgeRunning() const override { return m_services.bridgeRunning(); }
    bool stoppedByUser() const override { return m_lifecycle.stoppedByUser(); }
    bool bridgeMissing() const override { return state() == State::BridgeMissing; }
    void setUpBridge() override { showBridgeSetup(); }
    void startSearching() override;
    void stopBridge() override;
    QStringList bridgeLookedIn() const override { return m_lookedIn; }
    void bridgeInstalled() override;
    bool noTray() const override { return m_noTray; }
    void quit() override;
    QString statusTitle() const override { return TrayPresenter::statusTitle(state()); }
    void showAbout() override { showWindow(Windows::Kind::About); }
    void showFeedback() override { showWindow(Windows::Kind::Feedback); }

    // CrashReporterDelegate.
    QString recentLog() override;
    void crashPromptWillShow() override;

signals:
    void quitRequested();

private:
    // Lifecycle::Facts, from the services.
    bool hasSpeakers() const override;
    bool bridgeConfigDiffers() const override;

    void run(Lifecycle::Command command);
    void addObservers();
    void showWindow(Windows::Kind kind);
    std::vector<DeviceSettings> allRecords() const;
    // The delay and ports the user chose, and the interface of the offered speakers.
    BridgeOptions bridgeOptions(const std::vector<DeviceSettings> &records) const;
    // Tells systemd (under a Type=notify unit) the state, and once that start-up is done.
    void reportToServiceManager();
    // Brings each record's bridgeView in line with what the bridge said; tells the tray, the
    // service manager and the windows ("speakerStatesChanged") when something changed.
    void showBridgeView();
    // The speakers' sound outputs follow the settings and whether Corvel is on.
    void updateStreams();
    void showPlayingHere();
    void tellProblem(const QString &text);
    // Looks for the bridge now (at start, when a folder it may be put in changes, after a
    // search without it): its absence is told whatever the search finds, its arrival starts it.
    void checkBridge();

    Services m_services;
    Platform m_platform;
    bool m_withTray;
    bool m_noTray = false;
    QElapsedTimer m_clock;
    Lifecycle m_lifecycle;
    SystemSleep m_systemSleep;
    TrayPresenter m_tray;
    Notices m_notices;
    Windows *m_windows = nullptr;
    QStringList m_lookedIn;       // where the missing bridge was looked for
    QSet<QString> m_toldProblems; // the bridge's faults told to the user
    std::vector<NotificationCenter::Token> m_observers;
    QTimer m_applyTimer;
    QTimer m_retryTimer;
    SpeakerStreams m_streams;
    QTimer m_streamsTimer;              // gathers a burst of changes into one update of the outputs
    QFileSystemWatcher m_bridgeFolders; // where a bridge may be put
    bool m_toldReady = false;           // systemd has had READY=1
    QString m_reportedStatus;           // the STATUS systemd has
};
