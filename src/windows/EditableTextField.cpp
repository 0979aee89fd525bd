// SPDX-License-Identifier: GPL-3.0-or-later
#include "EditableTextField.h"

#include <QKeyEvent>

EditableTextField::Action EditableTextField::actionFor(const QKeyEvent *event)
{
    // Exact modifier sets only: Ctrl+Alt+C or Ctrl+Meta+V are someone else's.
    const Qt::KeyboardModifiers modifiers = event->modifiers() & ~Qt::KeypadModifier;
    if (modifiers == Qt::ControlModifier) {
        switch (event->key()) {
        case Qt::Key_X:
            return Action::Cut;
        case Qt::Key_C:
            return Action::Copy;
        case Qt::Key_V:
            return Action::Paste;
        case Qt::Key_Z:
            return Action::Undo;
        case Qt::Key_A:
            return Action::SelectAll;
        default:
            return Action::None;
        }
    }
    if (modifiers == (Qt::ControlModifier | Qt::ShiftModifier) && event->key() == Qt::Key_Z)
        return Action::Redo;
    return Action::None;
}

void EditableTextField::perform(Action action)
{
    // The line edit's own slots do nothing when there is nothing to do: no selection to copy,
    // nothing to undo or redo, no copy of a hidden text. A read-only field takes no cut or paste.
    switch (action) {
    case Action::Cut:
        if (!isReadOnly())
            cut();
        break;
    case Action::Copy:
        copy();
        break;
    case Action::Paste:
        if (!isReadOnly())
            paste();
        break;
    case Action::Undo:
        undo();
        break;
    case Action::Redo:
        redo();
        break;
    case Action::SelectAll:
        selectAll();
        break;
    case Action::None:
        break;
    }
}

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
        // An editing key is claimed at the shortcut stage, so that it arrives here as a key
        // press and not as some window's shortcut.
        const Action action = actionFor(key);
        if (action != Action::None) {
            event->accept();
            if (event->type() == QEvent::KeyPress)
                perform(action);
            return true;
        }
    }
    return QLineEdit::event(event);
}
