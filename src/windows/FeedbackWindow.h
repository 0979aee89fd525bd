// SPDX-License-Identifier: GPL-3.0-or-later
// The feedback window: an optional name and email, the message, and the recent log.
#pragma once

#include <QDialog>
#include <QNetworkAccessManager>
#include <QUrl>

class QCheckBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

class FeedbackWindow : public QDialog
{
    Q_OBJECT

public:
    // A post not done within this has failed (the user can try again).
    static constexpr int sendTimeoutMs = 30000;

    // endpoint: where feedback is posted; when empty, Send offers to save it to a file.
    explicit FeedbackWindow(const QUrl &endpoint, QWidget *parent = nullptr);

    // The feedback as text: name, email, message and (when chosen) the last 100 log lines.
    QString feedbackText() const;
    // Sends or saves without blocking; the outcome appears in the window.
    void sendClicked();
    void saveTo(const QString &path);

    QLabel *statusLabel() const { return m_status; }

private:
    QUrl m_endpoint;
    QNetworkAccessManager m_network;
    QLineEdit *m_name;
    QLineEdit *m_email;
    QPlainTextEdit *m_message;
    QCheckBox *m_includeLog;
    QLabel *m_status;
    QPushButton *m_send;
};
