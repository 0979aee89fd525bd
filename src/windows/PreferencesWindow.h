// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences window: the speaker table, start/stop with its spinner, start at login and
// saving the log. It keeps no model: it reads the shared state each time it draws and redraws
// on the events that may change it while it is shown. The table has one row per speaker,
// kept for as long as the speaker is listed and updated in place; rows are added, removed
// and reordered only while the user is neither renaming nor pointing into the list.
#pragma once

#include "Controls.h"
#include "DeviceSettings.h"
#include "NotificationCenter.h"
#include "Platform.h"

#include <memory>
#include <QHash>
#include <QNetworkAccessManager>
#include <QPixmap>
#include <QPointer>
#include <QWidget>

namespace Ui {
class PreferencesWindow;
}
class SpeakerRow;
class QKeyEvent;
class QLabel;
class QListWidgetItem;

class PreferencesWindow : public QWidget
{
    Q_OBJECT

public:
    // controls: the controller; platform: start at login and the sound outputs.
    PreferencesWindow(Controls &controls, Platform platform, QWidget *parent = nullptr);
    ~PreferencesWindow() override;

    // Brings the rows in line with the settings: each row's texts at once, the set of rows and
    // their order (natural order of the names) as soon as that disturbs nobody. While a
    // search runs, speakers listed before it keep their rows until it ends.
    void reloadData();
    void updateStartStopButton();
    void updateSpinner();

    void startStopClicked();
    void startAtLoginChecked();
    // Turns the speakers as sound outputs of this computer on or off.
    void soundOutputsChecked();
    void updateSoundOutputsCheckBox();
    // Fills the delay choice from the settings; a new choice is saved and applied.
    void setUpDelayChoice();
    // Opens a save dialog without blocking; its OK writes the log there.
    void saveLogClicked();
    // Writes the log to path; a failure shows the "Error" alert.
    void saveLogTo(const QString &path);

    // Without a tray, closing the window quits Corvel; the window says so and how to get one.
    void setClosingQuits(bool quits);

    bool canStop() const { return m_canStop; }
    int observerCount() const { return int(m_listeners.size()); }
    SpeakerRow *row(int index) const;
    int rowCount() const;
    // Whether rows wait to be added, removed or moved.
    bool layoutPending() const { return m_layoutPending; }

signals:
    // The window was closed while closing quits Corvel.
    void closedToQuit();

protected:
    void closeEvent(QCloseEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void startObserving(); // while shown
    void stopObserving();
    void fillRow(QListWidgetItem *item, const DeviceSettings &record);
    // Without a tray: where Corvel stands, and what the tray menu would offer.
    void addNoTrayBar();
    void updateStatus();
    void loadIcon(const QUrl &url, SpeakerRow *row);
    // Adds, removes and orders the rows, unless the user is renaming or pointing into the list.
    void layoutRows();
    SpeakerRow *makeRowView(std::optional<QUrl> location);
    void addRow(int index, const QUrl &location, const DeviceSettings &record);
    bool isRenaming() const;
    // Space toggles the current row, F2, Return and Enter rename it.
    bool tableKeyPressed(const QKeyEvent *event);
    // Draws the current row as such while the list has the keyboard.
    void showCurrentRow();
    // Says, above the list, that the last change could not be saved, while that is so.
    void showSaveState();

    Controls &m_controls;
    Platform m_platform;
    std::unique_ptr<Ui::PreferencesWindow> m_ui;
    std::vector<NotificationCenter::Token> m_listeners;
    bool m_reloadPending = false;
    bool m_layoutPending = false;
    bool m_pointerInList = false;
    QHash<QUrl, QListWidgetItem *> m_items; // the speakers' rows by location
    QListWidgetItem *m_noSpeakersItem = nullptr;
    QPointer<SpeakerRow> m_shownCurrent;
    bool m_canStop = false;
    bool m_offersSetup = false; // the button opens the bridge setup
    bool m_closingQuits = false;
    QLabel *m_noTrayLabel = nullptr;
    QWidget *m_noTrayBar = nullptr;
    QLabel *m_statusLabel = nullptr;
    QLabel *m_saveErrorLabel = nullptr;
    QNetworkAccessManager m_network;
    // Icons by URL; a null pixmap marks one being fetched or that could not be had, so a
    // table reload never asks a speaker for the same icon twice.
    QHash<QUrl, QPixmap> m_icons;
    QPixmap m_placeholder;
};
