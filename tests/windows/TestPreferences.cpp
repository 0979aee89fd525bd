// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel's windows with the controller faked behind its Controls interface: the preferences
// window above all, and the factory that makes each window once.
#include "AboutWindow.h"
#include "AtomicFile.h"
#include "BridgeSetupWindow.h"
#include "CrashPrompt.h"
#include "CrashReporter.h"
#include "EditableTextField.h"
#include "FakeControls.h"
#include "FakePlatform.h"
#include "FeedbackWindow.h"
#include "Log.h"
#include "Notifications.h"
#include "PreferencesWindow.h"
#include "Settings.h"
#include "SpeakerRow.h"
#include "TestSupport.h"
#include "Translations.h"
#include "TrayPresenter.h"
#include "WindowFactory.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QBuffer>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QImage>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QMetaProperty>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

namespace {

void settle()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
}

void post(const QString &name)
{
    NotificationCenter::defaultCenter().post(name);
    settle();
}

QString nameOf(FakeControls &controls, int n)
{
    return controls.settings().devices.at(location(n)).name;
}
} // namespace

class TestPreferences : public QObject
{
    Q_OBJECT

private slots:
    // Qt's file dialog keeps its history in the configuration folder: the suite's own.
    void initTestCase() { qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8()); }
    void init();
    void cleanup();
    void rows_data();
    void rows();
    void rowsStayPutDuringASearch();
    void followsChangesMadeElsewhere();
    void renameStaysWithItsSpeaker_data();
    void renameStaysWithItsSpeaker();
    void names_data();
    void names();
    void keyboard();
    void everyControlHasAnAccessibleName();
    void iconsAreFetchedOnce();
    void buttonFollowsBridgeEventsOnly();
    void startStopAndObservers();
    void aFailedSaveIsShownUntilOneSucceeds();
    void startAtLoginAndSoundOutputs();
    void germanTranslation();
    void factoryMakesEachWindowOnce();
    void windowsAsTheUserMeetsThem();
    void crashPromptAnswers_data();
    void feedbackIsSentAsWritten_data();
    void feedbackIsSentAsWritten();
    void crashPromptAnswers();

private:
    QPushButton *startStop() const { return m_window->findChild<QPushButton *>("startStopButton"); }
    QListWidget *table() const { return m_window->findChild<QListWidget *>("tableView"); }
    QStringList shownNames() const
    {
        QStringList names;
        for (int i = 0; i < m_window->rowCount(); ++i)
            names << m_window->row(i)->titleField()->text();
        return names;
    }
    void showActive()
    {
        m_window->show();
        QApplication::setActiveWindow(m_window.get());
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
    }
    QTemporaryDir m_config;
    std::unique_ptr<FakeControls> m_controls;
    std::unique_ptr<FakePlatform> m_platform;
    std::unique_ptr<PreferencesWindow> m_window;
};

void TestPreferences::init()
{
    initCorvelResources();
    m_controls = std::make_unique<FakeControls>();
    m_platform = std::make_unique<FakePlatform>();
    m_window = std::make_unique<PreferencesWindow>(*m_controls, m_platform->platform());
}

void TestPreferences::cleanup()
{
    m_window.reset();
    settle();
}

void TestPreferences::rows_data()
{
    QTest::addColumn<QList<int>>("speakers");
    QTest::addColumn<QStringList>("names");
    QTest::newRow("none: the no-speakers row") << QList<int>() << QStringList{QString()};
    QTest::newRow("natural order of names, not of addresses")
        << QList<int>{10, 2, 1}
        << QStringList{"Room 1 - One", "Room 2 - One", "Room 10 - One", "Attic - One"};
}

