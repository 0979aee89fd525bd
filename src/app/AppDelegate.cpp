// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"

#include "AirConnect.h"
#include "BridgeLocator.h"
#include "BridgeSetupWindow.h"
#include "BuildConfig.h"
#include "DeviceDiscovery.h"
#include "FeedbackWindow.h"
#include "Log.h"
#include "LogExport.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "ServiceManager.h"
#include "Settings.h"
#include "SystemSleep.h"

#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QLibraryInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QVBoxLayout>
#include <QWidget>

namespace {
// The crash prompt: closing it, or Escape, is no answer (the reports wait for the next start),
// where a plain message box would take its "Don't" button.
class CrashPromptBox : public QMessageBox
{
protected:
    void closeEvent(QCloseEvent *event) override { QDialog::closeEvent(event); }
    void keyPressEvent(QKeyEvent *event) override
    {
        if (event->key() == Qt::Key_Escape) {
            reject();
            return;
        }
        QMessageBox::keyPressEvent(event);
    }
};

// Shows a window and puts it in front: each of Corvel's windows exists once.
void bringForward(QWidget *window)
{
    window->show();
    window->raise();
    window->activateWindow();
}

// A speaker's name as a menu item shows it: a lone "&" would become a keyboard mnemonic.
QString menuItemText(QString name)
{
    return name.replace(QLatin1Char('&'), QStringLiteral("&&"));
}
} // namespace

