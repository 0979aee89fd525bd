// SPDX-License-Identifier: GPL-3.0-or-later
#include "PreferencesTableViewItem.h"

#include "EditableTextField.h"
#include "Logging.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "Settings.h"

#include <QToolTip>

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

PreferencesTableViewItem::PreferencesTableViewItem(std::function<Settings &()> settings,
                                                   QWidget *parent)
    : QWidget(parent), m_settings(std::move(settings))
{
    setObjectName(QStringLiteral("speakerRowWidget"));
    m_noSpeakersFound = new QLabel(tr("No speakers found yet. Corvel searches the network when it "
                                      "starts and when you press Start."),
                                   this);
    m_noSpeakersFound->setObjectName(QStringLiteral("noSpeakersFoundLabel"));
    m_noSpeakersFound->setWordWrap(true);
    m_noSpeakersFound->setAlignment(Qt::AlignCenter);
    m_noSpeakersFound->setEnabled(false);

    m_checkbox = new QCheckBox(this);
    m_checkbox->setObjectName(QStringLiteral("enabledCheckBox"));
    m_checkbox->setToolTip(tr("Offer this speaker as an AirPlay sound output"));
    m_icon = new QLabel(this);
    m_icon->setObjectName(QStringLiteral("iconLabel"));
    m_icon->setFixedSize(32, 32);
    m_icon->setScaledContents(true);
    m_titleField = new EditableTextField(this);
    m_titleField->setObjectName(QStringLiteral("titleLineEdit"));
    m_titleField->setToolTip(tr("The name this speaker is announced under"));
    m_titleField->setFrame(false);
    m_subtitleLabel = new QLabel(this);
    m_subtitleLabel->setObjectName(QStringLiteral("subtitleLabel"));
    m_subtitleLabel->setForegroundRole(QPalette::PlaceholderText);

    auto *texts = new QVBoxLayout;
    texts->setSpacing(0);
    texts->addWidget(m_titleField);
    texts->addWidget(m_subtitleLabel);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(8, 4, 8, 4);
    row->addWidget(m_checkbox);
    row->addWidget(m_icon);
    row->addLayout(texts, 1);
    row->addWidget(m_noSpeakersFound, 1);

    connect(m_titleField, &QLineEdit::editingFinished, this,
            &PreferencesTableViewItem::titleEdited);
    connect(m_checkbox, &QCheckBox::clicked, this, &PreferencesTableViewItem::checkboxClicked);
    setNoSpeakersFound(true);
}

void PreferencesTableViewItem::setNoSpeakersFound(bool noSpeakers)
{
    m_noSpeakersFound->setVisible(noSpeakers);
    for (QWidget *control :
         {static_cast<QWidget *>(m_icon), static_cast<QWidget *>(m_titleField),
          static_cast<QWidget *>(m_subtitleLabel), static_cast<QWidget *>(m_checkbox)})
        control->setVisible(!noSpeakers);
}

void PreferencesTableViewItem::titleEdited()
{
    if (!deviceLocation)
        return;
    // Text is taken as typed, spaces included, up to the length the bridge can announce; an
    // unchanged name and a speaker that is gone are ignored by the settings.
    if (const auto problem = speakerNameProblem(m_titleField->text())) {
        logWarning(QStringLiteral("preferences"), *problem);
        const auto record = m_settings().devices.find(*deviceLocation);
        if (record != m_settings().devices.end())
            m_titleField->setText(record->second.name);
        m_titleField->setToolTip(*problem);
        QToolTip::showText(m_titleField->mapToGlobal(QPoint(0, m_titleField->height())), *problem,
                           m_titleField);
        return;
    }
    m_titleField->setToolTip(QString());
    if (m_settings().renameDevice(*deviceLocation, m_titleField->text()))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
}

void PreferencesTableViewItem::checkboxClicked()
{
    if (!deviceLocation)
        return;
    if (m_settings().setDeviceEnabled(*deviceLocation, m_checkbox->checkState() == Qt::Checked))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
}