void TestPreferences::rows()
{
    QFETCH(QList<int>, speakers);
    QFETCH(QStringList, names);
    for (int n : speakers)
        m_controls->add(n);
    m_controls->add(21, true, false); // not found in this run: no row
    if (!speakers.empty()) {
        m_controls->add(20, false, true, "Attic"); // a member: under its group's coordinator
        m_controls->settings().setDeviceEnabled(location(2), false);
    }
    m_window->resize(420, 320);
    m_window->show();
    QCOMPARE(shownNames(), names);
    SpeakerRow *first = m_window->row(0);
    QCOMPARE(first->noSpeakersFound()->isVisibleTo(m_window.get()), speakers.empty());
    if (speakers.empty()) {
        // The message is centred in the whole list, not in a row at its top.
        QCOMPARE(first->height(), table()->viewport()->height());
        return;
    }
    for (int i = 0; i < m_window->rowCount(); ++i) {
        SpeakerRow *row = m_window->row(i);
        const bool offered = row->deviceLocation != location(2);
        const bool member = row->deviceLocation == location(20);
        QCOMPARE(row->subtitleLabel()->text(),
                 (member    ? QStringLiteral("In Room 10 - One's group · ")
                  : offered ? QString()
                            : QStringLiteral("Not offered · ")) +
                     row->deviceLocation->host());
        QCOMPARE(row->checkbox()->isVisibleTo(row), !member);
        QCOMPARE(row->checkbox()->isChecked(), row->deviceLocation != location(2));
    }
    // A long name shows its start; a speaker that plays AirPlay itself says so.
    m_controls->settings().renameDevice(location(1), QString(40, 'L') + QString(20, 'E'));
    m_controls->settings().devices.at(location(1)).info.modelNumber = QStringLiteral("S18");
    m_window->reloadData();
    QCOMPARE(m_window->row(2)->titleField()->cursorPosition(), 0);
    for (int i = 0; i < m_window->rowCount(); ++i) {
        const QLabel *subtitle = m_window->row(i)->subtitleLabel();
        const bool airPlay = m_window->row(i)->deviceLocation == location(1);
        QCOMPARE(subtitle->text().endsWith(QStringLiteral(" — Already an AirPlay speaker")),
                 airPlay);
        QCOMPARE(subtitle->toolTip().isEmpty(), !airPlay);
    }
}

void TestPreferences::rowsStayPutDuringASearch()
{
    m_controls->add(1);
    m_controls->add(2);
    m_window->show();
    const QPointer<SpeakerRow> second = m_window->row(1);
    // Start: every speaker waits to be found again, and keeps its row meanwhile.
    m_controls->settings().markAllDevicesNotActive();
    m_controls->searching = true;
    post(Notifications::discoveryStarted);
    QCOMPARE(m_window->rowCount(), 2);
    m_controls->settings().devices.at(location(2)).active = true;
    m_controls->add(3);
    post(Notifications::deviceDiscovered);
    QCOMPARE(shownNames(), QStringList({"Room 1 - One", "Room 2 - One", "Room 3 - One"}));
    // Rows do not move under the pointer: the newcomer waits until it leaves the list.
    QEvent enter(QEvent::Enter), leave(QEvent::Leave);
    QCoreApplication::sendEvent(table()->viewport(), &enter);
    m_controls->add(0, true, true, QStringLiteral("Attic"));
    post(Notifications::deviceDiscovered);
    QVERIFY(m_window->rowCount() == 3 && m_window->layoutPending());
    QCoreApplication::sendEvent(table()->viewport(), &leave);
    QCOMPARE(m_window->row(0)->titleField()->text(), QStringLiteral("Attic - One"));
    // The search is over: the speaker it did not find again goes; the others keep their row.
    m_controls->searching = false;
    post(Notifications::discoveryComplete);
    QCOMPARE(shownNames(), QStringList({"Attic - One", "Room 2 - One", "Room 3 - One"}));
    QCOMPARE(m_window->row(1), second.data());
}

void TestPreferences::followsChangesMadeElsewhere()
{
    // corvel --rename and --disable (or the tray) change the settings of the running Corvel:
    // the open window shows it at once, in order, and its box toggles from what holds.
    m_controls->add(1);
    m_controls->add(2);
    showActive();
    m_controls->settings().renameDevice(location(1), QStringLiteral("Zebra"));
    m_controls->settings().setDeviceEnabled(location(2), false);
    post(Notifications::deviceSettingsChanged);
    QCOMPARE(shownNames(), QStringList({"Room 2 - One", "Zebra"}));
    QCheckBox *box = m_window->row(0)->checkbox();
    QVERIFY(!box->isChecked());
    box->click();
    QVERIFY(m_controls->settings().devices.at(location(2)).enabled);
}

void TestPreferences::renameStaysWithItsSpeaker_data()
{
    QTest::addColumn<QString>("typed");
    QTest::newRow("typed, then Return") << "Study";
    QTest::newRow("clicked, then focus elsewhere") << "";
}

