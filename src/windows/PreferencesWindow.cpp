// SPDX-License-Identifier: GPL-3.0-or-later
#include "PreferencesWindow.h"

#include "EditableTextField.h"
#include "Logging.h"
#include "MainQueue.h"
#include "Notifications.h"
#include "Settings.h"
#include "SpeakerRow.h"
#include "ui_PreferencesWindow.h"

#include <algorithm>
#include <QBoxLayout>
#include <QCheckBox>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QHideEvent>
#include <QLabel>
#include <QListWidget>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QPointer>
#include <QResizeEvent>
#include <QSet>
#include <QShortcut>
#include <QShowEvent>
#include <QTimer>

namespace {
const QString category = QStringLiteral("preferences");
constexpr qint64 maxIconBytes = 256 * 1024;
} // namespace

PreferencesWindow::PreferencesWindow(Controls &controls, Platform platform, QWidget *parent)
    : QWidget(parent), m_controls(controls), m_platform(std::move(platform)),
      m_ui(std::make_unique<Ui::PreferencesWindow>())
{
    m_ui->setupUi(this);
    setWindowIcon(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")));
    m_network.setAutoDeleteReplies(true);
    m_network.setProxy(QNetworkProxy::NoProxy); // icons come from the speakers themselves
    connect(m_ui->startStopButton, &QPushButton::clicked, this,
            &PreferencesWindow::startStopClicked);
    connect(m_ui->startAtLoginCheckBox, &QCheckBox::clicked, this,
            &PreferencesWindow::startAtLoginChecked);
    connect(m_ui->saveLogButton, &QPushButton::clicked, this, &PreferencesWindow::saveLogClicked);
    connect(m_ui->soundOutputsCheckBox, &QCheckBox::clicked, this,
            &PreferencesWindow::soundOutputsChecked);
    setUpDelayChoice();
    QListWidget *table = m_ui->tableView;
    table->installEventFilter(this);
    table->viewport()->installEventFilter(this);
    connect(table, &QListWidget::currentItemChanged, this, &PreferencesWindow::showCurrentRow);
    // Ctrl+W closes, and Escape too unless closing quits Corvel (a name being edited takes
    // Escape first).
    auto *close = new QShortcut(QKeySequence::Close, this);
    connect(close, &QShortcut::activated, this, &QWidget::close);
    auto *escape = new QShortcut(Qt::Key_Escape, this);
    connect(escape, &QShortcut::activated, this, [this] {
        if (!m_closingQuits)
            this->close();
    });
    logInfo(category, QStringLiteral("viewDidLoad"));
    reloadData();
}

PreferencesWindow::~PreferencesWindow()
{
    // A name still being edited ends while the window is whole: one that can be taken is
    // saved, any other put back (the focus would otherwise leave it mid-destruction).
    if (QWidget *focused = focusWidget())
        focused->clearFocus();
    for (const auto token : m_listeners)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void PreferencesWindow::setClosingQuits(bool quits)
{
    m_closingQuits = quits;
    if (quits && !m_noTrayLabel) {
        m_noTrayLabel = new QLabel(
            tr("No system tray was found, so closing this window quits Corvel. To keep Corvel "
               "running in the background, add a system tray to your panel (on GNOME, the "
               "AppIndicator extension: package gnome-shell-extension-appindicator)."),
            this);
        m_noTrayLabel->setObjectName(QStringLiteral("noTrayLabel"));
        m_noTrayLabel->setWordWrap(true);
        if (auto *box = qobject_cast<QBoxLayout *>(layout()))
            box->insertWidget(0, m_noTrayLabel);
    }
    if (m_noTrayLabel)
        m_noTrayLabel->setVisible(quits);
    if (quits && !m_noTrayBar)
        addNoTrayBar();
    if (m_noTrayBar)
        m_noTrayBar->setVisible(quits);
}

void PreferencesWindow::addNoTrayBar()
{
    m_noTrayBar = new QWidget(this);
    m_noTrayBar->setObjectName(QStringLiteral("noTrayBar"));
    auto *bar = new QHBoxLayout(m_noTrayBar);
    bar->setContentsMargins(0, 0, 0, 0);
    m_statusLabel = new QLabel(m_noTrayBar);
    m_statusLabel->setObjectName(QStringLiteral("statusLabel"));
    bar->addWidget(m_statusLabel, 1);
    const auto button = [this, bar](const QString &name, const QString &text, auto clicked) {
        auto *b = new QPushButton(text, m_noTrayBar);
        b->setObjectName(name);
        b->setAutoDefault(false);
        connect(b, &QPushButton::clicked, this, clicked);
        bar->addWidget(b);
    };
    button(QStringLiteral("aboutButton"), tr("About &Corvel"), [this] { m_controls.showAbout(); });
    button(QStringLiteral("feedbackButton"), tr("Send &Feedback…"),
           [this] { m_controls.showFeedback(); });
    button(QStringLiteral("quitButton"), tr("&Quit Corvel"), [this] { m_controls.quit(); });
    if (auto *box = qobject_cast<QBoxLayout *>(layout()))
        box->insertWidget(1, m_noTrayBar);
    updateStatus();
}

void PreferencesWindow::updateStatus()
{
    if (m_statusLabel)
        m_statusLabel->setText(m_controls.statusTitle());
}

void PreferencesWindow::showSaveState()
{
    const auto &error = m_controls.settings().saveError();
    if (!error && !m_saveErrorLabel)
        return;
    if (!m_saveErrorLabel) {
        m_saveErrorLabel = new QLabel(this);
        m_saveErrorLabel->setObjectName(QStringLiteral("saveErrorLabel"));
        m_saveErrorLabel->setWordWrap(true);
        m_saveErrorLabel->setForegroundRole(QPalette::BrightText);
        m_saveErrorLabel->setBackgroundRole(QPalette::Highlight);
        m_saveErrorLabel->setAutoFillBackground(true);
        m_saveErrorLabel->setMargin(6);
        if (auto *box = qobject_cast<QBoxLayout *>(layout()))
            box->insertWidget(0, m_saveErrorLabel);
    }
    if (error)
        m_saveErrorLabel->setText(
            tr("Your changes could not be saved (%1). They apply until Corvel quits, and Corvel "
               "tries to save them again then.")
                .arg(excerpt(*error, 120)));
    m_saveErrorLabel->setVisible(error.has_value());
}

void PreferencesWindow::closeEvent(QCloseEvent *event)
{
    QWidget::closeEvent(event);
    if (m_closingQuits && event->isAccepted())
        emit closedToQuit();
}

void PreferencesWindow::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (!event->spontaneous())
        startObserving();
}

void PreferencesWindow::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    if (!event->spontaneous())
        stopObserving();
}