AppDelegate::AppDelegate(Services services, Platform platform, bool withTray, QObject *parent)
    : QObject(parent), m_services(std::move(services)), m_platform(std::move(platform)),
      m_systemSleep(m_platform.idleInhibitor), m_withTray(withTray)
{
    initCorvelResources();
    // The fixed entries: four ahead of the speakers, the commands after them.
    m_firstMenuItem = m_statusMenu.addAction(tr(statusOff));
    m_firstMenuItem->setEnabled(false);
    m_onOffMenuItem = m_statusMenu.addAction(tr(commandTurnOn), this, &AppDelegate::onOffClicked);
    m_statusMenu.addSeparator();
    m_speakersHeader = m_statusMenu.addAction(tr("Speakers"));
    m_speakersHeader->setEnabled(false);
    m_speakersMenu.setTitle(tr("Speakers"));
    m_speakersEnd = m_statusMenu.addSeparator();
    m_statusMenu.addAction(tr("&Preferences…"), this, &AppDelegate::preferencesClicked);
    m_statusMenu.addAction(tr("&About Corvel"), this, &AppDelegate::aboutClicked);
    m_statusMenu.addAction(tr("Send &Feedback…"), this, &AppDelegate::feedbackClicked);
    m_statusMenu.addSeparator();
    m_statusMenu.addAction(tr("&Quit Corvel"), this, &AppDelegate::quitClicked);
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
        reporter.setPrompt([&reporter](const CrashReporter::Reports &reports,
                                       std::function<void(CrashReporter::Answer)> done) {
            auto *box = new CrashPromptBox;
            box->setIcon(QMessageBox::Warning);
            box->setWindowTitle(tr("Corvel quit unexpectedly"));
            box->setText(reports.size() == 1
                             ? tr("Corvel quit unexpectedly the last time it ran.")
                             : tr("Corvel quit unexpectedly %n times since it last asked.", nullptr,
                                  int(reports.size())));
            box->setObjectName(QStringLiteral("crashReportMessageBox"));
            const bool canSend = reporter.canSend();
            box->setInformativeText(
                canSend ? tr("Would you like to send a report? It holds where Corvel crashed "
                             "and its recent log, which names your speakers and their "
                             "addresses on your network.")
                        : tr("You can save a report to attach to a bug report. It holds where "
                             "Corvel crashed and its recent log, which names your speakers "
                             "and their addresses on your network."));
            QString details;
            for (const CrashReporter::Report &report : reports)
                details += report.record + QStringLiteral("\n") + report.attachment +
                           QStringLiteral("\n\n");
            box->setDetailedText(details);
            QPushButton *send =
                box->addButton(canSend ? tr("Send") : tr("Save Report…"), QMessageBox::AcceptRole);
            QPushButton *always =
                canSend ? box->addButton(tr("Always Send"), QMessageBox::YesRole) : nullptr;
            QPushButton *decline = box->addButton(canSend ? tr("Don't Send") : tr("Don't Save"),
                                                  QMessageBox::DestructiveRole);
            box->setDefaultButton(send);
            box->setAttribute(Qt::WA_DeleteOnClose);
            QObject::connect(
                box, &QMessageBox::finished, box, [box, send, always, decline, done](int) {
                    QAbstractButton *clicked = box->clickedButton();
                    done(clicked == send                ? CrashReporter::Answer::Send
                         : clicked && clicked == always ? CrashReporter::Answer::AlwaysSend
                         : clicked == decline           ? CrashReporter::Answer::DontSend
                                                        : CrashReporter::Answer::Later);
                });
            box->open();
        });
        reporter.setSavePrompt([](const CrashReporter::Reports &,
                                  std::function<void(QString)> done) {
            auto *dialog = new QFileDialog(nullptr, tr("Save Crash Report"));
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            dialog->setAcceptMode(QFileDialog::AcceptSave);
            dialog->setDirectory(LogExport::saveFolder());
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

const char *AppDelegate::statusSource(State state)
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
    case State::BridgeMissing:
        return statusBridgeMissing;
    case State::StartingUp:
    case State::Off:
        break;
    }
    return statusOff;
}

QString AppDelegate::statusTitle(State state)
{
    return tr(statusSource(state));
}

void AppDelegate::setState(State state, std::optional<bool> turnsOn)
{
    m_state = state;
    if (turnsOn)
        m_onOffTurnsOn = *turnsOn;
    m_firstMenuItem->setText(statusTitle(m_state));
    m_onOffMenuItem->setText(tr(m_state == State::BridgeMissing ? commandInstallBridge
                                : m_onOffTurnsOn                ? commandTurnOn
                                                                : commandTurnOff));
    updateStatusItem();
    reportToServiceManager();
}

int AppDelegate::offeredCount() const
{
    int offered = 0;
    for (const auto &entry : m_services.settings().devices)
        offered += entry.second.offeredToBridge() ? 1 : 0;
    return offered;
}

TrayLook AppDelegate::trayLook() const
{
    switch (m_state) {
    case State::Running:
        return TrayLook::Running;
    case State::StartingUp:
    case State::Searching:
    case State::Starting:
        return TrayLook::Busy;
    case State::Retrying:
    case State::BridgeMissing:
        return TrayLook::Problem;
    case State::Stopped:
        return m_gaveUp ? TrayLook::Problem : TrayLook::Idle;
    case State::NoSpeakers:
    case State::Off:
        break;
    }
    return TrayLook::Idle;
}

QString AppDelegate::toolTip() const
{
    if (m_state != State::Running)
        return statusTitle(m_state);
    const int offered = offeredCount();
    return offered == 1 ? tr("Corvel: Running — 1 speaker")
                        : tr("Corvel: Running — %1 speakers").arg(offered);
}

void AppDelegate::updateStatusItem()
{
    if (!m_statusItem)
        return;
    // Icons are drawn once per look; the tray is told only of changes.
    const TrayLook look = trayLook();
    auto icon = m_trayIcons.find(look);
    if (icon == m_trayIcons.end())
        icon = m_trayIcons.emplace(look, trayIcon(look)).first;
    if (m_shownLook != look) {
        m_shownLook = look;
        m_statusItem->setIcon(icon->second);
    }
    const QString tip = toolTip();
    if (m_statusItem->toolTip() != tip)
        m_statusItem->setToolTip(tip);
}

void AppDelegate::reportToServiceManager()
{
    QString status =
        QString::fromUtf8(statusSource(m_state)).mid(QStringLiteral("Corvel: ").size());
    if (m_state == State::Running) {
        const int offered = offeredCount();
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
    m_statusItem->setContextMenu(&m_statusMenu);
    updateStatusItem();
    // A left click (the tray's "Activate") opens Preferences; the menu is on the right button.
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    showWindow();
            });
    connect(m_statusItem, &QSystemTrayIcon::messageClicked, this, [this] {
        if (const auto action = std::exchange(m_balloonAction, nullptr))
            action();
    });
    m_statusItem->show();
}

