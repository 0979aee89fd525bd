// SPDX-License-Identifier: GPL-3.0-or-later
#include "EditableTextField.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QTest>
#include <QVBoxLayout>

class TestEditableTextField : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { delete m_window; }
    void claimsEditingShortcuts_data();
    void claimsEditingShortcuts();

private:
    QWidget *m_window = nullptr;
    EditableTextField *m_field = nullptr;
    QStringList m_windowShortcuts; // shortcuts the window's own actions received
};

void TestEditableTextField::init()
{
    // A window whose own actions want the same keys, as a menu bar's Edit menu would.
    m_window = new QWidget;
    m_field = new EditableTextField(m_window);
    (new QVBoxLayout(m_window))->addWidget(m_field);
    m_windowShortcuts.clear();
    for (const char *keys : {"Ctrl+X", "Ctrl+C", "Ctrl+V", "Ctrl+Z", "Ctrl+A", "Ctrl+Shift+Z",
                             "Ctrl+Alt+C", "Ctrl+Q", "Ctrl+Shift+X"}) {
        auto *action = new QAction(m_window);
        action->setShortcut(QKeySequence(keys));
        action->setShortcutContext(Qt::WindowShortcut);
        connect(action, &QAction::triggered, this,
                [this, keys] { m_windowShortcuts << QString::fromLatin1(keys); });
        m_window->addAction(action);
    }
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window));
    m_field->setFocus();
    QApplication::clipboard()->setText(QStringLiteral("pasted"));
}

void TestEditableTextField::claimsEditingShortcuts_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("modifiers");
    QTest::addColumn<QString>("text");      // the field's text afterwards
    QTest::addColumn<QString>("clipboard"); // the clipboard afterwards
    QTest::addColumn<QString>("shortcut");  // the window shortcut that fired, if any
    const int ctrl = int(Qt::ControlModifier);
    // Each row starts from "Den" typed, then "Kitchen" typed over the selected text.
    QTest::newRow("Ctrl+C copies") << int(Qt::Key_C) << ctrl << "Kitchen"
                                   << "Kitchen"
                                   << "";
    QTest::newRow("Ctrl+X cuts") << int(Qt::Key_X) << ctrl << ""
                                 << "Kitchen"
                                 << "";
    QTest::newRow("Ctrl+V pastes") << int(Qt::Key_V) << ctrl << "pasted"
                                   << "pasted"
                                   << "";
    QTest::newRow("Ctrl+Z undoes") << int(Qt::Key_Z) << ctrl << "Den"
                                   << "pasted"
                                   << "";
    QTest::newRow("Ctrl+A selects all") << int(Qt::Key_A) << ctrl << "Kitchen"
                                        << "pasted"
                                        << "";
    QTest::newRow("Ctrl+Shift+Z with nothing to redo goes on")
        << int(Qt::Key_Z) << int(Qt::ControlModifier | Qt::ShiftModifier) << "Kitchen"
        << "pasted"
        << "";
    QTest::newRow("Ctrl+Alt+C is not claimed")
        << int(Qt::Key_C) << int(Qt::ControlModifier | Qt::AltModifier) << "Kitchen"
        << "pasted"
        << "Ctrl+Alt+C";
    QTest::newRow("Ctrl+Q is not claimed") << int(Qt::Key_Q) << ctrl << "Kitchen"
                                           << "pasted"
                                           << "Ctrl+Q";
    QTest::newRow("Ctrl+Shift+X is not claimed")
        << int(Qt::Key_X) << int(Qt::ControlModifier | Qt::ShiftModifier) << "Kitchen"
        << "pasted"
        << "Ctrl+Shift+X";
}

void TestEditableTextField::claimsEditingShortcuts()
{
    QFETCH(int, key);
    QFETCH(int, modifiers);
    QFETCH(QString, text);
    QFETCH(QString, clipboard);
    QFETCH(QString, shortcut);
    QTest::keyClicks(m_field, QStringLiteral("Den"));
    m_field->selectAll();
    QTest::keyClicks(m_field, QStringLiteral("Kitchen"));
    m_field->selectAll();
    QTest::keyClick(m_field, Qt::Key(key), Qt::KeyboardModifiers(modifiers));
    QCOMPARE(m_field->text(), text);
    QCOMPARE(QApplication::clipboard()->text(), clipboard);
    QCOMPARE(m_windowShortcuts, shortcut.isEmpty() ? QStringList() : QStringList(shortcut));
}

QTEST_MAIN(TestEditableTextField)
#include "TestEditableTextField.moc"