void TestPreferences::renameStaysWithItsSpeaker()
{
    QFETCH(QString, typed);
    m_controls->add(2);
    m_controls->add(3);
    showActive();
    SpeakerRow *row = m_window->row(1);
    QTest::mouseClick(row->titleField(), Qt::LeftButton);
    QVERIFY(row->isRenaming());
    if (!typed.isEmpty()) {
        row->titleField()->selectAll();
        QTest::keyClicks(row->titleField(), typed);
    }
    EventRecorder saved({Notifications::deviceSettingsChanged});
    // Speakers that sort before and after it arrive while the name is edited.
    m_controls->add(1);
    m_controls->add(4);
    post(Notifications::deviceDiscovered);
    QVERIFY(m_window->rowCount() == 2 && m_window->row(1) == row); // not moved meanwhile
    QCOMPARE(*row->deviceLocation, location(3));
    if (typed.isEmpty())
        table()->setFocus(Qt::MouseFocusReason);
    else
        QTest::keyClick(row->titleField(), Qt::Key_Return);
    settle();
    QCOMPARE(saved.notifications.size(), typed.isEmpty() ? 0 : 1);
    QStringList expected{"Room 1 - One", "Room 2 - One", typed.isEmpty() ? "Room 3 - One" : typed,
                         "Room 4 - One"};
    QCOMPARE(QStringList({nameOf(*m_controls, 1), nameOf(*m_controls, 2), nameOf(*m_controls, 3),
                          nameOf(*m_controls, 4)}),
             expected);
    // Now the newcomers are in, and the renamed speaker has its place in the order.
    expected.sort();
    QCOMPARE(shownNames(), expected);
}

void TestPreferences::names_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<int>("endKey"); // 0: focus moves elsewhere
    QTest::addColumn<QString>("lengthShown");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("hint");
    QTest::addColumn<bool>("kept"); // refused on a key: the text stays, still being edited
    const QMap<QString, int> keys{
        {"Return", Qt::Key_Return}, {"Enter", Qt::Key_Enter}, {"Escape", Qt::Key_Escape}};
    for (const QStringList &c : tableRows(QStringLiteral("windows/names.txt"), 7))
        QTest::addRow("%s", qPrintable(c[0]))
            << c[1] << keys.value(c[2]) << c[3] << (c[4] == "old" ? "Room 1 - One" : c[4]) << c[5]
            << (c[6] == "yes");
}

void TestPreferences::names()
{
    QFETCH(QString, typed);
    QFETCH(int, endKey);
    QFETCH(QString, lengthShown);
    QFETCH(QString, stored);
    QFETCH(QString, hint);
    QFETCH(bool, kept);
    m_controls->add(1);
    showActive();
    table()->setFocus();
    SpeakerRow *row = m_window->row(0);
    QTest::keyClick(table(), Qt::Key_F2);
    QVERIFY(row->titleField()->hasFocus());
    QCOMPARE(row->titleField()->selectedText(), QStringLiteral("Room 1 - One"));
    QTest::keyClick(row->titleField(), Qt::Key_Backspace);
    QTest::keyClicks(row->titleField(), typed);
    QVERIFY(row->lengthLabel()->isVisible());
    QCOMPARE(row->lengthLabel()->text(), lengthShown);
    QCOMPARE(row->lengthLabel()->foregroundRole() == QPalette::WindowText,
             lengthShown.contains("over"));
    if (endKey)
        QTest::keyClick(row->titleField(), Qt::Key(endKey));
    else
        startStop()->setFocus();
    QCOMPARE(nameOf(*m_controls, 1), stored);
    // A hint wraps (rich text) instead of running across the screen.
    QVERIFY2(row->titleField()->toolTip().contains(hint) &&
                 (hint.isEmpty() || row->titleField()->toolTip().startsWith("<p>")),
             qPrintable(row->titleField()->toolTip()));
    QVERIFY(m_window->isVisible()); // Escape ended the edit, it did not close the window
    QCOMPARE(row->isRenaming(), kept);
    QCOMPARE(row->titleField()->palette().base().color().alpha(),
             kept ? 255 : 0); // a field while edited
    QCOMPARE(row->lengthLabel()->isVisible(), kept);
    if (kept) {
        QCOMPARE(row->titleField()->text(), typed);
        return;
    }
    QCOMPARE(row->titleField()->text(), stored);
    QCOMPARE(row->titleField()->cursorPosition(), 0); // the name's start shows again
    // An edit ended by a key hands the keyboard back to the list.
    QCOMPARE(table()->hasFocus(), endKey != 0);
}

