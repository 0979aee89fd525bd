// SPDX-License-Identifier: GPL-3.0-or-later
#include "Controller.h"

#include "BridgeLocator.h"
#include "BuildConfig.h"
#include "DeviceDiscovery.h"
#include "Log.h"
#include "Logging.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "ServiceManager.h"
#include "Settings.h"

#include <QFileInfo>
#include <QPointer>

Controller::Controller(Services services, Platform platform, bool withTray, QObject *parent)
    : QObject(parent), m_services(std::move(services)), m_platform(std::move(platform)),
      m_withTray(withTray), m_lifecycle(*this, [this] { return m_clock.elapsed(); }),
      m_systemSleep(m_platform.idleInhibitor), m_tray(m_lifecycle, m_services.settings),
      m_notices(withTray)
{
    initCorvelResources();
    m_clock.start();
    m_applyTimer.setSingleShot(true);
    m_applyTimer.setInterval(Lifecycle::applyDelayMs);
    connect(&m_applyTimer, &QTimer::timeout, this, [this] { handle(Event::ApplyTimerFired); });
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, [this] { handle(Event::RetryTimerFired); });
    m_streamsTimer.setSingleShot(true);
    m_streamsTimer.setInterval(0);
    connect(&m_streamsTimer, &QTimer::timeout, this, &Controller::updateStreams);
    m_streams.onPlayingChanged = [this] {
        showPlayingHere();
    };
    m_streams.onProblem = [this](const QString &text) {
        tellProblem(text);
    };
    connect(&m_tray, &TrayPresenter::onOffClicked, this, &Controller::onOffClicked);
    connect(&m_tray, &TrayPresenter::preferencesClicked, this, [this] {
        logInfo(QStringLiteral("preferencesClicked"));
        showPreferences();
    });
    connect(&m_tray, &TrayPresenter::iconClicked, this, &Controller::showPreferences);
    connect(&m_tray, &TrayPresenter::aboutClicked, this, [this] {
        logInfo(QStringLiteral("aboutClicked"));
        showWindow(Windows::Kind::About);
    });
    connect(&m_tray, &TrayPresenter::feedbackClicked, this, [this] {
        logInfo(QStringLiteral("feedbackClicked"));
        showWindow(Windows::Kind::Feedback);
    });
    connect(&m_tray, &TrayPresenter::quitClicked, this, &Controller::quit);
    // A visible preferences window comes to the front when the menu opens.
    connect(&m_tray, &TrayPresenter::menuAboutToShow, this, [this] {
        if (m_windows && m_windows->isVisible(Windows::Kind::Preferences))
            showPreferences();
    });
}

