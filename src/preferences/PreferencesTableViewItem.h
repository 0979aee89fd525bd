// SPDX-License-Identifier: GPL-3.0-or-later
// One row of the speaker table: icon, editable name, subtitle and enable checkbox, or the
// no-speakers message. Edits go to the speaker's settings record, found by its location.
#pragma once

#include <functional>
#include <optional>
#include <QUrl>
#include <QWidget>

class EditableTextField;
class QCheckBox;
class QLabel;
class Settings;

class PreferencesTableViewItem : public QWidget
{
    Q_OBJECT

public:
    // settings gives the document the row edits.
    PreferencesTableViewItem(std::function<Settings &()> settings, QWidget *parent = nullptr);

    // Shows the no-speakers message alone, or the speaker's controls.
    void setNoSpeakersFound(bool noSpeakers);

    // The user ended editing the name (Return or focus loss).
    void titleEdited();
    // The user toggled the checkbox.
    void checkboxClicked();

    QLabel *noSpeakersFound() const { return m_noSpeakersFound; }
    QLabel *icon() const { return m_icon; }
    EditableTextField *titleField() const { return m_titleField; }
    QLabel *subtitleLabel() const { return m_subtitleLabel; }
    QCheckBox *checkbox() const { return m_checkbox; }

    // The location of the speaker shown: the key of its settings record.
    std::optional<QUrl> deviceLocation;

private:
    std::function<Settings &()> m_settings;
    QLabel *m_noSpeakersFound;
    QLabel *m_icon;
    EditableTextField *m_titleField;
    QLabel *m_subtitleLabel;
    QCheckBox *m_checkbox;
};
