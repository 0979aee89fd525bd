// SPDX-License-Identifier: GPL-3.0-or-later
// One row of the speaker table: enable checkbox, icon, editable name and subtitle, or the
// no-speakers message. A row belongs to one speaker for its whole life: edits go to that
// speaker's settings record, found by its location.
#pragma once

#include <functional>
#include <optional>
#include <QUrl>
#include <QWidget>

class DeviceSettings;
class EditableTextField;
class QCheckBox;
class QLabel;
class Settings;

class SpeakerRow : public QWidget
{
    Q_OBJECT

public:
    // settings gives the document the row edits; location is the speaker's, none for the
    // no-speakers row.
    SpeakerRow(std::function<Settings &()> settings, std::optional<QUrl> location,
               QWidget *parent = nullptr);

    // Shows the no-speakers message alone, or the speaker's controls.
    void setNoSpeakersFound(bool noSpeakers);
    // Shows the record's name (unless it is being edited), subtitle and choice.
    // state: what the speaker is doing, in a few words (empty: nothing to say).
    void fill(const DeviceSettings &record, const QString &state = {});
    // Draws the row as the list's current one.
    void setCurrent(bool current);

    // Begins renaming: the name field takes focus with its text selected.
    void beginRename();
    bool isRenaming() const;
    // The user ended editing the name (Return or focus loss).
    void titleEdited();
    // The user toggled the checkbox.
    void checkboxClicked();

    QLabel *noSpeakersFound() const { return m_noSpeakersFound; }
    QLabel *icon() const { return m_icon; }
    EditableTextField *titleField() const { return m_titleField; }
    QLabel *subtitleLabel() const { return m_subtitleLabel; }
    QCheckBox *checkbox() const { return m_checkbox; }
    // How much more the name may grow, shown while it is edited.
    QLabel *lengthLabel() const { return m_lengthLabel; }

    // The location of the speaker shown: the key of its settings record. Fixed.
    const std::optional<QUrl> deviceLocation;

signals:
    // Renaming ended; by Return, Enter or Escape (byKey), the list takes the keyboard back.
    void renameEnded(bool byKey);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    static QString nameToolTip();
    void updateLengthLabel();
    // Puts the record's current name back, with the reason as a hint at the field.
    void refuseName(const QString &hint);
    void showHint(const QString &hint);

    std::function<Settings &()> m_settings;
    QLabel *m_noSpeakersFound;
    QLabel *m_icon;
    EditableTextField *m_titleField;
    QLabel *m_subtitleLabel;
    QLabel *m_lengthLabel;
    QCheckBox *m_checkbox;
    bool m_current = false;
    QString m_accessibleFor; // the name the accessible names were made for
};
