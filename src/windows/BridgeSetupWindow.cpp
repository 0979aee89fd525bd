// SPDX-License-Identifier: GPL-3.0-or-later
#include "BridgeSetupWindow.h"

#include "BridgeLocator.h"
#include "Logging.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStandardPaths>
#include <QToolButton>
#include <QVBoxLayout>

BridgeSetupWindow::BridgeSetupWindow(const QString &arch, const QStringList &lookedIn,
                                     QWidget *parent)
    : QWidget(parent), m_arch(arch), m_installDir(userBridgeDirectory())
{
    setObjectName(QStringLiteral("bridgeSetupWindow"));
    setWindowTitle(tr("Set Up the AirConnect Bridge"));
    setWindowIcon(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")));
    auto *layout = new QVBoxLayout(this);

    auto *intro = new QLabel(
        tr("<p>Corvel plays this computer's sound to your speakers by itself. For phones, "
           "tablets and other computers it runs AirConnect, a free program that makes Sonos "
           "speakers appear as AirPlay speakers. It is not installed on this computer yet.</p>"
           "<p>Download <b>%1</b> from <a href=\"%2\">AirConnect's releases page</a> (it is "
           "inside the zip file of the latest release), then choose the downloaded file "
           "here.</p>")
            .arg(bridgeFileName(arch).toHtmlEscaped(), bridgeReleasesUrl),
        this);
    intro->setObjectName(QStringLiteral("introLabel"));
    intro->setWordWrap(true);
    intro->setOpenExternalLinks(true);
    intro->setTextInteractionFlags(Qt::TextBrowserInteraction);
    layout->addWidget(intro);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setWordWrap(true);
    m_status->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_status);

    auto *detailsButton = new QToolButton(this);
    detailsButton->setObjectName(QStringLiteral("detailsToolButton"));
    detailsButton->setText(tr("Places Corvel looked in"));
    detailsButton->setCheckable(true);
    detailsButton->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    detailsButton->setArrowType(Qt::RightArrow);
    layout->addWidget(detailsButton);
    m_details = new QPlainTextEdit(this);
    m_details->setObjectName(QStringLiteral("detailsPlainTextEdit"));
    m_details->setReadOnly(true);
    m_details->setVisible(false);
    layout->addWidget(m_details);
    connect(detailsButton, &QToolButton::toggled, this, [this, detailsButton](bool open) {
        detailsButton->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
        m_details->setVisible(open);
        adjustSize();
    });
    setLookedIn(lookedIn);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *choose =
        buttons->addButton(tr("&Choose Downloaded File…"), QDialogButtonBox::AcceptRole);
    choose->setObjectName(QStringLiteral("chooseFilePushButton"));
    choose->setDefault(true);
    buttons->addButton(QDialogButtonBox::Close);
    connect(choose, &QPushButton::clicked, this, &BridgeSetupWindow::chooseFile);
    connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
    layout->addWidget(buttons);
    setMinimumWidth(460);
}

void BridgeSetupWindow::setLookedIn(const QStringList &lookedIn)
{
    m_details->setPlainText(
        tr("Corvel looks for %1 in its own folder, in %2 and on the PATH; the environment "
           "variable CORVEL_BRIDGE may name the file instead. It looked in:\n%3")
            .arg(bridgeFileName(m_arch), m_installDir, lookedIn.join(QLatin1Char('\n'))));
}

void BridgeSetupWindow::chooseFile()
{
    auto *dialog = new QFileDialog(this, tr("Choose the AirConnect Bridge"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    dialog->setDirectory(QStandardPaths::writableLocation(QStandardPaths::DownloadLocation));
    connect(dialog, &QFileDialog::fileSelected, this, &BridgeSetupWindow::installFrom);
    dialog->open();
}

void BridgeSetupWindow::installFrom(const QString &path)
{
    UserText error;
    const QString installedPath = installBridge(path, m_installDir, m_arch, &error);
    if (installedPath.isEmpty()) {
        logWarning(QStringLiteral("Bridge setup: ") + error.english);
        m_status->setText(error.shown);
        return;
    }
    logInfo(QStringLiteral("Bridge setup: installed ") + installedPath);
    // What was missing is there now: the window says so instead of what to download.
    if (auto *intro = findChild<QLabel *>(QStringLiteral("introLabel")))
        intro->setText(tr("<p>The AirConnect bridge is installed in %1.</p>")
                           .arg(QFileInfo(installedPath).absolutePath().toHtmlEscaped()));
    m_status->setText(tr("Installed. Corvel is looking for your speakers."));
    emit installed(installedPath);
}
