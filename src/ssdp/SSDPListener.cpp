// SPDX-License-Identifier: GPL-3.0-or-later
#include "SSDPListener.h"

#include "Logging.h"
#include "SSDPDiscovery.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QNetworkProxy>
#include <QUdpSocket>
#include <sys/socket.h>
#include <unistd.h>

namespace {
const QString category = QStringLiteral("SSDP");
} // namespace

SSDPListener::SSDPListener(QObject *parent) : QObject(parent)
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(settleMs);
    connect(&m_settle, &QTimer::timeout, this, &SSDPListener::checkInterfaces);
}

SSDPListener::~SSDPListener()
{
    stop();
}

QString SSDPListener::interfaceSignature()
{
    QStringList parts;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if (!SSDPDiscovery::searchesOn(interface.flags()))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
                parts << interface.name() + QLatin1Char('=') + entry.ip().toString();
        }
    }
    parts.sort();
    return parts.join(QLatin1Char(' '));
}

bool SSDPListener::start(QString *error)
{
    if (!m_netlinkNotifier) {
        // The kernel tells about links and IPv4 addresses coming and going; no polling.
        m_netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
        if (m_netlink >= 0 &&
            ::bind(m_netlink, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0) {
            m_netlinkNotifier = new QSocketNotifier(m_netlink, QSocketNotifier::Read, this);
            connect(m_netlinkNotifier, &QSocketNotifier::activated, this,
                    &SSDPListener::readKernelMessages);
        } else {
            logWarning(category, QStringLiteral("Cannot watch network changes: ") +
                                     QString::fromLocal8Bit(strerror(errno)));
            ::close(m_netlink); // -1 when the socket itself failed: harmless
            m_netlink = -1;
        }
    }
    m_signature = interfaceSignature();

    delete m_socket;
    m_socket = new QUdpSocket(this);
    m_socket->setProxy(QNetworkProxy::NoProxy); // multicast on the local network, never proxied
    QStringList joined;
    if (m_socket->bind(QHostAddress::AnyIPv4, SSDPDiscovery::port,
                       QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint)) {
        for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
            if (SSDPDiscovery::searchesOn(interface.flags()) &&
                m_socket->joinMulticastGroup(SSDPDiscovery::multicastGroup, interface))
                joined << interface.name();
        }
    }
    if (joined.isEmpty()) {
        if (error)
            *error = m_socket->state() == QAbstractSocket::BoundState
                         ? QStringLiteral("no interface could join the SSDP group")
                         : QStringLiteral("cannot bind port 1900: ") + m_socket->errorString();
        delete m_socket;
        m_socket = nullptr;
        return false;
    }
    connect(m_socket, &QUdpSocket::readyRead, this, &SSDPListener::readAnnouncements);
    logInfo(category,
            QStringLiteral("Listening for announcements on ") + joined.join(QStringLiteral(", ")));
    return true;
}

void SSDPListener::stop()
{
    m_settle.stop(); // no comparison after a stop: the kernel's socket goes too
    delete m_socket;
    m_socket = nullptr;
    delete m_netlinkNotifier;
    m_netlinkNotifier = nullptr;
    ::close(m_netlink); // -1 when there is none: harmless
    m_netlink = -1;
}

void SSDPListener::readAnnouncements()
{
    while (m_socket && m_socket->hasPendingDatagrams()) {
        const QNetworkDatagram datagram = m_socket->receiveDatagram(SSDPMSearchResponse::readBound);
        // Searches (ours and others') arrive here too; only announcements matter.
        if (!datagram.data().startsWith("NOTIFY"))
            continue;
        QString reason;
        auto announcement = SSDPMSearchResponse::parseAnnouncement(datagram.data(), &reason);
        if (!announcement) {
            logDebug(category, QStringLiteral("Ignored an announcement from %1: %2")
                                   .arg(datagram.senderAddress().toString(), reason));
            continue;
        }
        announcement->sender = datagram.senderAddress();
        emit announced(*announcement);
    }
}

void SSDPListener::readKernelMessages()
{
    char buffer[8192];
    while (::recv(m_netlink, buffer, sizeof buffer, 0) > 0) {
    }
    m_settle.start(); // the burst is read; the interfaces are compared once it settles
}

void SSDPListener::checkInterfaces()
{
    const QString signature = interfaceSignature();
    if (signature == m_signature)
        return;
    logInfo(category, QStringLiteral("Network changed: ") +
                          (signature.isEmpty() ? QStringLiteral("no interface") : signature));
    QString error;
    if (!start(&error))
        logWarning(category, QStringLiteral("Not listening for announcements: ") + error);
    emit networkChanged();
}