void TestPreferences::keyboard()
{
    m_controls->add(1);
    m_controls->add(2);
    showActive();
    // One Tab stop for the whole list, not two per row.
    startStop()->setFocus();
    QTest::keyClick(startStop(), Qt::Key_Backtab);
    QVERIFY(table()->hasFocus());
    QTest::keyClick(table(), Qt::Key_Tab);
    QVERIFY(startStop()->hasFocus());
    table()->setFocus();
    table()->setCurrentRow(0);
    QTest::keyClick(table(), Qt::Key_Down);
    QCOMPARE(table()->currentRow(), 1);
    // The current row is tinted while the list has the keyboard (past the row's right margin).
    const auto tint = [this](int row) {
        const QImage image = m_window->row(row)->grab().toImage();
        return image.pixelColor(image.width() - 5, image.height() / 2);
    };
    QVERIFY(tint(1) != tint(0));
    QTest::keyClick(table(), Qt::Key_Space);
    QVERIFY(!m_controls->settings().devices.at(location(2)).enabled &&
            !m_window->row(1)->checkbox()->isChecked());
    QTest::keyClick(table(), Qt::Key_Return);
    QVERIFY(m_window->row(1)->isRenaming() && tint(1) == tint(0));
    QTest::keyClick(m_window->row(1)->titleField(), Qt::Key_Escape);
    QVERIFY(m_window->isVisible());
    // Escape and Ctrl+W close the window; without a tray Escape leaves it be.
    QTest::keyClick(table(), Qt::Key_Escape);
    QVERIFY(!m_window->isVisible());
    showActive();
    QTest::keyClick(table(), Qt::Key_W, Qt::ControlModifier);
    QVERIFY(!m_window->isVisible());
    m_window->setClosingQuits(true);
    showActive();
    QTest::keyClick(table(), Qt::Key_Escape);
    QVERIFY(m_window->isVisible());
}

void TestPreferences::everyControlHasAnAccessibleName()
{
    m_controls->add(1);
    m_controls->add(2);
    m_window->show();
    int checked = 0;
    for (QWidget *widget : m_window->findChildren<QWidget *>()) {
        const auto *label = qobject_cast<QLabel *>(widget);
        const bool image = label && !label->pixmap().isNull();
        if (!widget->isVisibleTo(m_window.get()) ||
            (widget->focusPolicy() == Qt::NoFocus && !qobject_cast<QAbstractButton *>(widget) &&
             !image))
            continue;
        QString name = QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
        QVERIFY2(!name.remove(QLatin1Char('&')).trimmed().isEmpty(),
                 qPrintable(widget->objectName()));
        ++checked;
    }
    QCOMPARE(checked, 12); // the list, 3 controls per row, 2 buttons, 2 checkboxes, the delay
}

void TestPreferences::iconsAreFetchedOnce()
{
    // Speaker 1's own server, answering when the test says: reloads during a search must not
    // ask again, and speaker 2's icon, named there, is never asked for nor shown.
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress(QStringLiteral("127.0.1.1"))));
    QList<QTcpSocket *> asked;
    connect(&server, &QTcpServer::newConnection, this,
            [&] { asked << server.nextPendingConnection(); });
    for (int n : {1, 2}) {
        m_controls->add(n);
        auto icon = std::make_shared<DeviceInfo::Icon>();
        icon->url =
            QUrl(QStringLiteral("http://127.0.1.1:%1/%2.png").arg(server.serverPort()).arg(n));
        m_controls->settings().devices.at(location(n)).info.iconList = {icon};
    }
    for (int i = 0; i < 5; ++i)
        m_window->reloadData();
    CORVEL_WAIT(asked.size() == 1);
    QByteArray png;
    QBuffer buffer(&png);
    QVERIFY(QImage(5, 3, QImage::Format_RGB32).save(&buffer, "PNG")); // opens it
    asked[0]->write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                    QByteArray::number(png.size()) + "\r\n\r\n" + png);
    CORVEL_WAIT(asked[0]->state() == QAbstractSocket::UnconnectedState); // read whole
    settle();
    for (bool active : {false, true}) { // its row goes and comes back: the icon is remembered
        m_controls->settings().devices.at(location(1)).active = active;
        m_window->reloadData();
    }
    QCOMPARE(m_window->row(0)->icon()->pixmap().size(), QSize(5, 3));
    QVERIFY(m_window->row(1)->icon()->pixmap().size() != QSize(5, 3) && asked.size() == 1);
}

