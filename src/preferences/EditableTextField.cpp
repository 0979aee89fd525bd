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

bool EditableTextField::perform(Action action)
{
    switch (action) {
    case Action::Cut:
        if (isReadOnly() || !hasSelectedText() || echoMode() != Normal)
            return false;
        cut();
        return true;
    case Action::Copy:
        if (!hasSelectedText() || echoMode() != Normal)
            return false;
        copy();
        return true;
    case Action::Paste:
        if (isReadOnly())
            return false;
        paste();
        return true;
    case Action::Undo:
        if (isReadOnly() || !isUndoAvailable())
            return false;
        undo();
        return true;
    case Action::SelectAll:
        selectAll();
        return true;
    case Action::Redo:
        if (isReadOnly() || !isRedoAvailable())
            return false;
        redo();
        return true;
    case Action::None:
        break;
    }
    return false;
}

bool EditableTextField::event(QEvent *event)
{
    if (event->type() == QEvent::ShortcutOverride || event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        const Action action = actionFor(key);
        if (action != Action::None) {
            if (event->type() == QEvent::ShortcutOverride) {
                // Claim the key so that it arrives here as a key press, not as a shortcut.
                event->accept();
                return true;
            }
            if (perform(action)) {
                event->accept();
                return true;
            }
        }
    }
    return QLineEdit::event(event);
}
