// SPDX-License-Identifier: GPL-3.0-or-later
// The tray: its menu (status line, on/off, one item per speaker found, the fixed commands),
// its icon and tool tip. It shows the lifecycle's state and the speaker records and decides
// nothing: the commands are signals for the controller.
#pragma once

#include "Lifecycle.h"
#include "TrayIcon.h"

#include <functional>
#include <map>
#include <optional>
#include <QHash>
#include <QMenu>
#include <QObject>

class DeviceSettings;
class QAction;
class QSystemTrayIcon;
class Settings;

class TrayPresenter : public QObject
{
    Q_OBJECT

public:
    using State = Lifecycle::State;

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
    static constexpr const char *statusWaitingForNetwork =
        QT_TR_NOOP("Corvel: Waiting For Network...");
    static constexpr const char *commandTurnOn = QT_TR_NOOP("Turn Corvel &On");
    static constexpr const char *commandTurnOff = QT_TR_NOOP("Turn Corvel &Off");
    static constexpr const char *commandInstallBridge = QT_TR_NOOP("&Install Bridge…");

    // Speaker items are inserted from this menu position on; past maxInlineSpeakers they go
    // into a "Speakers" submenu, so the menu never splits into columns.
    static constexpr int firstDeviceMenuIndex = 4;
    static constexpr int maxInlineSpeakers = 12;

    // lifecycle and the settings must outlive the presenter.
    TrayPresenter(const Lifecycle &lifecycle, std::function<Settings &()> settings,
                  QObject *parent = nullptr);

    // The state's title in the user's language, and in English (for the service manager).
    static QString statusTitle(State state);
    static const char *statusSource(State state);

    // Creates and shows the tray icon (not in a headless run).
    void showTrayIcon();
    // Brings the titles, the icon and the tool tip in line with the lifecycle.
    void refresh();
    // Brings the speaker items in line with the active speakers, in location order.
    void updateSpeakerItems();
    // The same, once, on the next turn of the event loop.
    void scheduleSpeakerItems();

    // The tray icon's look and tool tip for the current state.
    TrayLook trayLook() const;
    QString toolTip() const;
    // How many speakers the bridge is asked to offer.
    int offeredCount() const;

    QMenu *menu() { return &m_menu; }
    QMenu *speakersMenu() { return &m_speakersMenu; }
    QAction *statusLine() const { return m_statusLine; }
    QAction *onOffItem() const { return m_onOffItem; }
    const QList<QAction *> &speakerItems() const { return m_speakerItems; }
    QSystemTrayIcon *trayIcon() const { return m_trayIcon; }

signals:
    void onOffClicked();
    void preferencesClicked();
    void aboutClicked();
    void feedbackClicked();
    void quitClicked();
    // The menu is about to open.
    void menuAboutToShow();
    // A left click on the icon.
    void iconClicked();

private:
    QAction *makeSpeakerItem(const DeviceSettings &record);

    const Lifecycle &m_lifecycle;
    std::function<Settings &()> m_settings;
    QMenu m_menu;
    QMenu m_speakersMenu; // holds the speaker items past maxInlineSpeakers
    QAction *m_statusLine = nullptr;
    QAction *m_onOffItem = nullptr;
    QAction *m_speakersHeader = nullptr;
    QAction *m_speakersEnd = nullptr; // the separator after the speaker items
    QList<QAction *> m_speakerItems;
    QHash<QString, QAction *> m_itemByLocation;
    bool m_itemsPending = false;
    QSystemTrayIcon *m_trayIcon = nullptr;
    std::map<TrayLook, QIcon> m_icons;   // drawn on first use
    std::optional<TrayLook> m_shownLook; // the look the tray icon has
};