void TestPreferences::buttonFollowsBridgeEventsOnly()
{
    m_controls->searching = true;
    m_window->show();
    m_controls->searching = false; // the search ended without a bridge
    post(Notifications::discoveryComplete);
    QVERIFY(!m_window->findChild<QProgressBar *>("spinner")->isVisible());
    QCOMPARE(startStop()->text(), QStringLiteral("Search &Again")); // nothing found: try again
    QVERIFY(startStop()->isEnabled());
    m_controls->add(1);
    post(Notifications::serviceTerminated);
    QCOMPARE(startStop()->text(), QStringLiteral("&Start"));
    // No bridge: the button leads to its setup instead of a search that cannot start it.
    m_controls->missing = true;
    post(Notifications::bridgeMissing);
    QCOMPARE(startStop()->text(), QStringLiteral("&Install Bridge…"));
    startStop()->click();
    QVERIFY(m_controls->setups == 1 && m_controls->searches == 0);
    // Without a tray, closing the window quits, and the window says so.
    QSignalSpy quit(m_window.get(), &PreferencesWindow::closedToQuit);
    m_window->close();
    QCOMPARE(quit.size(), 0);
    m_window->setClosingQuits(true);
    m_controls->status = QStringLiteral("Corvel: Running"); // since the window was made
    m_window->show();
    auto *noTray = m_window->findChild<QLabel *>("noTrayLabel");
    QVERIFY(noTray->isVisible() &&
            noTray->y() < m_window->findChild<QLabel *>("speakersLabel")->y());
    // It is Corvel's only face then: where Corvel stands, and the tray menu's commands.
    auto *status = m_window->findChild<QLabel *>("statusLabel");
    QCOMPARE(status->text(), QStringLiteral("Corvel: Running"));
    m_controls->status = QStringLiteral("Corvel: Stopped");
    post(Notifications::appStateChanged);
    QCOMPARE(status->text(), QStringLiteral("Corvel: Stopped"));
    m_window->findChild<QPushButton *>("aboutButton")->click();
    m_window->findChild<QPushButton *>("feedbackButton")->click();
    QCOMPARE(m_controls->shown, QStringList({"about", "feedback"}));
    m_window->findChild<QPushButton *>("quitButton")->click();
    QCOMPARE(m_controls->quits, 1);
    m_window->close();
    QCOMPARE(quit.size(), 1);
}

void TestPreferences::startStopAndObservers()
{
    const int before = NotificationCenter::defaultCenter().observerCount();
    m_controls->add(1);
    m_controls->bridge = true;
    m_window->show();
    QCOMPARE(m_window->observerCount(), 11);
    QVERIFY(startStop()->text() == QStringLiteral("&Stop") && m_window->canStop());
    startStop()->click();
    QVERIFY(m_controls->bridgeStops == 1 && startStop()->text() == QStringLiteral("&Start"));
    m_controls->stopped = true;
    startStop()->click();
    QVERIFY(!m_controls->stopped);
    QVERIFY(m_controls->searches == 1 && startStop()->text() == QStringLiteral("Searching..."));
    QVERIFY(!startStop()->isEnabled() && !m_window->canStop());
    post(Notifications::discoveryStarted);
    QVERIFY(m_window->findChild<QProgressBar *>("spinner")->isVisible());
    m_window->hide();
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before);
    m_window->show();
    QCOMPARE(NotificationCenter::defaultCenter().observerCount(), before + 11);
}

void TestPreferences::aFailedSaveIsShownUntilOneSucceeds()
{
    m_controls->add(1);
    auto &storage = static_cast<MemorySettingsStorage &>(m_controls->settings().storage());
    storage.failure = QStringLiteral("No space left on device");
    m_window->show();
    QCheckBox *box = m_window->row(0)->checkbox();
    box->click();
    settle();
    auto *label = m_window->findChild<QLabel *>("saveErrorLabel");
    QVERIFY(label && label->isVisible() && label->text().contains("(No space left on device)"));
    storage.failure.reset();
    box->click();
    settle();
    QVERIFY(!label->isVisible());
    // The log exported to the file chosen, or an alert says why it could not be.
    QTemporaryDir dir;
    m_window->findChild<QPushButton *>("saveLogButton")->click();
    auto *chooser = m_window->findChild<QFileDialog *>("saveLogFileDialog");
    chooser->selectFile(dir.filePath("log.txt"));
    static_cast<QDialog *>(chooser)->accept();
    QVERIFY(QFile::exists(dir.filePath("log.txt")) && !m_window->findChild<QMessageBox *>());
    m_window->saveLogTo(dir.filePath("missing/log.txt"));
    QVERIFY(
        m_window->findChild<QMessageBox *>()->informativeText().startsWith("Failed to save log"));
}

