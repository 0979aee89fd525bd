// SPDX-License-Identifier: GPL-3.0-or-later
// A line edit for names edited in place (its own editing keys, Ctrl+X, C, V, Z, A and
// Ctrl+Shift+Z, come before the window's shortcuts, as in any line edit). An edit begins when
// the field takes focus: Return, Enter or leaving the field commits it, Escape puts back the
// text it began with; both come before the window's Escape.
#pragma once

#include <functional>
#include <QLineEdit>

class EditableTextField : public QLineEdit
{
    Q_OBJECT

public:
    using QLineEdit::QLineEdit;

    bool isEditing() const { return m_editing; }
    // Return and Enter commit only text this accepts; other text stays in the field, still
    // being edited, and editRefused follows. Unset: any text.
    std::function<bool(const QString &)> acceptable;

signals:
    void editBegan();
    // Return or Enter (byKey true), or focus moved elsewhere.
    void editCommitted(bool byKey);
    // Escape: the text is back to what it was when the edit began.
    void editCancelled();
    // Return or Enter on text that is not acceptable.
    void editRefused();

protected:
    bool event(QEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    // Return, Enter and Escape without modifiers end an edit.
    static bool endsEdit(const QKeyEvent *event);
    void endEditByKey(const QKeyEvent *event);

    bool m_editing = false;
    QString m_textAtStart;
};
