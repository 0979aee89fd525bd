// SPDX-License-Identifier: GPL-3.0-or-later
// Timed SSDP searches on every multicast-capable IPv4 interface.
#pragma once

#include "SSDPMessages.h"

#include <memory>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QObject>
#include <QTimer>
#include <vector>

class QUdpSocket;
class SSDPDiscoverySession;

// Receives what a running search finds. Called on the main thread.
class SSDPDiscoveryDelegate
{
public:
    virtual ~SSDPDiscoveryDelegate() = default;
    virtual void discoveredDevice(const SSDPMSearchResponse &response,
                                  SSDPDiscoverySession *session) = 0;
    virtual void discoveredService(const SSDPMSearchResponse &response,
                                   SSDPDiscoverySession *session) = 0;
    // The session ended by itself (its time-out passed); called once.
    virtual void closedSession(SSDPDiscoverySession *session) = 0;
};

// One running search: its sockets, its repeat and its time-out.
class SSDPDiscoverySession : public QObject
{
    Q_OBJECT

public:
    // How long after the first M-SEARCH it is sent once more (UDP loses datagrams).
    static constexpr int repeatDelayMs = 1000;

    ~SSDPDiscoverySession() override;

    // Ends the search early; no closedSession follows.
    void close();
    // The local addresses the search was sent from.
    QList<QHostAddress> localAddresses() const { return m_addresses; }
    QString description() const;

private:
    friend class SSDPDiscovery;
    SSDPDiscoverySession(const SSDPMSearchRequest &request, int timeoutMs, quint64 number);
    void sendSearch();
    void handleReadyRead(QUdpSocket *socket);
    void handleTimeout();

    SSDPMSearchRequest m_request;
    std::vector<QUdpSocket *> m_sockets;
    QList<QHostAddress> m_addresses; // kept for descriptions after the sockets close
    QTimer m_repeat;
    QTimer m_timeout;
    quint64 m_number;
};

class SSDPDiscovery
{
public:
    static constexpr quint16 port = 1900;
    // Whether an interface with these flags gets a search socket: up, running and multicast.
    static bool searchesOn(QNetworkInterface::InterfaceFlags flags);
    static inline const QHostAddress multicastGroup{QStringLiteral("239.255.255.250")};

    // The shared discovery object.
    static SSDPDiscovery &defaultDiscovery();

    // Sends the request from one socket per up, multicast-capable IPv4 interface and
    // delivers responses until timeoutSeconds have passed. Returns nothing, with *error
    // saying why, when no interface could take a socket.
    std::shared_ptr<SSDPDiscoverySession> startDiscovery(const SSDPMSearchRequest &request,
                                                         double timeoutSeconds, QString *error);

private:
    quint64 m_sessions = 0;
};
