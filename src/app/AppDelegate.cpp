// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"

#include "AirConnect.h"
#include "BuildConfig.h"
#include "DeviceDiscovery.h"
#include "FeedbackWindow.h"
#include "Log.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "ServiceManager.h"
#include "Settings.h"
#include "SystemSleep.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileDialog>
#include <QIcon>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QWidget>

AppDelegate::AppDelegate(Services services, Platform platform, bool withTray, QObject *parent)
    : QObject(parent), m_services(std::move(services)), m_platform(std::move(platform)),
      m_systemSleep(m_platform.idleInhibitor), m_withTray(withTray)
{
    initCorvelResources();
    // The fixed entries: four ahead of the speakers, the commands after them.
    m_firstMenuItem = m_statusMenu.addAction(statusOff);
    m_firstMenuItem->setEnabled(false);
    m_onOffMenuItem = m_statusMenu.addAction(commandTurnOn, this, &AppDelegate::onOffClicked);
    m_statusMenu.addSeparator();
    m_statusMenu.addAction(tr("Speakers"))->setEnabled(false);
    m_speakersEnd = m_statusMenu.addSeparator();
    m_statusMenu.addAction(tr("Preferences…"), this, &AppDelegate::preferencesClicked);
    m_statusMenu.addAction(tr("About Corvel"), this, &AppDelegate::aboutClicked);
    m_statusMenu.addAction(tr("Send Feedback…"), this, &AppDelegate::feedbackClicked);
    m_statusMenu.addSeparator();
    m_statusMenu.addAction(tr("Quit Corvel"), this, &AppDelegate::quitClicked);
    connect(&m_statusMenu, &QMenu::aboutToShow, this, &AppDelegate::menuWillOpen);
    m_applyTimer.setSingleShot(true);
    m_applyTimer.setInterval(applyDelayMs);
    connect(&m_applyTimer, &QTimer::timeout, this, &AppDelegate::applyChanges);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &AppDelegate::retryBridge);
    m_clock.start();
}

AppDelegate::~AppDelegate()
{
    for (const auto token : m_observers)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void AppDelegate::applicationWillFinishLaunching()
{
    Logging::setDefaultLevel(LogLevel::Verbose);
    Logging::attach(&Log::shared());
    Logging::installQtMessageHandler();
    logInfo(QStringLiteral("applicationWillFinishLaunching"));
    configureCrashReporting();
}

void AppDelegate::configureCrashReporting()
{
    CrashReporter &reporter = CrashReporter::shared();
    reporter.configure(QStringLiteral(CORVEL_APP_ID), this);
    if (m_withTray) {
        reporter.setPrompt([](const CrashReporter::Report &report,
                              std::function<void(CrashReporter::Answer)> done) {
            auto *box = new QMessageBox(QMessageBox::Warning, tr("Corvel quit unexpectedly"),
                                        tr("Corvel quit unexpectedly the last time it ran."));
            box->setObjectName(QStringLiteral("crashReportMessageBox"));
            box->setInformativeText(
                tr("Would you like to send a report? It holds where Corvel crashed "
                   "and its recent log, which names your speakers and their "
                   "addresses on your network."));
            box->setDetailedText(report.record + QStringLiteral("\n") + report.attachment);
            QPushButton *send = box->addButton(tr("Send"), QMessageBox::AcceptRole);
            QPushButton *always = box->addButton(tr("Always Send"), QMessageBox::YesRole);
            box->addButton(tr("Don't Send"), QMessageBox::RejectRole);
            box->setDefaultButton(send);
            box->setAttribute(Qt::WA_DeleteOnClose);
            QObject::connect(box, &QMessageBox::finished, box, [box, send, always, done](int) {
                QAbstractButton *clicked = box->clickedButton();
                done(clicked == send     ? CrashReporter::Answer::Send
                     : clicked == always ? CrashReporter::Answer::AlwaysSend
                                         : CrashReporter::Answer::DontSend);
            });
            box->open();
        });
        reporter.setSavePrompt([](const CrashReporter::Report &,
                                  std::function<void(QString)> done) {
            auto *dialog = new QFileDialog(nullptr, tr("Save Crash Report"));
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            dialog->setAcceptMode(QFileDialog::AcceptSave);
            dialog->setDirectory(
                QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation));
            dialog->selectFile(QStringLiteral("corvel-crash-report.txt"));
            QObject::connect(dialog, &QFileDialog::fileSelected, dialog,
                             [done](const QString &path) { done(path); });
            QObject::connect(dialog, &QFileDialog::rejected, dialog, [done] { done(QString()); });
            dialog->open();
        });
    }
    reporter.start();
}

