// SPDX-License-Identifier: GPL-3.0-or-later
#include "EditableTextField.h"

#include <QKeyEvent>

bool EditableTextField::endsEdit(const QKeyEvent *event)
{
    const int key = event->key();
    return (event->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier &&
           (key == Qt::Key_Return || key == Qt::Key_Enter || key == Qt::Key_Escape);
}

void EditableTextField::endEditByKey(const QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
        if (acceptable && !acceptable(text())) {
            emit editRefused();
            break;
        }
        m_editing = false;
        setCursorPosition(0);
        emit editCommitted(true);
        break;
    default:
        m_editing = false;
        setText(m_textAtStart);
        setCursorPosition(0);
        emit editCancelled();
        break;
    }
}

void EditableTextField::focusInEvent(QFocusEvent *event)
{
    QLineEdit::focusInEvent(event);
    // A context menu hands focus back without ending the edit.
    if (m_editing || event->reason() == Qt::PopupFocusReason)
        return;
    m_editing = true;
    m_textAtStart = text();
    emit editBegan();
}

void EditableTextField::focusOutEvent(QFocusEvent *event)
{
    QLineEdit::focusOutEvent(event);
    if (!m_editing || event->reason() == Qt::PopupFocusReason)
        return;
    m_editing = false;
    // Shows the start of a long name again.
    setCursorPosition(0);
    emit editCommitted(false);
}

bool EditableTextField::event(QEvent *event)
{
    if (event->type() == QEvent::ShortcutOverride || event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        // Escape and Return end the edit here, before the window can take them (Escape closes).
        if (m_editing && endsEdit(key)) {
            event->accept();
            if (event->type() == QEvent::KeyPress)
                endEditByKey(key);
            return true;
        }
    }
    return QLineEdit::event(event);
}