void PreferencesWindow::startObserving()
{
    logInfo(category, QStringLiteral("viewWillAppear"));
    NotificationCenter &center = NotificationCenter::defaultCenter();
    // Each observer only queues its redraw on the main loop.
    const auto observe = [this, &center](const QString &name,
                                         std::function<void(PreferencesWindow *)> work) {
        QPointer<PreferencesWindow> self(this);
        m_listeners.push_back(center.addObserver(name, [self, work](const Notification &) {
            mainQueueAsync([self, work] {
                if (self)
                    work(self);
            });
        }));
    };
    const auto buttonAndSpinner = [](PreferencesWindow *v) {
        v->updateStartStopButton();
        v->updateSpinner();
        v->updateStatus();
    };
    observe(Notifications::discoveryStarted, [](PreferencesWindow *v) {
        v->reloadData();
        v->updateSpinner();
        v->updateStatus();
    });
    // Speakers found in one burst cost one reload.
    observe(Notifications::deviceDiscovered, [](PreferencesWindow *v) {
        if (std::exchange(v->m_reloadPending, true))
            return;
        mainQueueAsync([self = QPointer<PreferencesWindow>(v)] {
            if (self && std::exchange(self->m_reloadPending, false))
                self->reloadData();
        });
    });
    // After a search that found nothing, the button offers to search again at once; the
    // speakers it did not find again lose their rows.
    observe(Notifications::discoveryComplete, [](PreferencesWindow *v) {
        v->reloadData();
        v->updateStartStopButton();
        v->updateSpinner();
        v->updateStatus();
    });
    observe(Notifications::serviceStarted, buttonAndSpinner);
    observe(Notifications::serviceReady, buttonAndSpinner);
    observe(Notifications::serviceTerminated, buttonAndSpinner);
    observe(Notifications::appStopped, buttonAndSpinner);
    observe(Notifications::bridgeMissing, buttonAndSpinner);
    // A rename or a switch made elsewhere (the tray, the command line) shows here at once.
    observe(Notifications::deviceSettingsChanged, [](PreferencesWindow *v) {
        v->showSaveState();
        v->reloadData();
    });
    observe(Notifications::speakerStatesChanged, &PreferencesWindow::reloadData);
    observe(Notifications::appStateChanged, &PreferencesWindow::updateStatus);

    m_ui->startAtLoginCheckBox->setChecked(m_platform.autostart->enabled());
    updateSoundOutputsCheckBox();
    updateStartStopButton();
    updateSpinner();
    updateStatus();
    reloadData();
}