QString AppDelegate::applicationLogForCrashManager()
{
    return Log::shared().text(100);
}

void AppDelegate::crashManagerWillShowSubmitCrashReportAlert()
{
    m_services.settings().recordCrashReport();
}

void AppDelegate::applicationDidFinishLaunching()
{
    logInfo(QStringLiteral("applicationDidFinishLaunching"));
    stopLauncherApp();
    setUpStatusItem();
    addObservers();
    updateDeviceMenuItems();
    m_stoppedByUser = false;
    m_services.searchForDevices(DeviceDiscovery::defaultSearchSeconds);
    m_services.watch(true);
}

void AppDelegate::startSearching()
{
    m_stoppedByUser = false;
    m_services.searchForDevices(DeviceDiscovery::defaultSearchSeconds);
}

QString AppDelegate::statusTitle(State state)
{
    switch (state) {
    case State::Searching:
        return statusSearching;
    case State::NoSpeakers:
        return statusNoSpeakers;
    case State::Starting:
        return statusStarting;
    case State::Running:
        return statusRunning;
    case State::Stopped:
        return statusStopped;
    case State::Retrying:
        return statusRetrying;
    case State::StartingUp:
    case State::Off:
        break;
    }
    return statusOff;
}

void AppDelegate::setState(State state, std::optional<bool> turnsOn)
{
    m_state = state;
    if (turnsOn)
        m_onOffTurnsOn = *turnsOn;
    m_firstMenuItem->setText(statusTitle(m_state));
    m_onOffMenuItem->setText(m_onOffTurnsOn ? commandTurnOn : commandTurnOff);
    reportToServiceManager();
}

void AppDelegate::reportToServiceManager()
{
    QString status = statusTitle(m_state).mid(QStringLiteral("Corvel: ").size());
    if (m_state == State::Running) {
        int offered = 0;
        for (const auto &entry : m_services.settings().devices)
            offered += entry.second.offeredToBridge() ? 1 : 0;
        status = QStringLiteral("Running: %1 speaker%2 offered")
                     .arg(offered)
                     .arg(offered == 1 ? QString() : QStringLiteral("s"));
    }
    if (status == m_reportedStatus && m_toldReady)
        return;
    m_reportedStatus = status;
    QByteArray message = "STATUS=" + status.toUtf8();
    // Ready once the first search is over, whatever it found: the service is doing its job.
    if (!m_toldReady && m_state != State::StartingUp && m_state != State::Searching) {
        m_toldReady = true;
        message += "\nREADY=1";
    }
    notifyServiceManager(message);
}

void AppDelegate::applicationWillTerminate()
{
    logInfo(QStringLiteral("applicationWillTerminate"));
    m_exitExpected = true;
    m_services.shutdownBridge();
}

void AppDelegate::stopLauncherApp()
{
    m_platform.launcherHelper->stopIfRunning(
        [] { logInfo(QStringLiteral("Stopping launcher app")); });
}

void AppDelegate::setUpStatusItem()
{
    if (!m_withTray)
        return;
    m_statusItem = new QSystemTrayIcon(this);
    QIcon icon(QStringLiteral(":/icons/statusIcon.svg"));
    icon.setIsMask(true); // a monochrome mask, so light and dark panels both show it
    m_statusItem->setIcon(icon);
    m_statusItem->setContextMenu(&m_statusMenu);
    m_statusItem->setToolTip(QStringLiteral("Corvel"));
    m_statusItem->show();
    connect(&AirConnect::shared(), &AirConnect::bridgeNotFound, this,
            &AppDelegate::showBridgeNotFound);
}

void AppDelegate::showBridgeNotFound(const QString &message)
{
    if (m_toldBridgeMissing || !m_statusItem)
        return;
    m_toldBridgeMissing = true;
    m_statusItem->showMessage(tr("AirConnect bridge not found"), message, QSystemTrayIcon::Warning,
                              30000);
}

void AppDelegate::showNotice(const QString &title, const QString &message)
{
    logWarning(QStringLiteral("Notice: ") + title + QStringLiteral(" - ") + message);
    if (m_statusItem)
        m_statusItem->showMessage(title, message, QSystemTrayIcon::Warning, 30000);
}