void TestPreferences::startAtLoginAndSoundOutputs()
{
    // The delay shows the stored choice; a new one is saved, said under it, and applied.
    m_controls->document->bridgeDelay = BridgeDelay::Lowest;
    PreferencesWindow fresh(*m_controls, m_platform->platform());
    auto *delay = fresh.findChild<QComboBox *>("delayComboBox");
    auto *hint = fresh.findChild<QLabel *>("delayHintLabel");
    QCOMPARE(delay->currentText(), QStringLiteral("Lowest delay (wired network)"));
    const QString lowestHint = hint->text();
    EventRecorder changes({Notifications::deviceSettingsChanged});
    delay->setCurrentIndex(delay->findData(int(BridgeDelay::Steady)));
    QCOMPARE(m_controls->document->bridgeDelay, BridgeDelay::Steady);
    QCOMPARE(changes.count(Notifications::deviceSettingsChanged), 1);
    QVERIFY(hint->text() != lowestHint && hint->text().contains("1.5 s"));

    m_platform->autostart->on = true;
    m_platform->sound->current = {SoundOutputs::Server::PipeWire, true, true};
    m_controls->document->soundOutputs = true; // as stored
    m_window->show();
    auto *login = m_window->findChild<QCheckBox *>("startAtLoginCheckBox");
    auto *sound = m_window->findChild<QCheckBox *>("soundOutputsCheckBox");
    QVERIFY(login->isChecked() && sound->isEnabled() && sound->isChecked());
    sound->click();
    m_window->hide();
    m_window->show(); // off, with a server to turn it on again
    QVERIFY(!m_controls->document->soundOutputs && sound->isEnabled() && !sound->isChecked() &&
            m_platform->sound->current.raopDiscoveryActive);
    // On: stored and applied; the sound server's own AirPlay outputs (from earlier versions)
    // go, or every speaker would be listed twice.
    sound->click();
    QVERIFY(m_controls->document->soundOutputs);
    QCOMPARE(changes.count(Notifications::deviceSettingsChanged), 3);
    QVERIFY(!m_platform->sound->current.raopDiscoveryActive);
    login->click();
    QVERIFY(!m_platform->autostart->on);
    m_platform->autostart->fails = true;
    login->click(); // a failed write shows the state that holds
    QVERIFY(!login->isChecked());
    m_platform->sound->current.server = SoundOutputs::Server::None; // off, none to turn it on
    sound->click();
    m_window->updateSoundOutputsCheckBox();
    QVERIFY(!sound->isEnabled() && sound->toolTip().startsWith("No sound server answered"));
}

void TestPreferences::germanTranslation()
{
    // The texts shown are the translated ones (their placeholders and mnemonics are checked
    // in the .ts file itself).
    QCOMPARE(Translations::install(QLocale(QLocale::German, QLocale::Germany)), 2); // and Qt's
    PreferencesWindow window(*m_controls, m_platform->platform());
    window.show();
    QCOMPARE(window.findChild<QPushButton *>("startStopButton")->text(),
             QStringLiteral("&Erneut suchen"));
    QCOMPARE(TrayPresenter::statusTitle(Lifecycle::State::Running),
             QStringLiteral("Corvel: Läuft"));
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel"), "Abbrechen"); // Qt's own
    QCOMPARE(Translations::install(QLocale(QLocale::English, QLocale::UnitedKingdom)), 0);
    QCOMPARE(QCoreApplication::translate("QPlatformTheme", "Cancel") + " " +
                 TrayPresenter::statusTitle(Lifecycle::State::Running),
             "Cancel Corvel: Running"); // both translators gone
}

