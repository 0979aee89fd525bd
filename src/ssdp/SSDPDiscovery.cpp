// SPDX-License-Identifier: GPL-3.0-or-later
#include "SSDPDiscovery.h"

#include "Logging.h"

#include <cmath>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QNetworkProxy>
#include <QUdpSocket>
#include <QVariant>

namespace {
const QString category = QStringLiteral("SSDP");
constexpr int receiveBufferBytes = 1024 * 1024;
} // namespace

bool SSDPDiscovery::searchesOn(QNetworkInterface::InterfaceFlags flags)
{
    // Up but not running (no carrier): nothing could answer there.
    return flags.testFlag(QNetworkInterface::IsUp) &&
           flags.testFlag(QNetworkInterface::IsRunning) &&
           flags.testFlag(QNetworkInterface::CanMulticast);
}

SSDPDiscovery &SSDPDiscovery::defaultDiscovery()
{
    static SSDPDiscovery discovery;
    return discovery;
}

std::shared_ptr<SSDPDiscoverySession>
SSDPDiscovery::startDiscovery(const SSDPMSearchRequest &request, double timeoutSeconds,
                              QString *error)
{
    const int timeoutMs = static_cast<int>(std::lround(std::max(timeoutSeconds, 0.0) * 1000));
    // The last owner may let go inside one of the session's own callbacks, so the session
    // is closed at once and deleted later, from the event loop.
    std::shared_ptr<SSDPDiscoverySession> session(
        new SSDPDiscoverySession(request, timeoutMs, ++m_sessions), [](SSDPDiscoverySession *s) {
            s->close();
            s->deleteLater();
        });

    QStringList failures;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        if (!searchesOn(interface.flags()))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            const QHostAddress address = entry.ip();
            if (address.protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            auto *socket = new QUdpSocket(session.get());
            socket->setProxy(QNetworkProxy::NoProxy); // a proxy the desktop sets takes no UDP
            if (!socket->bind(address, 0)) {
                failures << QStringLiteral("%1 (%2): %3")
                                .arg(interface.name(), address.toString(), socket->errorString());
                delete socket;
                continue;
            }
            socket->setMulticastInterface(interface);
            socket->setSocketOption(QAbstractSocket::MulticastTtlOption, QVariant(2));
            // A large household answers in a burst; room for it keeps answers from being dropped
            // (the kernel caps this at net.core.rmem_max).
            socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption,
                                    QVariant(receiveBufferBytes));
            QObject::connect(socket, &QUdpSocket::readyRead, session.get(),
                             [s = session.get(), socket] { s->handleReadyRead(socket); });
            session->m_sockets.push_back(socket);
            session->m_addresses.push_back(address);
        }
    }
    if (session->m_sockets.empty()) {
        if (error) {
            *error = failures.isEmpty()
                         ? QStringLiteral("no network interface is up and able to multicast")
                         : QStringLiteral("no socket could be opened: ") +
                               failures.join(QStringLiteral("; "));
        }
        return nullptr;
    }
    for (const QString &failure : failures)
        logWarning(category, QStringLiteral("Not searching on ") + failure);

    session->sendSearch();
    session->m_repeat.start();
    session->m_timeout.start();
    return session;
}

SSDPDiscoverySession::SSDPDiscoverySession(const SSDPMSearchRequest &request, int timeoutMs,
                                           quint64 number)
    : m_request(request), m_number(number)
{
    m_repeat.setSingleShot(true);
    m_repeat.setInterval(repeatDelayMs);
    connect(&m_repeat, &QTimer::timeout, this, &SSDPDiscoverySession::sendSearch);
    m_timeout.setInterval(timeoutMs); // fires once: the session closes, which stops it
    connect(&m_timeout, &QTimer::timeout, this, &SSDPDiscoverySession::handleTimeout);
}

SSDPDiscoverySession::~SSDPDiscoverySession() = default;

void SSDPDiscoverySession::sendSearch()
{
    const QByteArray datagram = m_request.datagram();
    for (QUdpSocket *socket : m_sockets) {
        if (socket->writeDatagram(datagram, SSDPDiscovery::multicastGroup, SSDPDiscovery::port) <
            0) {
            logWarning(category,
                       QStringLiteral("M-SEARCH from %1 failed: %2")
                           .arg(socket->localAddress().toString(), socket->errorString()));
        }
    }
}

void SSDPDiscoverySession::handleReadyRead(QUdpSocket *socket)
{
    while (socket->hasPendingDatagrams()) { // none once a delegate has closed the session
        const QNetworkDatagram datagram = socket->receiveDatagram(SSDPMSearchResponse::readBound);
        QString reason;
        auto response = SSDPMSearchResponse::parse(datagram.data(), &reason);
        if (!response) {
            logDebug(category, QStringLiteral("Ignored a datagram from %1: %2")
                                   .arg(datagram.senderAddress().toString(), reason));
            continue;
        }
        if (!m_request.delegate)
            continue;
        response->sender = datagram.senderAddress();
        if (response->kind == SSDPMSearchResponse::Kind::Device)
            m_request.delegate->discoveredDevice(*response, this);
        else
            m_request.delegate->discoveredService(*response, this);
    }
}

void SSDPDiscoverySession::handleTimeout()
{
    close();
    if (m_request.delegate)
        m_request.delegate->closedSession(this);
}

void SSDPDiscoverySession::close()
{
    // Closing twice is harmless; a closed session's timers never fire.
    m_repeat.stop();
    m_timeout.stop();
    for (QUdpSocket *socket : m_sockets)
        socket->close();
}

QString SSDPDiscoverySession::description() const
{
    QStringList addresses;
    for (const QHostAddress &address : localAddresses())
        addresses << address.toString();
    return QStringLiteral("SSDPDiscoverySession(#%1, %2, from %3)")
        .arg(m_number)
        .arg(m_request.searchTarget.text, addresses.join(QStringLiteral(", ")));
}
