// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeakerRow.h"

#include "EditableTextField.h"
#include "Logging.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "Settings.h"

#include <QApplication>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QTimer>
#include <QToolTip>
#include <QVBoxLayout>

SpeakerRow::SpeakerRow(std::function<Settings &()> settings, std::optional<QUrl> location,
                       QWidget *parent)
    : QWidget(parent), deviceLocation(std::move(location)), m_settings(std::move(settings))
{
    setObjectName(QStringLiteral("speakerRowWidget"));
    m_noSpeakersFound = new QLabel(tr("No speakers found yet. Corvel searches the network when it "
                                      "starts; the button below searches again."),
                                   this);
    m_noSpeakersFound->setObjectName(QStringLiteral("noSpeakersFoundLabel"));
    m_noSpeakersFound->setWordWrap(true);
    m_noSpeakersFound->setAlignment(Qt::AlignCenter);
    m_noSpeakersFound->setEnabled(false);

    // The list has the keyboard (Space toggles, F2 renames): the row's controls take no Tab
    // stops, the name field only a click.
    m_checkbox = new QCheckBox(this);
    m_checkbox->setObjectName(QStringLiteral("enabledCheckBox"));
    m_checkbox->setFocusPolicy(Qt::NoFocus);
    m_checkbox->setToolTip(tr("Offer this speaker as an AirPlay sound output"));
    m_icon = new QLabel(this);
    m_icon->setObjectName(QStringLiteral("iconLabel"));
    m_icon->setFixedSize(32, 32);
    m_icon->setScaledContents(true);
    m_titleField = new EditableTextField(this);
    m_titleField->setObjectName(QStringLiteral("titleLineEdit"));
    m_titleField->setFocusPolicy(Qt::ClickFocus);
    m_titleField->setAccessibleName(tr("Speaker name"));
    m_titleField->setToolTip(nameToolTip());
    m_titleField->setFrame(false);
    m_subtitleLabel = new QLabel(this);
    m_subtitleLabel->setObjectName(QStringLiteral("subtitleLabel"));
    m_subtitleLabel->setForegroundRole(QPalette::PlaceholderText);
    m_lengthLabel = new QLabel(this);
    m_lengthLabel->setObjectName(QStringLiteral("lengthLabel"));
    m_lengthLabel->setForegroundRole(QPalette::PlaceholderText);
    m_lengthLabel->setToolTip(tr("A name can be up to %1 bytes: most letters take one, accented "
                                 "letters two, emoji four.")
                                  .arg(maxSpeakerNameBytes));
    m_lengthLabel->hide();

    auto *name = new QHBoxLayout;
    name->addWidget(m_titleField, 1);
    name->addWidget(m_lengthLabel);
    auto *texts = new QVBoxLayout;
    texts->setSpacing(0);
    texts->addLayout(name);
    texts->addWidget(m_subtitleLabel);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(8, 4, 8, 4);
    row->addWidget(m_checkbox);
    row->addWidget(m_icon);
    row->addLayout(texts, 1);
    row->addWidget(m_noSpeakersFound, 1);

    // The name reads as a label until it is edited, then as a field.
    const auto showAsField = [field = m_titleField](bool editing) {
        QPalette palette = field->palette();
        palette.setBrush(QPalette::Base,
                         editing ? QApplication::palette().base() : Qt::transparent);
        field->setPalette(palette);
    };
    showAsField(false);
    connect(m_titleField, &EditableTextField::editBegan, this, [this, showAsField] {
        showAsField(true);
        updateLengthLabel();
        m_lengthLabel->show();
    });
    connect(m_titleField, &QLineEdit::textEdited, this, &SpeakerRow::updateLengthLabel);
    const auto endRename = [this, showAsField](bool committed, bool byKey) {
        showAsField(false);
        m_lengthLabel->hide();
        if (committed)
            titleEdited();
        emit renameEnded(byKey);
    };
    connect(m_titleField, &EditableTextField::editCommitted, this,
            [endRename](bool byKey) { endRename(true, byKey); });
    connect(m_titleField, &EditableTextField::editCancelled, this,
            [endRename] { endRename(false, true); });
    // A name that cannot be taken keeps its text on Return: the user shortens it.
    m_titleField->acceptable = [](const QString &name) {
        return !speakerNameProblem(name);
    };
    connect(m_titleField, &EditableTextField::editRefused, this, [this] {
        const auto problem = speakerNameProblem(m_titleField->text());
        if (problem)
            showHint(problem->shown);
    });
    connect(m_checkbox, &QCheckBox::clicked, this, &SpeakerRow::checkboxClicked);
    setNoSpeakersFound(!deviceLocation);
}

