// SPDX-License-Identifier: GPL-3.0-or-later
// A line edit that claims the editing shortcuts (Ctrl+X, C, V, Z, A and Ctrl+Shift+Z) before
// the window's own shortcuts and menus can take them, and performs them on itself.
#pragma once

#include <QLineEdit>

class EditableTextField : public QLineEdit
{
    Q_OBJECT

public:
    using QLineEdit::QLineEdit;

protected:
    bool event(QEvent *event) override;

private:
    enum class Action { None, Cut, Copy, Paste, Undo, SelectAll, Redo };
    static Action actionFor(const QKeyEvent *event);
    // Performs the action if it can be performed now; returns whether it was.
    bool perform(Action action);
};
