// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences window's options below the speaker list: start at login, the speakers as
// sound outputs of this computer, the bridge's delay, and saving the log.
#include "PreferencesWindow.h"

#include "LogExport.h"
#include "Logging.h"
#include "Notifications.h"
#include "Settings.h"
#include "ui_PreferencesWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QFileDialog>
#include <QMessageBox>
#include <QPointer>

namespace {
const QString category = QStringLiteral("preferences");
} // namespace

void PreferencesWindow::startAtLoginChecked()
{
    const bool enabled = m_ui->startAtLoginCheckBox->checkState() == Qt::Checked;
    QString error;
    if (!m_platform.autostart->setEnabled(enabled, &error))
        m_ui->startAtLoginCheckBox->setChecked(m_platform.autostart->enabled());
}

void PreferencesWindow::setUpDelayChoice()
{
    // How much sound the bridge holds against the network's hiccups, against how late sound
    // starts; the hint under the choice says which.
    QComboBox *box = m_ui->delayComboBox;
    box->addItem(tr("Balanced"), int(BridgeDelay::Balanced));
    box->addItem(tr("Lowest delay (wired network)"), int(BridgeDelay::Lowest));
    box->addItem(tr("Steady (Wi-Fi with drop-outs)"), int(BridgeDelay::Steady));
    m_ui->delayHintLabel->setForegroundRole(QPalette::PlaceholderText);
    const auto showHint = [this] {
        const auto delay = BridgeDelay(m_ui->delayComboBox->currentData().toInt());
        m_ui->delayHintLabel->setText(
            delay == BridgeDelay::Lowest
                ? tr("Holds a quarter second of sound; it starts within about a second, but "
                     "hiccups of the network are heard.")
            : delay == BridgeDelay::Steady
                ? tr("Holds 1.5 s of sound against drop-outs; it starts about 4 s late.")
                : tr("Holds 1 s of sound against hiccups of the network; it starts about 2 s "
                     "late."));
    };
    box->setCurrentIndex(box->findData(int(m_controls.settings().bridgeDelay)));
    showHint();
    connect(box, &QComboBox::currentIndexChanged, this, [this, showHint] {
        showHint();
        // The bridge is restarted with it once the choices have been quiet a moment.
        if (m_controls.settings().setBridgeDelay(
                BridgeDelay(m_ui->delayComboBox->currentData().toInt())))
            NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
    });
}

void PreferencesWindow::updateSoundOutputsCheckBox()
{
    m_ui->soundOutputsCheckBox->setChecked(m_controls.settings().soundOutputs);
    QPointer<PreferencesWindow> self(this);
    m_platform.soundOutputs->status([self](const SoundOutputs::Status &status) {
        if (!self)
            return;
        QCheckBox *box = self->m_ui->soundOutputsCheckBox;
        const bool server = status.server != SoundOutputs::Server::None;
        // Once on, the box can always be turned off again.
        box->setEnabled(server || box->isChecked());
        box->setToolTip(
            server ? tr("Each speaker becomes a sound output of this computer: what plays into "
                        "it goes straight to the speaker, with no bridge in between")
                   : tr("No sound server answered: Corvel needs PipeWire (with pipewire-pulse) "
                        "or PulseAudio"));
    });
}

void PreferencesWindow::soundOutputsChecked()
{
    const bool enable = m_ui->soundOutputsCheckBox->isChecked();
    if (m_controls.settings().setSoundOutputs(enable))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
    showSaveState();
    if (!enable)
        return;
    // The sound server's AirPlay discovery, which earlier versions turned on for this box,
    // would list every speaker a second time.
    std::shared_ptr<SoundOutputs> outputs = m_platform.soundOutputs;
    outputs->status([outputs](const SoundOutputs::Status &status) {
        if (!status.raopDiscoveryActive)
            return;
        outputs->setEnabled(false, [](bool ok, const QString &error) {
            if (ok)
                logInfo(category, QStringLiteral("Turned off AirPlay discovery in the sound "
                                                 "server: Corvel makes the outputs itself"));
            else
                logError(category, error);
        });
    });
}

void PreferencesWindow::saveLogClicked()
{
    auto *dialog = new QFileDialog(this, tr("Save Log"));
    dialog->setObjectName(QStringLiteral("saveLogFileDialog"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setDirectory(LogExport::saveFolder());
    dialog->selectFile(LogExport::suggestedFileName(QDateTime::currentDateTime()));
    connect(dialog, &QFileDialog::fileSelected, this, &PreferencesWindow::saveLogTo);
    dialog->open();
}

void PreferencesWindow::saveLogTo(const QString &path)
{
    QString error;
    if (LogExport::writeLog(path, &error))
        return;
    auto *alert =
        new QMessageBox(QMessageBox::Warning, tr("Error"), tr("Error"), QMessageBox::Ok, this);
    alert->setObjectName(QStringLiteral("saveLogErrorMessageBox"));
    alert->setInformativeText(tr("Failed to save log file: %1").arg(error));
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->open();
}
