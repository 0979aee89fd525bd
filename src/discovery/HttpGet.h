// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

#include <functional>

// One HTTP/1.1 GET on the calling thread's event loop, for the small documents players serve.
// Any status counts as an answer (its body is used); a failure is a transport failure, a body
// past the cap, a malformed answer, or no complete answer before the deadline (silent or
// trickling servers alike). No proxy, no redirects, no keep-alive: one connection per GET.
class HttpGet : public QObject
{
    Q_OBJECT

public:
    struct Result
    {
        QString error; // empty on an answer
        int status = 0;
        QByteArray body;
    };
    using Completion = std::function<void(const Result &)>;

    // Starts the GET; completion runs once, on the loop, and the object deletes itself after.
    static void start(const QUrl &url, int timeoutMs, qint64 maxBodyBytes, Completion completion,
                      QObject *parent);

    static inline const QString tooLarge = QStringLiteral("The response is larger than 1 MiB");

private:
    HttpGet(QObject *parent, qint64 maxBodyBytes, Completion completion);
    void handleReadyRead();
    // Parses what has arrived; true when the answer is complete (or has failed).
    bool parse(bool closed);
    bool parseHead();
    bool parseChunks();
    void finish(const QString &error);

    QTcpSocket m_socket;
    QTimer m_deadline;
    QByteArray m_buffer; // bytes not parsed yet
    QByteArray m_body;
    qint64 m_maxBodyBytes;
    qint64 m_contentLength = -1; // -1: until the connection closes
    qsizetype m_chunkLeft = -1;  // chunked: bytes left in the current chunk, -1 between chunks
    int m_status = 0;
    bool m_headDone = false;
    bool m_chunked = false;
    bool m_finished = false;
    Completion m_completion;
};