void PreferencesWindow::stopObserving()
{
    logInfo(category, QStringLiteral("viewDidDisappear"));
    for (const auto token : m_listeners)
        NotificationCenter::defaultCenter().removeObserver(token);
    m_listeners.clear();
}

namespace {
// A row is shown for each speaker found in this run; members follow their coordinator.
bool isListed(const DeviceSettings &record)
{
    return record.active && record.topology;
}

} // namespace

SpeakerRow *PreferencesWindow::makeRowView(std::optional<QUrl> location)
{
    return new SpeakerRow([this]() -> Settings & { return m_controls.settings(); },
                          std::move(location), m_ui->tableView);
}

void PreferencesWindow::reloadData()
{
    const DeviceMap &devices = m_controls.settings().devices;
    for (auto item = m_items.cbegin(); item != m_items.cend(); ++item) {
        const auto record = devices.find(item.key());
        if (record != devices.end())
            fillRow(item.value(), record->second);
    }
    layoutRows();
}

bool PreferencesWindow::isRenaming() const
{
    const auto *field = qobject_cast<const EditableTextField *>(focusWidget());
    return field && field->isEditing();
}

void PreferencesWindow::layoutRows()
{
    if (isRenaming() || m_pointerInList) {
        m_layoutPending = true;
        return;
    }
    m_layoutPending = false;
    QListWidget *table = m_ui->tableView;
    const DeviceMap &devices = m_controls.settings().devices;
    const bool searching = m_controls.searchRunning();
    const std::vector<const DeviceMap::value_type *> shown =
        displayOrder(devices, [&](const DeviceMap::value_type &entry) {
            return isListed(entry.second) || (searching && m_items.contains(entry.first.url));
        });

    // The row being worked on stays in view when the order changes around it.
    QListWidgetItem *current = table->currentItem();
    const bool currentShown =
        current && table->visualItemRect(current).intersects(table->viewport()->rect());
    QSet<QUrl> keep;
    for (const auto *entry : shown)
        keep.insert(entry->first.url);
    for (auto item = m_items.begin(); item != m_items.end();) {
        if (keep.contains(item.key())) {
            ++item;
            continue;
        }
        delete table->takeItem(table->row(item.value()));
        item = m_items.erase(item);
    }
    if (!shown.empty() && m_noSpeakersItem)
        delete table->takeItem(table->row(std::exchange(m_noSpeakersItem, nullptr)));
    for (int index = 0; index < int(shown.size()); ++index) {
        const auto &[key, record] = *shown[size_t(index)];
        const auto item = m_items.constFind(key.url);
        if (item == m_items.cend()) {
            addRow(index, key.url, record);
            continue;
        }
        // Moved, not made again: the row keeps its widget, its focus and its icon. The rows
        // above hold the speakers placed so far, so this one is never above its place.
        const int from = table->row(*item);
        if (from != index)
            table->model()->moveRow(QModelIndex(), from, QModelIndex(), index);
    }
    if (shown.empty() && !m_noSpeakersItem) {
        m_noSpeakersItem = new QListWidgetItem(table);
        m_noSpeakersItem->setFlags(Qt::NoItemFlags);
        m_noSpeakersItem->setSizeHint(table->viewport()->size());
        table->setItemWidget(m_noSpeakersItem, makeRowView(std::nullopt));
    }
    if (currentShown && table->currentItem() == current)
        table->scrollToItem(current);
    showCurrentRow();
}