Controller::~Controller()
{
    for (const auto token : m_observers)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void Controller::startCrashReporting()
{
    CrashReporter &reporter = CrashReporter::shared();
    reporter.configure(QStringLiteral(CORVEL_APP_ID), this);
    reporter.start();
}

QString Controller::recentLog()
{
    return Log::shared().text(100);
}

void Controller::crashPromptWillShow()
{
    m_services.settings().recordCrashReport();
}

void Controller::start()
{
    logInfo(QStringLiteral("applicationDidFinishLaunching"));
    m_platform.launcherHelper->stopIfRunning(
        [] { logInfo(QStringLiteral("Stopping launcher app")); });
    if (m_withTray) {
        m_tray.showTrayIcon();
        m_notices.setTrayIcon(m_tray.trayIcon());
    }
    addObservers();
    if (m_platform.resumeWatcher)
        m_platform.resumeWatcher->watch([self = QPointer<Controller>(this)] {
            if (self)
                self->handle(Event::Resumed);
        });
    m_tray.updateSpeakerItems();
    handle(Event::Launched);
    connect(&m_bridgeFolders, &QFileSystemWatcher::directoryChanged, this,
            &Controller::checkBridge);
    checkBridge();
}

void Controller::checkBridge()
{
    if (!m_services.locateBridge)
        return;
    const BridgeLocation where = m_services.locateBridge();
    // Each place is watched through the nearest folder that exists, so that a folder made
    // for the bridge (by the setup window or by hand) is seen too.
    QStringList folders;
    for (const QString &place : where.lookedIn) {
        QFileInfo folder(QFileInfo(place).absolutePath());
        while (!folder.isDir() && !folder.isRoot() && folder.absoluteFilePath() != "/")
            folder = QFileInfo(folder.absolutePath());
        if (folder.isDir() && !folders.contains(folder.absoluteFilePath()))
            folders.append(folder.absoluteFilePath());
    }
    const QStringList watched = m_bridgeFolders.directories();
    for (const QString &folder : folders) {
        if (!watched.contains(folder))
            m_bridgeFolders.addPath(folder);
    }
    if (where.path.isEmpty()) {
        if (state() == State::BridgeMissing || m_lifecycle.stoppedByUser())
            return; // told already, or told when the user turns Corvel on
        m_lookedIn = where.lookedIn;
        logWarning(QStringLiteral("No AirConnect bridge on this computer; looked in ") +
                   where.lookedIn.join(QStringLiteral(", ")));
        handle(Event::BridgeMissing);
    } else if (state() == State::BridgeMissing) {
        logInfo(QStringLiteral("Found the AirConnect bridge at ") + where.path);
        bridgeInstalled();
    }
}

void Controller::shutdown()
{
    logInfo(QStringLiteral("applicationWillTerminate"));
    // A change whose save failed gets one more try.
    if (m_services.settings().saveError())
        m_services.settings().save();
    // The speakers playing this computer's sound are told to stop while Corvel can still ask.
    m_streams.shutdown(2000);
    handle(Event::Quit);
}

void Controller::handle(Event event, quint64 launch)
{
    const State before = m_lifecycle.state();
    const bool turnedOnBefore = m_lifecycle.onOffTurnsOn();
    for (const Lifecycle::Command command : m_lifecycle.handle(event, launch))
        run(command);
    // The tray and systemd hear of changes only: speakers found in a burst cost nothing here.
    if (m_lifecycle.state() != before || m_lifecycle.onOffTurnsOn() != turnedOnBefore) {
        showBridgeView(); // "Not offered by the bridge" is said only of a running one
        m_streamsTimer.start();
        m_tray.refresh();
        reportToServiceManager();
        NotificationCenter::defaultCenter().post(Notifications::appStateChanged);
    }
}

void Controller::run(Lifecycle::Command command)
{
    using C = Lifecycle::Command;
    switch (command) {
    case C::Search:
        m_services.searchForDevices(DeviceDiscovery::defaultSearchSeconds);
        break;
    case C::StopSearching:
        m_services.stopSearching();
        break;
    case C::Watch:
    case C::StopWatching:
        m_services.watch(command == C::Watch);
        break;
    case C::StartBridge: {
        const auto records = allRecords();
        // Every start is told back: as started and ended (even a file that could not be
        // written), or as a missing bridge.
        m_services.startBridge(records, bridgeOptions(records));
        break;
    }
    case C::RestartBridge: {
        const auto records = allRecords();
        m_services.restartBridge(records, bridgeOptions(records));
        break;
    }
    case C::StopBridge:
        m_services.stopBridge();
        break;
    case C::ShutdownBridge:
        m_services.shutdownBridge();
        break;
    case C::StartApplyTimer:
        m_applyTimer.start();
        break;
    case C::StopApplyTimer:
        m_applyTimer.stop();
        break;
    case C::StartRetryTimer:
        m_retryTimer.start(m_lifecycle.retryDelayMs());
        break;
    case C::StopRetryTimer:
        m_retryTimer.stop();
        break;
    case C::PreventSleep:
        m_systemSleep.disableIdleSleep();
        break;
    case C::AllowSleep:
        m_systemSleep.enableIdleSleep();
        break;
    case C::AnnounceStopped:
        NotificationCenter::defaultCenter().post(Notifications::appStopped);
        break;
    case C::ShowBridgeSetup:
        showBridgeSetup();
        break;
    case C::TellBridgeMissing:
        // This computer's own sound needs no bridge: without it, only phones and other
        // computers cannot reach the speakers through Corvel.
        if (m_services.settings().soundOutputs)
            m_notices.show(tr("AirConnect bridge not set up"),
                           tr("This computer plays to your speakers without it. Set up the free "
                              "AirConnect bridge so that phones and other computers can too."),
                           tr("Set Up…"), [this] { showBridgeSetup(); });
        else
            m_notices.show(tr("AirConnect bridge needed"),
                           tr("Corvel needs the free AirConnect bridge to play to your speakers "
                              "from phones and other computers. This computer's own sound needs "
                              "no bridge: turn on sound outputs in Preferences."),
                           tr("Set Up…"), [this] { showBridgeSetup(); });
        break;
    case C::TellRetrying:
        m_notices.show(tr("AirConnect bridge stopped"),
                       tr("The bridge stopped unexpectedly; Corvel is restarting it."));
        break;
    case C::TellNotReady:
        m_notices.show(tr("AirConnect bridge stopped"),
                       tr("The bridge was not ready within 20 seconds, so Corvel stopped it; it "
                          "is starting it again."));
        break;
    case C::TellGaveUp: {
        const QStringList output = m_services.bridgeOutput();
        m_notices.show(
            tr("Corvel stopped"),
            tr("The AirConnect bridge keeps stopping, so Corvel has stopped "
               "restarting it. Its last words:\n%1")
                .arg(output.isEmpty() ? tr("(nothing)") : output.join(QLatin1Char('\n'))));
        break;
    }
    }
}

bool Controller::hasSpeakers() const
{
    for (const auto &entry : m_services.settings().devices) {
        if (entry.second.active)
            return true;
    }
    return false;
}

bool Controller::bridgeConfigDiffers() const
{
    const auto records = allRecords();
    return m_services.bridgeConfigDiffers(records, bridgeOptions(records));
}

BridgeOptions Controller::bridgeOptions(const std::vector<DeviceSettings> &records) const
{
    const Settings &settings = m_services.settings();
    BridgeOptions options;
    options.latency = BridgeOptions::bridgeLatency(settings.bridgeDelay);
    options.ports = settings.bridgePorts;
    if (m_services.localAddresses)
        options.binding = BridgeNetwork::interfaceFor(records, m_services.localAddresses());
    return options;
}

std::vector<DeviceSettings> Controller::allRecords() const
{
    // Every record, in the map's order: the configuration decides which the bridge offers.
    std::vector<DeviceSettings> records;
    for (const auto &entry : m_services.settings().devices)
        records.push_back(entry.second);
    return records;
}

void Controller::reportToServiceManager()
{
    const State state = m_lifecycle.state();
    QString status = QString::fromUtf8(TrayPresenter::statusSource(state))
                         .mid(QStringLiteral("Corvel: ").size());
    if (state == State::Running) {
        const int offered = m_tray.offeredCount();
        const auto [ready, playing] = readyAndPlaying(m_services.settings().devices);
        status = QStringLiteral("Running: %1 speaker%2 offered, %3 ready, %4 playing")
                     .arg(offered)
                     .arg(offered == 1 ? QString() : QStringLiteral("s"))
                     .arg(ready)
                     .arg(playing);
    }
    if (status == m_reportedStatus && m_toldReady)
        return;
    m_reportedStatus = status;
    QByteArray message = "STATUS=" + status.toUtf8();
    // Ready once the first search is over, whatever it found: the service is doing its job.
    if (!m_toldReady && state != State::StartingUp && state != State::Searching) {
        m_toldReady = true;
        message += "\nREADY=1";
    }
    notifyServiceManager(message);
}

void Controller::addObservers()
{
    NotificationCenter &center = NotificationCenter::defaultCenter();
    // Handles the notification on the main loop: the lifecycle event, after what runs first.
    const auto hop = [this](Event event, std::function<void(const Notification &)> first = {}) {
        return [this, event, first](const Notification &n) {
            mainQueueAsync([self = QPointer<Controller>(this), event, first, n] {
                if (!self)
                    return;
                if (first)
                    first(n);
                self->handle(event, n.userInfo.value(UserInfoKey::launch).toULongLong());
            });
        };
    };
    m_observers.push_back(
        center.addObserver(Notifications::deviceSettingsChanged,
                           hop(Event::SpeakerChanged, [this](const Notification &) {
                               m_tray.updateSpeakerItems();
                               m_streamsTimer.start();
                           })));
    // Known speakers are marked not found at once, before any answer of the search can be
    // merged; the titles and the menu follow on the main loop.
    m_observers.push_back(
        center.addObserver(Notifications::discoveryStarted,
                           [this, later = hop(Event::SearchStarted, [this](const Notification &) {
                                      m_tray.updateSpeakerItems();
                                  })](const Notification &n) {
                               m_services.settings().markAllDevicesNotActive();
                               later(n);
                           }));
    m_observers.push_back(center.addObserver(
        Notifications::deviceDiscovered,
        [this, later = hop(Event::SpeakerFound)](const Notification &n) {
            const auto speaker = discoveredSpeaker(n);
            if (!speaker) {
                logWarning(QStringLiteral("Ignoring a deviceDiscovered event without a speaker "
                                          "description and topology"));
                return;
            }
            m_services.settings().mergeDiscoveredSpeaker(speaker->first, speaker->second,
                                                         answeredASearch(n));
            later(n);
            m_tray.scheduleSpeakerItems();
            m_streamsTimer.start();
        }));
    m_observers.push_back(
        center.addObserver(Notifications::deviceDeparted, [this](const Notification &n) {
            const QUrl location = n.userInfo.value(UserInfoKey::location).toUrl();
            if (!m_services.settings().markDeviceNotActive(location))
                return;
            m_tray.updateSpeakerItems();
            m_streamsTimer.start();
            handle(Event::SpeakerDeparted);
        }));
    // The decision runs as a hop so it sees the menu updates queued by earlier speakers.
    m_observers.push_back(center.addObserver(
        Notifications::discoveryComplete, hop(Event::SearchEnded, [this](const Notification &) {
            if (state() == State::BridgeMissing)
                checkBridge(); // put in place by hand, or named in CORVEL_BRIDGE meanwhile
        })));
    m_observers.push_back(
        center.addObserver(Notifications::serviceStarted, hop(Event::BridgeStarted)));
    m_observers.push_back(center.addObserver(Notifications::serviceReady, hop(Event::BridgeReady)));
    m_observers.push_back(
        center.addObserver(Notifications::serviceTerminated, [this](const Notification &n) {
            const Event event =
                n.userInfo.value(UserInfoKey::cannotStart).toBool() ? Event::BridgeCannotStart
                : n.userInfo.value(UserInfoKey::notReady).toBool()  ? Event::BridgeNotReady
                                                                    : Event::BridgeEnded;
            mainQueueAsync([self = QPointer<Controller>(this), event,
                            launch = n.userInfo.value(UserInfoKey::launch).toULongLong()] {
                if (self)
                    self->handle(event, launch);
            });
        }));
    m_observers.push_back(
        center.addObserver(Notifications::bridgeSpeakersChanged, [this](const Notification &) {
            mainQueueAsync([self = QPointer<Controller>(this)] {
                if (self)
                    self->showBridgeView();
            });
        }));
    // Each fault of the bridge is told once, in its own words; the log keeps every one.
    m_observers.push_back(
        center.addObserver(Notifications::bridgeProblem, [this](const Notification &n) {
            const QString text = n.userInfo.value(UserInfoKey::problem).toString();
            mainQueueAsync([self = QPointer<Controller>(this), text] {
                if (self)
                    self->tellProblem(text);
            });
        }));
    m_observers.push_back(center.addObserver(
        Notifications::bridgeMissing, hop(Event::BridgeMissing, [this](const Notification &n) {
            m_lookedIn = n.userInfo.value(UserInfoKey::lookedIn).toStringList();
            if (m_windows)
                m_windows->setBridgeLookedIn(m_lookedIn);
        })));
}

void Controller::showBridgeView()
{
    const auto said = m_services.bridgeSpeakers ? m_services.bridgeSpeakers()
                                                : std::map<QString, BridgeSpeakerState>();
    const bool running = m_lifecycle.state() == State::Running;
    bool changed = false;
    for (auto &entry : m_services.settings().devices) {
        DeviceSettings &record = entry.second;
        // The bridge names a speaker by its room when it adds it, by its name later on.
        auto found = said.find(record.name);
        if (found == said.end())
            found = said.find(record.info.roomName.value_or(QString()));
        BridgeView view = BridgeView::Unknown;
        if (found != said.end() && record.offeredToBridge()) {
            view = found->second == BridgeSpeakerState::Playing ? BridgeView::Playing
                   : found->second == BridgeSpeakerState::Ready ? BridgeView::Ready
                   : found->second == BridgeSpeakerState::Gone  ? BridgeView::Unresponsive
                                                                : BridgeView::NotOffered;
        } else if (running && record.offeredToBridge()) {
            view = BridgeView::NotOffered;
        }
        changed = changed || record.bridgeView != view;
        record.bridgeView = view;
    }
    if (!changed)
        return;
    m_tray.scheduleSpeakerItems();
    if (m_lifecycle.state() == State::Running) // the only status that counts them
        reportToServiceManager();
    NotificationCenter::defaultCenter().post(Notifications::speakerStatesChanged);
}

void Controller::tellProblem(const QString &text)
{
    if (text.isEmpty() || m_toldProblems.contains(text))
        return;
    m_toldProblems.insert(text);
    m_notices.show(tr("Corvel"), text);
}

void Controller::updateStreams()
{
    m_streams.setEnabled(m_services.settings().soundOutputs && !m_lifecycle.stoppedByUser());
    m_streams.update(m_services.settings().devices, m_services.searchRunning());
}

void Controller::showPlayingHere()
{
    if (!markPlayingHere(m_services.settings().devices, m_streams.playingHere()))
        return;
    m_tray.scheduleSpeakerItems();
    if (m_lifecycle.state() == State::Running)
        reportToServiceManager();
    NotificationCenter::defaultCenter().post(Notifications::speakerStatesChanged);
}

void Controller::setNoTray(bool noTray)
{
    m_noTray = noTray;
    m_notices.setNoTray(noTray);
}

void Controller::showWindow(Windows::Kind kind)
{
    if (!m_withTray)
        return; // a headless run has no screen to show it on
    if (!m_windows) {
        logWarning(QStringLiteral("The preferences window is not available in this build"));
        return;
    }
    m_windows->show(kind);
}

void Controller::showPreferences()
{
    showWindow(Windows::Kind::Preferences);
}

void Controller::showBridgeSetup()
{
    logInfo(QStringLiteral("showBridgeSetup"));
    if (!m_withTray) {
        logWarning(QStringLiteral("Install the AirConnect bridge as %1 in %2, or set "
                                  "CORVEL_BRIDGE to its path; it is downloaded from %3")
                       .arg(bridgeFileName(currentBridgeArchitecture()), userBridgeDirectory(),
                            bridgeReleasesUrl));
        return;
    }
    showWindow(Windows::Kind::BridgeSetup);
}

void Controller::onOffClicked()
{
    handle(Event::OnOff);
}

void Controller::startSearching()
{
    handle(Event::SearchAsked);
}

void Controller::stopBridge()
{
    handle(Event::StopAsked);
}

void Controller::bridgeInstalled()
{
    handle(Event::BridgeInstalled);
}

void Controller::quit()
{
    logInfo(QStringLiteral("quitClicked"));
    emit quitRequested();
}
