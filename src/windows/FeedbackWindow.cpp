// SPDX-License-Identifier: GPL-3.0-or-later
#include "FeedbackWindow.h"

#include "AtomicFile.h"
#include "Log.h"
#include "LogExport.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkReply>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QUrlQuery>
#include <QVBoxLayout>

FeedbackWindow::FeedbackWindow(const QUrl &endpoint, QWidget *parent)
    : QDialog(parent), m_endpoint(endpoint)
{
    setWindowTitle(tr("Send Feedback"));
    setObjectName(QStringLiteral("feedbackDialog"));
    setMinimumSize(420, 360);
    m_name = new QLineEdit(this);
    m_name->setObjectName(QStringLiteral("nameLineEdit"));
    m_name->setPlaceholderText(tr("Optional"));
    m_email = new QLineEdit(this);
    m_email->setObjectName(QStringLiteral("emailLineEdit"));
    m_email->setPlaceholderText(tr("Optional, if you would like an answer"));
    m_message = new QPlainTextEdit(this);
    m_message->setObjectName(QStringLiteral("messagePlainTextEdit"));
    m_message->setPlaceholderText(
        tr("What works, what doesn't, what you would like Corvel to do…"));
    m_message->setTabChangesFocus(true); // Tab leaves the message, as in every other field
    m_includeLog = new QCheckBox(tr("Include the log (the last 100 lines)"), this);
    m_includeLog->setObjectName(QStringLiteral("includeLogCheckBox"));
    m_includeLog->setChecked(true);
    auto *logNote = new QLabel(
        tr("The log records what Corvel did: your speakers' names and their addresses on your "
           "network, and the bridge's messages. It holds nothing of what you play."),
        this);
    logNote->setObjectName(QStringLiteral("logNoteLabel"));
    logNote->setWordWrap(true);
    logNote->setEnabled(false); // shown dimmed, as a remark on the box above
    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setWordWrap(true);

    auto *form = new QFormLayout;
    form->addRow(tr("Name:"), m_name);
    form->addRow(tr("Email:"), m_email);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    m_send = buttons->addButton(m_endpoint.isEmpty() ? tr("Save…") : tr("Send"),
                                QDialogButtonBox::AcceptRole);
    m_send->setObjectName(QStringLiteral("sendButton"));
    m_send->setEnabled(false);
    connect(m_message, &QPlainTextEdit::textChanged, this,
            [this] { m_send->setEnabled(!m_message->toPlainText().trimmed().isEmpty()); });
    connect(buttons, &QDialogButtonBox::accepted, this, &FeedbackWindow::sendClicked);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(new QLabel(tr("Message:"), this));
    layout->addWidget(m_message, 1);
    layout->addWidget(m_includeLog);
    layout->addWidget(logNote);
    layout->addWidget(m_status);
    layout->addWidget(buttons);
}

QString FeedbackWindow::feedbackText() const
{
    QString text = QStringLiteral("Name: %1\nEmail: %2\n\n%3\n")
                       .arg(m_name->text(), m_email->text(), m_message->toPlainText());
    if (m_includeLog->isChecked())
        text += QStringLiteral("\n--- Log ---\n") + Log::shared().text(100) + QLatin1Char('\n');
    return text;
}

void FeedbackWindow::sendClicked()
{
    if (m_endpoint.isEmpty()) {
        auto *dialog = new QFileDialog(this, tr("Save Feedback"));
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->setAcceptMode(QFileDialog::AcceptSave);
        dialog->setDirectory(LogExport::saveFolder());
        dialog->selectFile(QStringLiteral("corvel-feedback.txt"));
        connect(dialog, &QFileDialog::fileSelected, this, &FeedbackWindow::saveTo);
        dialog->open();
        return;
    }
    m_send->setEnabled(false);
    m_status->setText(tr("Sending…"));
    QNetworkRequest request(m_endpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("text/plain; charset=utf-8"));
    request.setTransferTimeout(sendTimeoutMs);
    QNetworkReply *reply = m_network.post(request, feedbackText().toUtf8());
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        m_send->setEnabled(true);
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->error() == QNetworkReply::NoError && status / 100 == 2) // 2xx: taken
            m_status->setText(tr("Thank you, your feedback was sent."));
        else
            m_status->setText(tr("Sending failed: %1").arg(reply->errorString()));
    });
}

void FeedbackWindow::saveTo(const QString &path)
{
    QString error;
    if (writeFileAtomically(path, feedbackText().toUtf8(), &error))
        m_status->setText(tr("Saved to %1.").arg(path));
    else
        m_status->setText(tr("Saving failed: %1").arg(error));
}