void AppDelegate::showNotice(const QString &title, const QString &message,
                             const QString &actionLabel, std::function<void()> onAction)
{
    logWarning(QStringLiteral("Notice: ") + title + QStringLiteral(" - ") + message);
    if (!m_withTray)
        return;
    if (m_statusItem && !m_noTray && QSystemTrayIcon::isSystemTrayAvailable()) {
        // A balloon has no buttons: a click on it is the action.
        m_balloonAction = std::move(onAction);
        m_statusItem->showMessage(title,
                                  actionLabel.isEmpty() ? message
                                                        : message + QLatin1Char(' ') +
                                                              tr("Click here: %1").arg(actionLabel),
                                  QSystemTrayIcon::Warning, 30000);
        return;
    }
    m_desktopNotices.show(title, message, actionLabel, std::move(onAction));
}

void AppDelegate::onBridgeMissing(const Notification &notification)
{
    m_lookedIn = notification.userInfo.value(UserInfoKey::lookedIn).toStringList();
    if (m_setupWindow)
        m_setupWindow->setLookedIn(m_lookedIn);
    setState(State::BridgeMissing);
    if (std::exchange(m_toldBridgeMissing, true))
        return;
    showNotice(tr("AirConnect bridge needed"),
               tr("Corvel needs the free AirConnect bridge to play to your speakers."),
               tr("Set Up…"), [this] { showBridgeSetup(); });
}

void AppDelegate::showBridgeSetup()
{
    logInfo(QStringLiteral("showBridgeSetup"));
    if (!m_withTray) {
        logWarning(QStringLiteral("Install the AirConnect bridge as %1 in %2, or set "
                                  "CORVEL_BRIDGE to its path; it is downloaded from %3")
                       .arg(bridgeFileName(currentBridgeArchitecture()), userBridgeDirectory(),
                            bridgeReleasesUrl));
        return;
    }
    if (!m_setupWindow) {
        m_setupWindow = new BridgeSetupWindow(currentBridgeArchitecture(), m_lookedIn);
        m_setupWindow->setAttribute(Qt::WA_DeleteOnClose);
        connect(m_setupWindow, &BridgeSetupWindow::installed, this, &AppDelegate::bridgeInstalled);
    }
    bringForward(m_setupWindow);
}

void AppDelegate::bridgeInstalled()
{
    // Carry on as after a start: search, then start the bridge with what was found.
    m_toldBridgeMissing = false;
    m_stoppedByUser = false;
    setState(State::Searching, false);
    m_services.searchForDevices(DeviceDiscovery::defaultSearchSeconds);
    m_services.watch(true);
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
    m_observers.push_back(
        center.addObserver(Notifications::bridgeMissing, hop(&AppDelegate::onBridgeMissing)));
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
            const QString text = menuItemText(record.name);
            if (item->text() != text)
                item->setText(text);
            item->setChecked(record.enabled);
        }
        byLocation.insert(location.text, item);
        items.append(item);
    }
    QMenu *const container = items.size() > maxInlineSpeakers ? &m_speakersMenu : &m_statusMenu;
    for (QAction *gone : std::as_const(m_menuItemByLocation)) {
        m_statusMenu.removeAction(gone);
        m_speakersMenu.removeAction(gone);
        gone->deleteLater();
    }
    m_menuItemByLocation = std::move(byLocation);
    QAction *const end = container == &m_statusMenu ? m_speakersEnd : nullptr;
    if (m_speakersHeader->menu() != (container == &m_speakersMenu ? &m_speakersMenu : nullptr)) {
        // Crossing the limit moves every item to the other menu.
        QMenu *const other = container == &m_statusMenu ? &m_speakersMenu : &m_statusMenu;
        for (QAction *item : std::as_const(items))
            other->removeAction(item);
        added.clear();
        for (int i = 0; i < items.size(); ++i)
            added.append({items[i], i});
        m_speakersHeader->setMenu(container == &m_speakersMenu ? &m_speakersMenu : nullptr);
        m_speakersHeader->setEnabled(container == &m_speakersMenu);
    }
    // The kept items are in order already; each new one goes before its successor.
    for (auto it = added.crbegin(); it != added.crend(); ++it)
        container->insertAction(items.value(it->second + 1, end), it->first);
    m_deviceMenuItems = std::move(items);
    updateStatusItem();
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
    auto *item = new QAction(menuItemText(record.name), &m_statusMenu);
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
    bringForward(m_preferencesWindow);
}