void TestPreferences::factoryMakesEachWindowOnce()
{
    using Kind = Windows::Kind;
    m_controls->withoutTray = true;
    WindowFactory windows(*m_controls, m_platform->platform());
    QVERIFY(!QGuiApplication::quitOnLastWindowClosed()); // the window asks when it quits
    for (const Kind kind : {Kind::Preferences, Kind::About, Kind::Feedback, Kind::BridgeSetup}) {
        QVERIFY(!windows.isVisible(kind));
        windows.show(kind);
        QWidget *made = windows.window(kind);
        QVERIFY(made && windows.isVisible(kind) && !made->windowTitle().isEmpty());
        windows.show(kind); // brought forward, not made again
        QCOMPARE(windows.window(kind), made);
        // Long texts wrap, in lines long enough to read easily (sixty characters or more).
        for (const QLabel *label : made->findChildren<QLabel *>()) {
            QVERIFY2(label->text().size() < 90 || label->wordWrap(), qPrintable(label->text()));
            QVERIFY2(!label->wordWrap() || !label->isVisible() ||
                         label->width() >= 60 * label->fontMetrics().averageCharWidth(),
                     qPrintable(label->text()));
        }
    }
    QVERIFY(AboutWindow::versionInfo().startsWith("Corvel " + Settings::currentVersion()));
    // About names no placeholder address (this build has none) and the version once. A closed
    // About is gone.
    QCOMPARE(windows.window(Kind::About)->findChild<QLabel *>("iconLabel")->pixmap().size(),
             QSize(64, 64));
    const QString about = windows.window(Kind::About)->findChild<QLabel *>("aboutLabel")->text();
    QVERIFY2(!about.contains(".invalid") && !about.contains(Settings::currentVersion()) &&
                 !about.contains("<p></p>"),
             qPrintable(about));
    windows.window(Kind::About)->findChild<QPushButton *>("copyVersionInfoPushButton")->click();
    QCOMPARE(QGuiApplication::clipboard()->text(), AboutWindow::versionInfo());
    emit windows.window(Kind::About)->findChild<QDialogButtonBox *>()->rejected(); // its Close
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!windows.window(Kind::About));
    // The setup shows where the bridge was looked for and reports an install.
    auto *setup = qobject_cast<BridgeSetupWindow *>(windows.window(Kind::BridgeSetup));
    windows.setBridgeLookedIn({QStringLiteral("/looked/here")});
    auto *places = setup->findChild<QPlainTextEdit *>();
    setup->findChild<QAbstractButton *>("detailsToolButton")->toggle();
    QVERIFY(places->isVisibleTo(setup) && places->toPlainText().contains("/looked/here"));
    // Return on its button chooses the file; a file that is not the bridge is refused, said so.
    QTest::keyClick(setup->findChild<QPushButton *>("chooseFilePushButton"), Qt::Key_Return);
    auto *chooser = setup->findChild<QFileDialog *>();
    chooser->selectFile(QStringLiteral(CORVEL_TEST_DATA "/windows/names.txt"));
    static_cast<QDialog *>(chooser)->accept();
    QVERIFY(setup->findChild<QLabel *>("statusLabel")->text().endsWith("is not a Linux program."));
    emit setup->installed(QStringLiteral("/x/airupnp"));
    QCOMPARE(m_controls->installs, 1);
    // Without a tray, closing Preferences quits Corvel.
    windows.window(Kind::Preferences)->close();
    QCOMPARE(m_controls->quits, 1);
}

void TestPreferences::windowsAsTheUserMeetsThem()
{
    using Kind = Windows::Kind;
    m_controls->add(1);
    m_controls->withoutTray = true;
    WindowFactory windows(*m_controls, m_platform->platform());
    const QStringList kinds = {"preferences", "about", "feedback", "setup"}; // as Kind lists them
    for (const QStringList &c : tableRows(QStringLiteral("windows/look.txt"), 4)) {
        windows.show(Kind(kinds.indexOf(c[0])));
        QObject *window = windows.window(Kind(kinds.indexOf(c[0])));
        QObject *widget =
            window->objectName() == c[1] ? window : window->findChild<QObject *>(c[1]);
        const QMetaObject *type = widget ? widget->metaObject() : &QObject::staticMetaObject;
        const QMetaProperty property = type->property(type->indexOfProperty(qPrintable(c[2])));
        const QVariant value = property.read(widget);
        const QMetaEnum names = property.enumerator();
        const QString shown = !property.isEnumType()  ? value.toString()
                              : property.isFlagType() ? QString(names.valueToKeys(value.toInt()))
                                                      : QString(names.valueToKey(value.toInt()));
        QCOMPARE(c.mid(0, 3) << shown, c);
    }
}

