// SPDX-License-Identifier: GPL-3.0-or-later
// Hears what devices announce without being asked (NOTIFY alive, update, byebye) on every
// interface a search uses, and tells when the machine's interfaces or addresses change.
#pragma once

#include "SSDPMessages.h"

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

class QUdpSocket;

class SSDPListener : public QObject
{
    Q_OBJECT

public:
    // How long the interfaces must be quiet before a change is reported: bringing up a link
    // comes as a burst of kernel messages.
    static constexpr int settleMs = 1000;

    explicit SSDPListener(QObject *parent = nullptr);
    ~SSDPListener() override;

    // Binds the SSDP port (shared with other listeners) and joins the group on every
    // interface a search uses; again after a network change. False, with *error, when no
    // interface could join (listening resumes on the next change that brings one).
    bool start(QString *error);
    void stop();
    bool isListening() const { return m_socket != nullptr; }

    // The up, running, multicast interfaces with their IPv4 addresses, as one text: what a
    // change must alter to be reported.
    static QString interfaceSignature();

signals:
    void announced(const SSDPMSearchResponse &announcement);
    // An interface or address appeared or went; listening has already moved to the new set.
    void networkChanged();

private:
    void readAnnouncements();
    void readKernelMessages();
    void checkInterfaces();

    QUdpSocket *m_socket = nullptr;
    int m_netlink = -1;
    QSocketNotifier *m_netlinkNotifier = nullptr;
    QTimer m_settle;
    QString m_signature;
};