void PreferencesWindow::addRow(int index, const QUrl &location, const DeviceSettings &record)
{
    QListWidget *table = m_ui->tableView;
    auto *item = new QListWidgetItem;
    item->setSizeHint(QSize(0, 52));
    table->insertItem(index, item);
    auto *rowView = makeRowView(location);
    table->setItemWidget(item, rowView);
    m_items.insert(location, item);
    fillRow(item, record);
    connect(rowView, &SpeakerRow::renameEnded, this, [this](bool byKey) {
        if (byKey)
            m_ui->tableView->setFocus();
        // Once focus has settled: it may have gone into another row's name.
        QTimer::singleShot(0, this, [this] {
            if (m_layoutPending)
                layoutRows();
        });
    });
    connect(rowView->titleField(), &EditableTextField::editBegan, this, [this, item] {
        m_ui->tableView->setCurrentItem(item);
        m_ui->tableView->scrollToItem(item);
    });
}

void PreferencesWindow::fillRow(QListWidgetItem *item, const DeviceSettings &record)
{
    auto *rowView = qobject_cast<SpeakerRow *>(m_ui->tableView->itemWidget(item));
    rowView->fill(record, speakerStateText(record, m_controls.settings().devices));
    item->setData(Qt::AccessibleTextRole, record.name);
    // Corvel's own speaker stands in until (or unless) the speaker's icon arrives; it is
    // drawn once, not for every row of every reload.
    if (m_placeholder.isNull())
        m_placeholder = QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")).pixmap(32, 32);
    if (rowView->icon()->pixmap().isNull())
        rowView->icon()->setPixmap(m_placeholder);
    if (!record.info.iconList.empty() && record.info.iconList.front()->url)
        loadIcon(*record.info.iconList.front()->url, rowView);
}

void PreferencesWindow::loadIcon(const QUrl &url, SpeakerRow *rowView)
{
    // Only a speaker's own icon: one named on another host is neither fetched nor shown.
    if (!rowView->deviceLocation || url.host() != rowView->deviceLocation->host())
        return;
    const auto cached = m_icons.constFind(url);
    if (cached != m_icons.constEnd()) {
        if (!cached->isNull())
            rowView->icon()->setPixmap(*cached);
        return;
    }
    m_icons.insert(url, QPixmap());
    if (url.scheme() != QLatin1String("http"))
        return;
    QNetworkReply *reply = m_network.get(QNetworkRequest(url));
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > maxIconBytes)
            reply->abort();
    });
    QPointer<SpeakerRow> target(rowView);
    connect(reply, &QNetworkReply::finished, this, [this, reply, url, target] {
        QPixmap pixmap;
        if (reply->error() != QNetworkReply::NoError || !pixmap.loadFromData(reply->readAll()))
            return;
        m_icons.insert(url, pixmap);
        if (target) // a row keeps its speaker, but may be gone by now
            target->icon()->setPixmap(pixmap);
    });
}