void SpeakerRow::setNoSpeakersFound(bool noSpeakers)
{
    m_noSpeakersFound->setVisible(noSpeakers);
    for (QWidget *control :
         {static_cast<QWidget *>(m_icon), static_cast<QWidget *>(m_titleField),
          static_cast<QWidget *>(m_subtitleLabel), static_cast<QWidget *>(m_checkbox)})
        control->setVisible(!noSpeakers);
}

void SpeakerRow::fill(const DeviceSettings &record, const QString &state)
{
    // A name being edited is the user's until the edit ends.
    if (!isRenaming() && m_titleField->text() != record.name) {
        m_titleField->setText(record.name);
        m_titleField->setCursorPosition(0); // a long name shows its start
    }
    // A speaker that plays AirPlay itself starts not offered; the row says why.
    // What the speaker is doing comes first, then where it is.
    QString place = record.info.friendlyName.value_or(record.info.location.host());
    if (!state.isEmpty())
        place = state + QStringLiteral(" · ") + place;
    const bool ownAirPlay = record.info.hasOwnAirPlay();
    m_subtitleLabel->setText(ownAirPlay ? tr("%1 — Already an AirPlay speaker").arg(place) : place);
    m_subtitleLabel->setToolTip(ownAirPlay ? tr("This speaker plays AirPlay itself: offered "
                                                "through the bridge too, it is listed twice.")
                                           : QString());
    // The row shows the record's choice, so the window and the tray's check marks agree. A
    // group member has no choice of its own (its coordinator plays for it): indented, no box.
    m_checkbox->setChecked(record.enabled);
    const bool member = record.topology && !record.topology->coordinator;
    m_checkbox->setVisible(!member);
    layout()->setContentsMargins(member ? 36 : 8, 4, 8, 4);
    // Told to assistive technology only when the name changes, not on every reload.
    if (std::exchange(m_accessibleFor, record.name) != record.name) {
        m_checkbox->setAccessibleName(tr("Offer %1").arg(record.name));
        m_icon->setAccessibleName(tr("Icon of %1").arg(record.name));
    }
}

QString SpeakerRow::nameToolTip()
{
    return tr("The name this speaker is announced under");
}

void SpeakerRow::setCurrent(bool current)
{
    m_current = current; // the list tells only changes
    update();
}

void SpeakerRow::paintEvent(QPaintEvent *event)
{
    QWidget::paintEvent(event);
    if (!m_current)
        return;
    // A tint and an outline in the highlight colour: the texts keep their own colours, so
    // they stay readable on light and dark themes.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = palette().color(QPalette::Highlight);
    painter.setPen(QPen(fill, 1.5));
    fill.setAlpha(40);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5), 4, 4);
}

void SpeakerRow::beginRename()
{
    if (!deviceLocation)
        return;
    m_titleField->setFocus(Qt::OtherFocusReason);
    m_titleField->selectAll();
}

bool SpeakerRow::isRenaming() const
{
    return m_titleField->isEditing();
}

void SpeakerRow::updateLengthLabel()
{
    const int left = maxSpeakerNameBytes - int(m_titleField->text().toUtf8().size());
    // In brackets, so that it never reads as the end of the name.
    m_lengthLabel->setText(left >= 0 ? tr("(%n left)", nullptr, left)
                                     : tr("(%n over the limit)", nullptr, -left));
    m_lengthLabel->setForegroundRole(left >= 0 ? QPalette::PlaceholderText : QPalette::WindowText);
}

void SpeakerRow::refuseName(const QString &hint)
{
    const auto record = m_settings().devices.find(*deviceLocation);
    if (record != m_settings().devices.end())
        m_titleField->setText(record->second.name);
    m_titleField->setCursorPosition(0);
    showHint(hint);
}

void SpeakerRow::showHint(const QString &hint)
{
    // Rich text, so that a long hint wraps instead of running across the screen.
    const QString text = QStringLiteral("<p>") + hint.toHtmlEscaped() + QStringLiteral("</p>");
    m_titleField->setToolTip(text);
    // Shown once the field has its final place (a commit by focus loss may move the row).
    QTimer::singleShot(0, m_titleField, [field = m_titleField, text] {
        QToolTip::showText(field->mapToGlobal(QPoint(0, field->height())), text, field);
    });
}

void SpeakerRow::titleEdited()
{
    if (!deviceLocation)
        return;
    // Text is taken as typed, spaces included, up to the length the bridge can announce; an
    // unchanged name and a speaker that is gone are ignored by the settings.
    const QString name = m_titleField->text();
    if (const auto problem = speakerNameProblem(name)) {
        logWarning(QStringLiteral("preferences"), problem->english);
        refuseName(problem->shown);
        return;
    }
    m_titleField->setToolTip(nameToolTip());
    if (m_settings().renameDevice(*deviceLocation, name))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
}

void SpeakerRow::checkboxClicked()
{
    if (!deviceLocation)
        return;
    if (m_settings().setDeviceEnabled(*deviceLocation, m_checkbox->checkState() == Qt::Checked))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
}
