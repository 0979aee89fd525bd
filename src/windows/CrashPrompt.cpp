// SPDX-License-Identifier: GPL-3.0-or-later
#include "CrashPrompt.h"

#include "CrashReporter.h"
#include "LogExport.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QFileDialog>
#include <QKeyEvent>
#include <QMessageBox>
#include <QPushButton>

namespace {
// Closing the prompt, or Escape, is no answer (the reports wait for the next start), where a
// plain message box would take its "Don't" button.
class CrashPromptBox : public QMessageBox
{
    Q_DECLARE_TR_FUNCTIONS(CrashPrompt)

public:
    CrashPromptBox(bool canSend, const CrashReporter::Reports &reports,
                   std::function<void(CrashReporter::Answer)> done);

protected:
    void closeEvent(QCloseEvent *event) override { QDialog::closeEvent(event); }
    void keyPressEvent(QKeyEvent *event) override
    {
        if (event->key() == Qt::Key_Escape) {
            reject();
            return;
        }
        QMessageBox::keyPressEvent(event);
    }
};

CrashPromptBox::CrashPromptBox(bool canSend, const CrashReporter::Reports &reports,
                               std::function<void(CrashReporter::Answer)> done)
{
    setIcon(QMessageBox::Warning);
    setWindowTitle(tr("Corvel quit unexpectedly"));
    setText(reports.size() == 1 ? tr("Corvel quit unexpectedly the last time it ran.")
                                : tr("Corvel quit unexpectedly %n times since it last asked.",
                                     nullptr, int(reports.size())));
    setInformativeText(canSend ? tr("Would you like to send a report? It holds where Corvel "
                                    "crashed and its recent log, which names your speakers "
                                    "and their addresses on your network.")
                               : tr("You can save a report to attach to a bug report. It holds "
                                    "where Corvel crashed and its recent log, which names your "
                                    "speakers and their addresses on your network."));
    QString details;
    for (const CrashReporter::Report &report : reports)
        details += CrashReporter::readableRecord(report.record) + QStringLiteral("\n") +
                   report.attachment + QStringLiteral("\n\n");
    setDetailedText(details);
    QPushButton *send = addButton(canSend ? tr("Send") : tr("Save Report…"), AcceptRole);
    QPushButton *always = canSend ? addButton(tr("Always Send"), YesRole) : nullptr;
    QPushButton *decline =
        addButton(canSend ? tr("Don't Send") : tr("Don't Save"), DestructiveRole);
    setDefaultButton(send);
    setAttribute(Qt::WA_DeleteOnClose);
    connect(this, &QMessageBox::finished, this, [this, send, always, decline, done](int) {
        QAbstractButton *clicked = clickedButton();
        done(clicked == send                ? CrashReporter::Answer::Send
             : clicked && clicked == always ? CrashReporter::Answer::AlwaysSend
             : clicked == decline           ? CrashReporter::Answer::DontSend
                                            : CrashReporter::Answer::Later);
    });
}
} // namespace

void installCrashPrompts(CrashReporter &reporter)
{
    reporter.setPrompt([&reporter](const CrashReporter::Reports &reports,
                                   std::function<void(CrashReporter::Answer)> done) {
        (new CrashPromptBox(reporter.canSend(), reports, std::move(done)))->open();
    });
    reporter.setSavePrompt([](const CrashReporter::Reports &, std::function<void(QString)> done) {
        auto *dialog = new QFileDialog(
            nullptr, QCoreApplication::translate("CrashPrompt", "Save Crash Report"));
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->setAcceptMode(QFileDialog::AcceptSave);
        dialog->setDirectory(LogExport::saveFolder());
        dialog->selectFile(QStringLiteral("corvel-crash-report.txt"));
        QObject::connect(dialog, &QFileDialog::fileSelected, dialog,
                         [done](const QString &path) { done(path); });
        QObject::connect(dialog, &QFileDialog::rejected, dialog, [done] { done(QString()); });
        dialog->open();
    });
}