bool PreferencesWindow::eventFilter(QObject *watched, QEvent *event)
{
    QListWidget *table = m_ui->tableView;
    if (watched == table) {
        if (event->type() == QEvent::KeyPress)
            return tableKeyPressed(static_cast<QKeyEvent *>(event));
        if (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut)
            showCurrentRow();
    } else if (watched == table->viewport()) {
        switch (event->type()) {
        case QEvent::Enter:
            m_pointerInList = true;
            break;
        case QEvent::Leave:
            m_pointerInList = false;
            if (m_layoutPending)
                layoutRows();
            break;
        case QEvent::Resize:
            // The no-speakers text is centred in the whole list.
            if (m_noSpeakersItem)
                m_noSpeakersItem->setSizeHint(static_cast<QResizeEvent *>(event)->size());
            break;
        default:
            break;
        }
    }
    return false; // the list and its viewport see every event too
}

bool PreferencesWindow::tableKeyPressed(const QKeyEvent *event)
{
    QListWidgetItem *item = m_ui->tableView->currentItem();
    auto *rowView = item ? row(m_ui->tableView->row(item)) : nullptr;
    if (!rowView || !rowView->deviceLocation || event->modifiers() != Qt::NoModifier)
        return false;
    switch (event->key()) {
    case Qt::Key_Space:
        if (!rowView->checkbox()->isHidden()) // a group member has no choice of its own
            rowView->checkbox()->click();
        return true;
    case Qt::Key_F2:
    case Qt::Key_Return:
    case Qt::Key_Enter:
        m_ui->tableView->scrollToItem(item);
        rowView->beginRename();
        return true;
    default:
        return false;
    }
}

void PreferencesWindow::showCurrentRow()
{
    QListWidget *table = m_ui->tableView;
    QListWidgetItem *item = table->currentItem();
    SpeakerRow *current = item && table->hasFocus() ? row(table->row(item)) : nullptr;
    if (m_shownCurrent == current)
        return;
    if (m_shownCurrent)
        m_shownCurrent->setCurrent(false);
    m_shownCurrent = current;
    if (current)
        current->setCurrent(true);
}

SpeakerRow *PreferencesWindow::row(int index) const
{
    return qobject_cast<SpeakerRow *>(m_ui->tableView->itemWidget(m_ui->tableView->item(index)));
}

int PreferencesWindow::rowCount() const
{
    return m_ui->tableView->count();
}

void PreferencesWindow::updateStartStopButton()
{
    // The first rule that applies: turned off by the user, a bridge, a search, idle.
    const bool stoppedByUser = m_controls.stoppedByUser();
    m_canStop = !stoppedByUser && m_controls.bridgeRunning();
    const bool searching = !stoppedByUser && !m_canStop && m_controls.searchRunning();
    const auto &devices = m_controls.settings().devices;
    const bool nothingFound =
        !stoppedByUser && std::none_of(devices.begin(), devices.end(),
                                       [](const auto &entry) { return isListed(entry.second); });
    m_offersSetup = !stoppedByUser && !m_canStop && !searching && m_controls.bridgeMissing();
    const QString title = m_canStop       ? tr("&Stop")
                          : searching     ? tr("Searching...")
                          : m_offersSetup ? tr("&Install Bridge…")
                          : nothingFound  ? tr("Search &Again")
                                          : tr("&Start");
    const bool enabled = !searching;
    m_ui->startStopButton->setText(title);
    m_ui->startStopButton->setEnabled(enabled);
}

void PreferencesWindow::updateSpinner()
{
    m_ui->spinner->setVisible(!m_controls.stoppedByUser() && m_controls.searchRunning());
}

void PreferencesWindow::startStopClicked()
{
    if (m_canStop) {
        m_controls.stopBridge();
    } else if (m_offersSetup) {
        m_controls.setUpBridge();
    } else {
        m_controls.startSearching();
    }
    updateStartStopButton();
}
