// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayPresenter.h"

#include "MainQueue.h"
#include "Settings.h"

#include <QPointer>
#include <QSystemTrayIcon>

namespace {
// A speaker's name as a menu item shows it: a lone "&" would become a keyboard mnemonic.
// The speaker's name and, after a dash, what it is doing.
QString menuItemText(const DeviceSettings &record, const DeviceMap &devices)
{
    QString name = record.name;
    name.replace(QLatin1Char('&'), QStringLiteral("&&"));
    const QString state = speakerStateText(record, devices);
    return state.isEmpty() ? name : name + QStringLiteral(" — ") + state;
}
} // namespace

TrayPresenter::TrayPresenter(const Lifecycle &lifecycle, std::function<Settings &()> settings,
                             QObject *parent)
    : QObject(parent), m_lifecycle(lifecycle), m_settings(std::move(settings))
{
    // The fixed entries: four ahead of the speakers, the commands after them.
    m_statusLine = m_menu.addAction(tr(statusOff));
    m_statusLine->setEnabled(false);
    m_onOffItem = m_menu.addAction(tr(commandTurnOn), this, &TrayPresenter::onOffClicked);
    m_menu.addSeparator();
    m_speakersHeader = m_menu.addAction(tr("Speakers"));
    m_speakersHeader->setEnabled(false);
    m_speakersMenu.setTitle(tr("Speakers"));
    m_speakersEnd = m_menu.addSeparator();
    m_menu.addAction(tr("&Preferences…"), this, &TrayPresenter::preferencesClicked);
    m_menu.addAction(tr("&About Corvel"), this, &TrayPresenter::aboutClicked);
    m_menu.addAction(tr("Send &Feedback…"), this, &TrayPresenter::feedbackClicked);
    m_menu.addSeparator();
    m_menu.addAction(tr("&Quit Corvel"), this, &TrayPresenter::quitClicked);
    connect(&m_menu, &QMenu::aboutToShow, this, &TrayPresenter::menuAboutToShow);
}

const char *TrayPresenter::statusSource(State state)
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
    case State::WaitingForNetwork:
        return statusWaitingForNetwork;
    case State::StartingUp:
    case State::Off:
        break;
    }
    return statusOff;
}

QString TrayPresenter::statusTitle(State state)
{
    return tr(statusSource(state));
}

void TrayPresenter::showTrayIcon()
{
    m_trayIcon = new QSystemTrayIcon(this);
    m_trayIcon->setContextMenu(&m_menu);
    refresh();
    // A left click (the tray's "Activate") opens Preferences; the menu is on the right button.
    connect(m_trayIcon, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    emit iconClicked();
            });
    m_trayIcon->show();
}

void TrayPresenter::refresh()
{
    const State state = m_lifecycle.state();
    m_statusLine->setText(statusTitle(state));
    m_onOffItem->setText(tr(state == State::BridgeMissing ? commandInstallBridge
                            : m_lifecycle.onOffTurnsOn()  ? commandTurnOn
                                                          : commandTurnOff));
    if (!m_trayIcon)
        return;
    // Icons are drawn once per look; the tray is told only of changes.
    const TrayLook look = trayLook();
    auto icon = m_icons.find(look);
    if (icon == m_icons.end())
        icon = m_icons.emplace(look, ::trayIcon(look)).first;
    if (m_shownLook != look) {
        m_shownLook = look;
        m_trayIcon->setIcon(icon->second);
    }
    const QString tip = toolTip();
    if (m_trayIcon->toolTip() != tip)
        m_trayIcon->setToolTip(tip);
}

int TrayPresenter::offeredCount() const
{
    int offered = 0;
    for (const auto &entry : m_settings().devices)
        offered += entry.second.offeredToBridge() ? 1 : 0;
    return offered;
}

