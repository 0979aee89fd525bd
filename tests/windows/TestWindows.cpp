// SPDX-License-Identifier: GPL-3.0-or-later
// The window factory makes each window once, on demand, and wires it to the controller.
#include "AboutWindow.h"
#include "BridgeSetupWindow.h"
#include "FakeControls.h"
#include "FakePlatform.h"
#include "PreferencesWindow.h"
#include "TestSupport.h"
#include "WindowFactory.h"

#include <QApplication>
#include <QPlainTextEdit>

class TestWindows : public QObject
{
    Q_OBJECT

private slots:
    void factoryMakesEachWindowOnce();
};

void TestWindows::factoryMakesEachWindowOnce()
{
    using Kind = Windows::Kind;
    FakeControls controls;
    FakePlatform platform;
    controls.withoutTray = true;
    {
        WindowFactory windows(controls, platform.platform());
        for (const Kind kind :
             {Kind::Preferences, Kind::About, Kind::Feedback, Kind::BridgeSetup}) {
            QVERIFY(!windows.isVisible(kind));
            windows.show(kind);
            QWidget *made = windows.window(kind);
            QVERIFY(made && windows.isVisible(kind));
            windows.show(kind); // brought forward, not made again
            QCOMPARE(windows.window(kind), made);
        }
        QVERIFY(qobject_cast<PreferencesWindow *>(windows.window(Kind::Preferences)));
        QVERIFY(qobject_cast<AboutWindow *>(windows.window(Kind::About)));
        QVERIFY(AboutWindow::versionInfo().startsWith("Corvel " + Settings::currentVersion()));
        // The setup shows where the bridge was looked for and reports an install.
        auto *setup = qobject_cast<BridgeSetupWindow *>(windows.window(Kind::BridgeSetup));
        QVERIFY(setup);
        windows.setBridgeLookedIn({QStringLiteral("/looked/here")});
        QVERIFY(setup->findChild<QPlainTextEdit *>()->toPlainText().contains("/looked/here"));
        emit setup->installed(QStringLiteral("/x/airupnp"));
        QCOMPARE(controls.installs, 1);
        // A closed About window goes and comes back new; without a tray closing Preferences
        // quits Corvel.
        windows.window(Kind::About)->close();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!windows.window(Kind::About));
        windows.window(Kind::Preferences)->close();
        QCOMPARE(controls.quits, 1);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

QTEST_MAIN(TestWindows)
#include "TestWindows.moc"
