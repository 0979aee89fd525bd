// SPDX-License-Identifier: GPL-3.0-or-later
// The bridge setup: what the AirConnect bridge is, which file to download for this machine,
// and a button that installs the downloaded file for this user.
#pragma once

#include <QWidget>

class QLabel;
class QPlainTextEdit;

class BridgeSetupWindow : public QWidget
{
    Q_OBJECT

public:
    // arch: AirConnect's name for this machine; lookedIn: the places searched, for the details.
    BridgeSetupWindow(const QString &arch, const QStringList &lookedIn, QWidget *parent = nullptr);

    // Checks and installs the file into installDir (~/.local/lib/corvel unless a test sets
    // another); emits installed() or shows why not.
    void installFrom(const QString &path);
    void setInstallDirectory(const QString &dir) { m_installDir = dir; }
    void setLookedIn(const QStringList &lookedIn);

signals:
    void installed(const QString &path);

private:
    void chooseFile();

    QString m_arch;
    QString m_installDir;
    QLabel *m_status;
    QPlainTextEdit *m_details;
};