TrayLook TrayPresenter::trayLook() const
{
    switch (m_lifecycle.state()) {
    case State::Running:
        return TrayLook::Running;
    case State::StartingUp:
    case State::Searching:
    case State::Starting:
    case State::WaitingForNetwork:
        return TrayLook::Busy;
    case State::Retrying:
    case State::BridgeMissing:
        return TrayLook::Problem;
    case State::Stopped:
        return m_lifecycle.gaveUp() ? TrayLook::Problem : TrayLook::Idle;
    case State::NoSpeakers:
    case State::Off:
        break;
    }
    return TrayLook::Idle;
}

QString TrayPresenter::toolTip() const
{
    const State state = m_lifecycle.state();
    if (state != State::Running)
        return statusTitle(state);
    const int offered = offeredCount();
    const auto [ready, playing] = readyAndPlaying(m_settings().devices);
    const QString speakers = offered == 1 ? tr("Corvel: Running — 1 speaker")
                                          : tr("Corvel: Running — %1 speakers").arg(offered);
    return speakers + QLatin1Char('\n') + tr("%1 ready, %2 playing").arg(ready).arg(playing);
}

void TrayPresenter::updateSpeakerItems()
{
    // One item per active speaker, in the window's order, kept from one update to the next: only
    // new items are inserted and only departed ones removed, so a search of N speakers costs
    // O(N) per update, not a menu rebuilt from scratch.
    QList<QAction *> items;
    QHash<QString, QAction *> byLocation;
    QList<std::pair<QAction *, int>> added; // with their place in items
    const DeviceMap &devices = m_settings().devices;
    const auto ordered = displayOrder(
        devices, [](const DeviceMap::value_type &entry) { return entry.second.active; });
    for (const DeviceMap::value_type *entry : ordered) {
        const auto &[location, record] = *entry;
        QAction *item = m_itemByLocation.take(location.text);
        if (!item) {
            item = makeSpeakerItem(record);
            added.append({item, int(items.size())});
        } else {
            const QString text = menuItemText(record, devices);
            if (item->text() != text)
                item->setText(text);
            item->setChecked(record.enabled);
        }
        byLocation.insert(location.text, item);
        items.append(item);
    }
    // A kept item whose place changed (its group did) is put in again like a new one.
    QList<QAction *> kept;
    for (QAction *item : std::as_const(m_speakerItems)) {
        if (items.contains(item))
            kept.append(item);
    }
    QList<QAction *> keptNow;
    for (QAction *item : std::as_const(items)) {
        if (kept.contains(item))
            keptNow.append(item);
    }
    if (kept != keptNow) {
        added.clear();
        for (int i = 0; i < items.size(); ++i) {
            m_menu.removeAction(items[i]);
            m_speakersMenu.removeAction(items[i]);
            added.append({items[i], i});
        }
    }
    QMenu *const container = items.size() > maxInlineSpeakers ? &m_speakersMenu : &m_menu;
    for (QAction *gone : std::as_const(m_itemByLocation)) {
        m_menu.removeAction(gone);
        m_speakersMenu.removeAction(gone);
        gone->deleteLater();
    }
    m_itemByLocation = std::move(byLocation);
    QAction *const end = container == &m_menu ? m_speakersEnd : nullptr;
    if (m_speakersHeader->menu() != (container == &m_speakersMenu ? &m_speakersMenu : nullptr)) {
        // Crossing the limit moves every item to the other menu.
        QMenu *const other = container == &m_menu ? &m_speakersMenu : &m_menu;
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
    m_speakerItems = std::move(items);
    refresh(); // the tool tip counts the speakers
}

void TrayPresenter::scheduleSpeakerItems()
{
    // Speakers found in one burst cost one update.
    if (std::exchange(m_itemsPending, true))
        return;
    mainQueueAsync([self = QPointer<TrayPresenter>(this)] {
        if (!self)
            return;
        self->m_itemsPending = false;
        self->updateSpeakerItems();
    });
}

QAction *TrayPresenter::makeSpeakerItem(const DeviceSettings &record)
{
    auto *item = new QAction(menuItemText(record, m_settings().devices), &m_menu);
    item->setCheckable(true);
    item->setChecked(record.enabled);
    item->setEnabled(false);
    return item;
}