void AppDelegate::addObservers()
{
    NotificationCenter &center = NotificationCenter::defaultCenter();
    // Runs a handler, with or without the notification, on the main loop.
    const auto hop = [this](auto handler) {
        return [this, handler](const Notification &n) {
            mainQueueAsync([self = QPointer<AppDelegate>(this), handler, n] {
                if (!self)
                    return;
                if constexpr (std::is_invocable_v<decltype(handler), AppDelegate *,
                                                  const Notification &>)
                    (self->*handler)(n);
                else
                    (self->*handler)();
            });
        };
    };
    m_observers.push_back(center.addObserver(Notifications::deviceSettingsChanged,
                                             hop(&AppDelegate::onDeviceSettingsChanged)));
    // Known speakers are marked not found at once, before any answer of the search can be
    // merged; the titles and the menu follow on the main loop.
    m_observers.push_back(center.addObserver(
        Notifications::discoveryStarted,
        [this, titles = hop(&AppDelegate::onDiscoveryStarted)](const Notification &n) {
            m_services.settings().markAllDevicesNotActive();
            titles(n);
        }));
    m_observers.push_back(center.addObserver(
        Notifications::deviceDiscovered, [this](const Notification &n) { onDeviceDiscovered(n); }));
    // The decision runs as a hop so it sees the menu rebuilds queued by earlier speakers.
    m_observers.push_back(center.addObserver(Notifications::discoveryComplete,
                                             hop(&AppDelegate::onDiscoveryComplete)));
    m_observers.push_back(
        center.addObserver(Notifications::serviceStarted, hop(&AppDelegate::onServiceStarted)));
    m_observers.push_back(
        center.addObserver(Notifications::serviceReady, hop(&AppDelegate::onServiceReady)));
    m_observers.push_back(center.addObserver(Notifications::serviceTerminated,
                                             hop(&AppDelegate::onServiceTerminated)));
    m_observers.push_back(center.addObserver(
        Notifications::deviceDeparted, [this](const Notification &n) { onDeviceDeparted(n); }));
}

void AppDelegate::updateDeviceMenuItems()
{
    // One item per active speaker, in location order, kept from one update to the next: only
    // new items are inserted and only departed ones removed, so a search of N speakers costs
    // O(N) per update, not a menu rebuilt from scratch.
    QList<QAction *> items;
    QHash<QString, QAction *> byLocation;
    QList<std::pair<QAction *, int>> added; // with their place in items
    for (const auto &[location, record] : m_services.settings().devices) {
        if (!record.active)
            continue;
        QAction *item = m_menuItemByLocation.take(location.text);
        if (!item) {
            item = makeDeviceMenuItem(record);
            added.append({item, int(items.size())});
        } else {
            if (item->text() != record.name)
                item->setText(record.name);
            item->setChecked(record.enabled);
        }
        byLocation.insert(location.text, item);
        items.append(item);
    }
    for (QAction *gone : std::as_const(m_menuItemByLocation)) {
        m_statusMenu.removeAction(gone);
        gone->deleteLater();
    }
    m_menuItemByLocation = std::move(byLocation);
    // The kept items are in order already; each new one goes before its successor.
    for (auto it = added.crbegin(); it != added.crend(); ++it)
        m_statusMenu.insertAction(items.value(it->second + 1, m_speakersEnd), it->first);
    m_deviceMenuItems = std::move(items);
}

void AppDelegate::scheduleMenuUpdate()
{
    // Speakers found in one burst cost one update.
    if (std::exchange(m_menuUpdatePending, true))
        return;
    QPointer<AppDelegate> self(this);
    mainQueueAsync([self] {
        if (!self)
            return;
        self->m_menuUpdatePending = false;
        self->updateDeviceMenuItems();
    });
}

QAction *AppDelegate::makeDeviceMenuItem(const DeviceSettings &record)
{
    auto *item = new QAction(record.name, &m_statusMenu);
    item->setCheckable(true);
    item->setChecked(record.enabled);
    item->setEnabled(false);
    return item;
}

void AppDelegate::menuWillOpen()
{
    if (m_preferencesWindow && m_preferencesWindow->isVisible())
        showWindow();
}

void AppDelegate::showWindow()
{
    if (!m_preferencesWindow) {
        if (!m_windowFactory) {
            logWarning(QStringLiteral("The preferences window is not available in this build"));
            return;
        }
        m_preferencesWindow = m_windowFactory();
        if (!m_preferencesWindow)
            return;
    }
    m_preferencesWindow->show();
    m_preferencesWindow->raise();
    m_preferencesWindow->activateWindow();
}