void AppDelegate::onOffClicked()
{
    if (m_state == State::BridgeMissing) {
        showBridgeSetup();
        return;
    }
    m_gaveUp = false;
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

QString AppDelegate::versionInfo()
{
    const QString session =
        qEnvironmentVariable("XDG_CURRENT_DESKTOP", qEnvironmentVariable("DESKTOP_SESSION"));
    return QStringLiteral("Corvel %1\nQt %2 (%3)\nDesktop: %4 (%5)")
        .arg(Settings::currentVersion(), QString::fromLatin1(qVersion()),
             QGuiApplication::platformName(),
             session.isEmpty() ? QStringLiteral("unknown") : session,
             qEnvironmentVariable("XDG_SESSION_TYPE", QStringLiteral("unknown session type")));
}

void AppDelegate::showAbout()
{
    if (!m_withTray)
        return; // a headless run has no screen to show it on
    if (!m_aboutWindow) {
        auto *window = new QWidget;
        window->setObjectName(QStringLiteral("aboutWindow"));
        window->setAttribute(Qt::WA_DeleteOnClose);
        window->setWindowTitle(tr("About Corvel"));
        auto *layout = new QVBoxLayout(window);
        auto *icon = new QLabel(window);
        icon->setPixmap(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")).pixmap(64, 64));
        icon->setAlignment(Qt::AlignHCenter);
        layout->addWidget(icon);
        auto *text = new QLabel(window);
        text->setObjectName(QStringLiteral("aboutLabel"));
        text->setTextFormat(Qt::RichText);
        text->setOpenExternalLinks(true);
        text->setTextInteractionFlags(Qt::TextBrowserInteraction);
        text->setWordWrap(true);
        text->setAlignment(Qt::AlignHCenter);
        const auto link = [](const QString &url) {
            return QStringLiteral("<a href=\"%1\">%1</a>").arg(url.toHtmlEscaped());
        };
        text->setText(tr("<h3>Corvel %1</h3><p>Plays this computer's sound on Sonos speakers "
                         "through the AirConnect bridge.</p><p>%2<br>%3</p>"
                         "<p>Created by %4 (%5)</p><p>Corvel is free software: you may "
                         "redistribute and modify it under the GNU General Public License, "
                         "version 3 or (at your option) any later version. It comes with no "
                         "warranty. See %6.</p>")
                          .arg(Settings::currentVersion(), link(QStringLiteral(CORVEL_WEBSITE)),
                               link(QStringLiteral(CORVEL_SOCIAL)),
                               QStringLiteral(CORVEL_AUTHOR).toHtmlEscaped(),
                               link(QStringLiteral(CORVEL_AUTHOR_URL)),
                               link(QStringLiteral("https://www.gnu.org/licenses/gpl-3.0.html"))));
        layout->addWidget(text);
        auto *info = new QLabel(versionInfo(), window);
        info->setObjectName(QStringLiteral("versionInfoLabel"));
        info->setTextInteractionFlags(Qt::TextSelectableByMouse);
        info->setAlignment(Qt::AlignHCenter);
        layout->addWidget(info);
        auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, window);
        QPushButton *copy =
            buttons->addButton(tr("&Copy Version Info"), QDialogButtonBox::ActionRole);
        copy->setObjectName(QStringLiteral("copyVersionInfoPushButton"));
        connect(copy, &QPushButton::clicked, window,
                [] { QGuiApplication::clipboard()->setText(versionInfo()); });
        connect(buttons, &QDialogButtonBox::rejected, window, &QWidget::close);
        layout->addWidget(buttons);
        window->setMinimumWidth(420);
        m_aboutWindow = window;
    }
    bringForward(m_aboutWindow);
}

void AppDelegate::feedbackClicked()
{
    logInfo(QStringLiteral("feedbackClicked"));
    if (!m_feedbackWindow) {
        m_feedbackWindow = new FeedbackWindow(QUrl(QStringLiteral(CORVEL_FEEDBACK_ENDPOINT)));
        m_feedbackWindow->setAttribute(Qt::WA_DeleteOnClose);
    }
    bringForward(m_feedbackWindow);
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
        m_gaveUp = true;
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
