// SPDX-License-Identifier: GPL-3.0-or-later
#include "HttpGet.h"

#include "DescriptionParser.h"

#include <QNetworkProxy>

namespace {
constexpr qsizetype maxHeadBytes = 64 * 1024;
const QString malformed = QStringLiteral("The server's answer is not valid HTTP");
} // namespace

void HttpGet::start(const QUrl &url, int timeoutMs, qint64 maxBodyBytes, Completion completion,
                    QObject *parent)
{
    auto *get = new HttpGet(parent, maxBodyBytes, std::move(completion));
    if (url.scheme() != QLatin1String("http") || url.host().isEmpty()) {
        // Reported on the loop, like every other outcome.
        QTimer::singleShot(0, get, [get] { get->finish(QStringLiteral("Unsupported URL")); });
        return;
    }
    QByteArray path = url.path(QUrl::FullyEncoded).toLatin1();
    if (path.isEmpty())
        path = "/";
    if (url.hasQuery())
        path += '?' + url.query(QUrl::FullyEncoded).toLatin1();
    const int port = url.port(80);
    QByteArray host = url.host(QUrl::FullyEncoded).toLatin1();
    if (host.contains(':'))
        host = '[' + host + ']';
    if (port != 80)
        host += ':' + QByteArray::number(port);
    const QByteArray request = "GET " + path + " HTTP/1.1\r\nHost: " + host +
                               "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    connect(&get->m_socket, &QTcpSocket::connected, get,
            [get, request] { get->m_socket.write(request); });
    get->m_deadline.start(timeoutMs);
    connect(&get->m_deadline, &QTimer::timeout, get, [get, timeoutMs] { // once: finish() stops it
        get->finish(QStringLiteral("No complete response within %1 ms").arg(timeoutMs));
    });
    get->m_socket.connectToHost(url.host(), quint16(port));
}

HttpGet::HttpGet(QObject *parent, qint64 maxBodyBytes, Completion completion)
    : QObject(parent), m_maxBodyBytes(maxBodyBytes), m_completion(std::move(completion))
{
    // Proxies are for the internet, not the living room: speakers are asked directly.
    m_socket.setProxy(QNetworkProxy::NoProxy);
    connect(&m_socket, &QTcpSocket::readyRead, this, &HttpGet::handleReadyRead);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError e) {
        if (e == QAbstractSocket::RemoteHostClosedError) {
            // The server closing after its answer is how an answer without a length ends.
            m_buffer += m_socket.readAll();
            if (!parse(true))
                finish(QStringLiteral("The connection closed before a complete response"));
            return;
        }
        finish(m_socket.errorString());
    });
}

void HttpGet::handleReadyRead()
{
    // Once the head is read, a body of known framing goes straight where it belongs: the
    // topology documents of a large household are big and arrive once per player.
    if (m_headDone && !m_chunked) {
        m_body += m_socket.readAll();
    } else {
        m_buffer += m_socket.readAll();
    }
    parse(false);
}

bool HttpGet::parse(bool closed)
{
    if (m_finished)
        return true;
    if (!m_headDone && !parseHead())
        return false; // the head is not all here, or was refused (and the GET finished)
    if (m_chunked)
        return parseChunks();
    if (!m_buffer.isEmpty()) {
        m_body += m_buffer;
        m_buffer.clear();
    }
    if (m_body.size() > m_maxBodyBytes) {
        finish(tooLarge);
        return true;
    }
    if (m_contentLength >= 0 && m_body.size() >= m_contentLength) {
        m_body.truncate(m_contentLength);
        finish(QString());
        return true;
    }
    if (closed && m_contentLength < 0) {
        finish(QString());
        return true;
    }
    return false;
}

bool HttpGet::parseHead()
{
    const qsizetype end = m_buffer.indexOf("\r\n\r\n");
    if (end < 0) {
        if (m_buffer.size() > maxHeadBytes)
            finish(malformed);
        return false;
    }
    const QList<QByteArray> lines = m_buffer.left(end).split('\n');
    m_buffer.remove(0, end + 4);
    // "HTTP/1.1 200 OK"
    const QList<QByteArray> statusLine = lines.value(0).trimmed().split(' ');
    bool statusOk; // set by the conversion
    m_status = statusLine.value(1).toInt(&statusOk);
    if (!statusLine.value(0).startsWith("HTTP/1.") || !statusOk || m_status < 100) {
        finish(malformed);
        return false;
    }
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = lines[i].left(colon).trimmed().toLower();
        const QByteArray value = lines[i].mid(colon + 1).trimmed();
        if (name == "content-length") {
            const auto length = DescriptionParser::parseInteger(QString::fromLatin1(value));
            if (!length || *length < 0) {
                finish(malformed);
                return false;
            }
            m_contentLength = *length;
        } else if (name == "transfer-encoding" && value.toLower().contains("chunked")) {
            m_chunked = true;
        }
    }
    if (m_contentLength > m_maxBodyBytes && !m_chunked) {
        finish(tooLarge);
        return false;
    }
    // Answers that carry no body by definition.
    if (m_status == 204 || m_status == 304 || m_status < 200)
        m_contentLength = 0;
    m_headDone = true;
    return true;
}

bool HttpGet::parseChunks()
{
    for (;;) {
        if (m_chunkLeft < 0) {
            const qsizetype lineEnd = m_buffer.indexOf("\r\n");
            if (lineEnd < 0)
                break;
            // The size, in hex, may be followed by extensions after ';'.
            QByteArray size = m_buffer.left(lineEnd);
            size.truncate(size.indexOf(';') < 0 ? size.size() : size.indexOf(';'));
            bool ok; // set by the conversion
            const qlonglong length = size.trimmed().toLongLong(&ok, 16);
            if (!ok || length < 0) {
                finish(malformed);
                return true;
            }
            if (length == 0) { // the last chunk; trailers are not needed
                finish(QString());
                return true;
            }
            if (m_body.size() + length > m_maxBodyBytes) {
                finish(tooLarge);
                return true;
            }
            m_buffer.remove(0, lineEnd + 2);
            m_chunkLeft = qsizetype(length);
        }
        if (m_buffer.size() < m_chunkLeft + 2)
            break;
        m_body += m_buffer.left(m_chunkLeft);
        m_buffer.remove(0, m_chunkLeft + 2);
        m_chunkLeft = -1;
    }
    if (m_buffer.size() > maxHeadBytes + m_maxBodyBytes) {
        finish(tooLarge);
        return true;
    }
    return false;
}

void HttpGet::finish(const QString &error)
{
    if (m_finished)
        return;
    m_finished = true;
    m_deadline.stop();
    disconnect(&m_socket, nullptr, this, nullptr);
    m_socket.abort();
    Result result;
    result.error = error;
    if (error.isEmpty()) {
        result.status = m_status;
        result.body = std::move(m_body);
    }
    const Completion completion = std::move(m_completion);
    deleteLater();
    completion(result);
}