void AppDelegate::onOffClicked()
{
    const bool turningOn = m_onOffTurnsOn;
    logInfo(turningOn ? QStringLiteral("onClicked") : QStringLiteral("offClicked"));
    m_stoppedByUser = !turningOn;
    // Either way the bridge's failures so far are forgotten.
    m_retryTimer.stop();
    m_failures.clear();
    m_retries = 0;
    m_toldRetrying = false;
    if (turningOn) {
        setState(State::Searching, false);
        m_services.searchForDevices(DeviceDiscovery::defaultSearchSeconds);
        m_services.watch(true);
    } else {
        setState(State::Off, true);
        m_applyTimer.stop();
        NotificationCenter::defaultCenter().post(Notifications::appStopped);
        m_services.watch(false);
        m_services.stopSearching();
        stopBridge();
    }
}

void AppDelegate::stopBridge()
{
    m_exitExpected = m_services.bridgeRunning();
    m_services.stopBridge();
}

void AppDelegate::preferencesClicked()
{
    logInfo(QStringLiteral("preferencesClicked"));
    showWindow();
}

void AppDelegate::aboutClicked()
{
    logInfo(QStringLiteral("aboutClicked"));
    showAbout();
}

void AppDelegate::showAbout()
{
    if (!m_withTray)
        return; // a headless run has no screen to show it on
    auto *box =
        new QMessageBox(QMessageBox::Information, tr("About Corvel"),
                        QStringLiteral("Corvel ") + Settings::currentVersion(), QMessageBox::Ok);
    box->setObjectName(QStringLiteral("aboutMessageBox"));
    // QMessageBox sizes itself to its title, which would wrap every credit line.
    box->setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 400px; }"));
    box->setIconPixmap(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")).pixmap(64, 64));
    box->setInformativeText(QStringLiteral("Website: %1\n%2\nCreated by %3 (%4)")
                                .arg(QStringLiteral(CORVEL_WEBSITE), QStringLiteral(CORVEL_SOCIAL),
                                     QStringLiteral(CORVEL_AUTHOR),
                                     QStringLiteral(CORVEL_AUTHOR_URL)));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void AppDelegate::feedbackClicked()
{
    logInfo(QStringLiteral("feedbackClicked"));
    auto *window = new FeedbackWindow(QUrl(QStringLiteral(CORVEL_FEEDBACK_ENDPOINT)));
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
}

void AppDelegate::quitClicked()
{
    logInfo(QStringLiteral("quitClicked"));
    emit quitRequested();
}

void AppDelegate::onDeviceSettingsChanged()
{
    updateDeviceMenuItems();
    scheduleApply();
}

void AppDelegate::scheduleApply()
{
    m_applyTimer.start(); // each change starts the quiet time afresh
}

void AppDelegate::applyChanges()
{
    if (m_stoppedByUser || m_state == State::Off)
        return;
    // A search decides when it completes (and comes back here).
    if (m_services.searchRunning())
        return;
    if (m_services.bridgeRunning()) {
        const std::vector<DeviceSettings> records = allRecords();
        if (!m_services.bridgeConfigDiffers(records))
            return;
        logInfo(QStringLiteral("Speakers changed, restarting AirConnect"));
        setState(State::Starting);
        m_services.restartBridge(records);
        return;
    }
    if (m_state == State::NoSpeakers && !m_deviceMenuItems.isEmpty()) {
        logInfo(QStringLiteral("Speakers found, starting AirConnect"));
        m_services.startBridge(allRecords());
    }
}

std::vector<DeviceSettings> AppDelegate::allRecords()
{
    // Every record, in the map's order: the configuration decides which the bridge offers.
    std::vector<DeviceSettings> records;
    for (const auto &entry : m_services.settings().devices)
        records.push_back(entry.second);
    return records;
}

void AppDelegate::onDiscoveryStarted()
{
    setState(State::Searching, false);
    updateDeviceMenuItems();
}

void AppDelegate::onDeviceDiscovered(const Notification &notification)
{
    const auto speaker = discoveredSpeaker(notification);
    if (!speaker) {
        logWarning(QStringLiteral(
            "Ignoring a deviceDiscovered event without a speaker description and topology"));
        return;
    }
    m_services.settings().mergeDiscoveredSpeaker(speaker->first, speaker->second);
    QPointer<AppDelegate> self(this);
    mainQueueAsync([self] {
        if (self)
            self->scheduleApply();
    });
    scheduleMenuUpdate();
}

void AppDelegate::onDeviceDeparted(const Notification &notification)
{
    const QUrl location = notification.userInfo.value(UserInfoKey::location).toUrl();
    if (!m_services.settings().markDeviceNotActive(location))
        return;
    updateDeviceMenuItems();
    scheduleApply();
}

void AppDelegate::onDiscoveryComplete()
{
    // Turned off and at once on again: the search that ended is not the one running now,
    // which decides when it completes.
    if (m_services.searchRunning()) {
        logInfo(QStringLiteral("Discovery complete, but a newer search runs"));
        return;
    }
    if (m_deviceMenuItems.isEmpty()) {
        logWarning(QStringLiteral("Discovery finished with no speakers found"));
        setState(State::NoSpeakers);
        return;
    }
    if (m_stoppedByUser) {
        logInfo(QStringLiteral("Discovery complete, bridge is stopped"));
        return;
    }
    if (!m_services.bridgeRunning()) {
        logInfo(QStringLiteral("Discovery complete, starting AirConnect"));
        m_services.startBridge(allRecords());
        return;
    }
    logInfo(QStringLiteral("Discovery complete, AirConnect already running"));
    scheduleApply(); // what this search changed reaches the bridge
}

void AppDelegate::onServiceStarted(const Notification &notification)
{
    m_launch = notification.userInfo.value(UserInfoKey::launch).toULongLong();
    m_exitExpected = false;
    m_readySince = -1;
    setState(State::Starting);
    m_systemSleep.disableIdleSleep();
}

void AppDelegate::onServiceReady(const Notification &notification)
{
    if (notification.userInfo.value(UserInfoKey::launch).toULongLong() != m_launch)
        return;
    m_readySince = m_clock.elapsed();
    setState(State::Running);
}

void AppDelegate::onServiceTerminated(const Notification &notification)
{
    // Only the launch the titles follow may change them.
    if (notification.userInfo.value(UserInfoKey::launch).toULongLong() != m_launch)
        return;
    m_systemSleep.enableIdleSleep();
    const bool expected = std::exchange(m_exitExpected, false);
    if (m_state == State::Starting || m_state == State::Running) {
        if (expected || m_stoppedByUser)
            setState(State::Stopped, true);
        else
            bridgeEndedUnasked();
    } else if (m_state == State::Off) {
        setState(State::Stopped, true);
    }
    // Otherwise a new search began while the stopped bridge was exiting: its titles stay.
}

void AppDelegate::bridgeEndedUnasked()
{
    const qint64 now = m_clock.elapsed();
    if (m_readySince >= 0 && now - m_readySince >= failureWindowMs) {
        m_failures.clear(); // it had been running well: a fresh start
        m_retries = 0;
        m_toldRetrying = false;
    }
    m_failures.push_back(now);
    while (now - m_failures.front() > failureWindowMs)
        m_failures.pop_front();
    if (static_cast<int>(m_failures.size()) >= maxFailures) {
        logError(QStringLiteral("AirConnect ended %1 times within 10 minutes; not restarting it")
                     .arg(maxFailures));
        m_failures.clear();
        m_retries = 0;
        m_toldRetrying = false;
        setState(State::Stopped, true);
        const QStringList output = m_services.bridgeOutput();
        showNotice(tr("Corvel stopped"),
                   tr("The AirConnect bridge keeps stopping, so Corvel has stopped restarting "
                      "it. Its last words:\n%1")
                       .arg(output.isEmpty() ? tr("(nothing)") : output.join(QLatin1Char('\n'))));
        return;
    }
    const int delay = std::min(maxRetryDelaySeconds, 2 << std::min(m_retries, 5));
    ++m_retries;
    logWarning(QStringLiteral("AirConnect ended by itself; restarting it in %1 s").arg(delay));
    setState(State::Retrying);
    if (!std::exchange(m_toldRetrying, true))
        showNotice(tr("AirConnect bridge stopped"),
                   tr("The bridge stopped unexpectedly; Corvel is restarting it."));
    m_retryTimer.start(delay * m_retryUnitMs);
}

void AppDelegate::retryBridge()
{
    if (m_stoppedByUser || m_state != State::Retrying)
        return;
    logInfo(QStringLiteral("Restarting AirConnect"));
    m_services.startBridge(allRecords());
    if (!m_services.bridgeRunning())
        bridgeEndedUnasked(); // could not even be launched: counts as a failure
}