void TestPreferences::crashPromptAnswers_data()
{
    QTest::addColumn<bool>("canSend");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("waiting");
    for (const QStringList &column : tableRows(QStringLiteral("windows/crash-prompt.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0]))
            << (column[1] == "yes") << column[2] << column[3].toInt();
}

void TestPreferences::crashPromptAnswers()
{
    QFETCH(bool, canSend);
    QFETCH(QString, answer);
    QFETCH(int, waiting);
    QTemporaryDir state;
    QDir().mkpath(state.filePath("reports"));
    const int reports = answer == "Don't Send" ? 1 : 2; // one is said as one
    for (int n = 1; n <= reports; ++n)
        writeFileAtomically(state.path() + QStringLiteral("/reports/crash-%1-%1.txt").arg(n),
                            "signal 11\ntime 1\nversion 1\nbacktrace:\n", nullptr);
    struct : CrashReporterDelegate
    {
        QString recentLog() override { return {}; }
        void crashPromptWillShow() override {}
    } delegate;
    CrashReporter reporter;
    reporter.setStateFolder(state.path());
    reporter.configure(QStringLiteral("org.corvel.Test"), &delegate);
    if (canSend)
        reporter.setEndpoint(QUrl("http://127.0.0.1:9"));
    installCrashPrompts(reporter);
    reporter.processPendingReports();
    QPointer<QMessageBox> box;
    CORVEL_WAIT((box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())));
    QCOMPARE(box->text(), reports == 1 ? "Corvel quit unexpectedly the last time it ran."
                                       : "Corvel quit unexpectedly 2 times since it last asked.");
    QVERIFY(box->informativeText().contains("names your speakers and their addresses"));
    QVERIFY(box->detailedText().contains("Segmentation fault"));
    QStringList texts;
    for (QAbstractButton *button : box->buttons())
        texts << button->text();
    QCOMPARE(texts.contains("Always Send"), canSend);
    if (answer == "Escape")
        QTest::keyClick(box, Qt::Key_Escape);
    else if (answer == "close")
        box->close();
    else
        box->buttons().at(texts.indexOf(answer))->click();
    CORVEL_WAIT(!box);
    if (answer == "Save Report…") { // saved under the name offered, here in the test's folder
        QPointer<QFileDialog> dialog;
        CORVEL_WAIT((dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget())));
        dialog->setDirectory(state.path());
        static_cast<QDialog *>(dialog.data())->accept(); // virtual: the file dialog's own
        QVERIFY(readFile(state.filePath("corvel-crash-report.txt")).contains("signal 11"));
    }
    CORVEL_WAIT(reporter.pendingReports().size() == waiting);
    QCOMPARE(reporter.alwaysSend(), answer == "Always Send");
}

void TestPreferences::feedbackIsSentAsWritten_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("withLog");
    QTest::addColumn<QString>("status");
    for (const QStringList &column : tableRows(QStringLiteral("windows/feedback.txt"), 4))
        QTest::addRow("%s", qPrintable(column[0]))
            << column[1].toUtf8() << (column[2] == "yes") << column[3];
}

void TestPreferences::feedbackIsSentAsWritten()
{
    QFETCH(QByteArray, answer);
    QFETCH(bool, withLog);
    QFETCH(QString, status);
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    QByteArray received;
    connect(&server, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [&, socket] {
            received += socket->readAll();
            static const QRegularExpression length("Content-Length: (\\d+)",
                                                   QRegularExpression::CaseInsensitiveOption);
            const qsizetype head = received.indexOf("\r\n\r\n");
            if (head < 0 || received.size() - head - 4 < length.match(received).captured(1).toInt())
                return;
            socket->write("HTTP/1.1 " + answer + "\r\nContent-Length: 0\r\n\r\n");
            socket->disconnectFromHost();
        });
    });
    const bool saving = answer.startsWith("save"); // no server: saved to the file chosen
    FeedbackWindow window(
        saving ? QUrl() : QUrl("http://127.0.0.1:" + QString::number(server.serverPort()) + "/f"));
    auto *send = window.findChild<QPushButton *>("sendButton");
    auto *log = window.findChild<QCheckBox *>("includeLogCheckBox");
    window.findChild<QLineEdit *>("nameLineEdit")->setText("Ann");
    window.findChild<QLineEdit *>("emailLineEdit")->setText("ann@example.org");
    auto *message = window.findChild<QPlainTextEdit *>("messagePlainTextEdit");
    message->setPlainText("Café works");
    window.show();
    window.resize(1, 1); // at its smallest, the message still has room for a few lines
    QVERIFY(message->height() >= 5 * message->fontMetrics().lineSpacing());
    log->setChecked(withLog);
    Log::shared().log(LogLevel::Info, std::nullopt, QStringLiteral("the latest line"));
    send->click();
    QTemporaryDir dir;
    const QString path = dir.filePath(answer == "save" ? "f.txt" : "missing/f.txt");
    if (QPointer<QFileDialog> dialog; saving) {
        CORVEL_WAIT((dialog = window.findChild<QFileDialog *>()));
        dialog->selectFile(path);
        static_cast<QDialog *>(dialog.data())->accept();
    }
    CORVEL_WAIT(window.statusLabel()->text().startsWith(status));
    QVERIFY(send->isEnabled()); // for another try
    QVERIFY(saving || received.startsWith("POST /f HTTP/1.1\r\n"));
    if (answer == "save nowhere")
        return;
    const QByteArray body =
        saving ? readFile(path) : received.mid(received.indexOf("\r\n\r\n") + 4);
    QVERIFY2(body.startsWith("Name: Ann\nEmail: ann@example.org\n\nCafé works\n"),
             body.constData());
    QCOMPARE(body.contains("\n--- Log ---\n") + body.contains("the latest line"), 2 * withLog);
}

QTEST_MAIN(TestPreferences)
#include "TestPreferences.moc"
