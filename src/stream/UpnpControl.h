// SPDX-License-Identifier: GPL-3.0-or-later
// Sends UPnP actions (SOAP over HTTP POST) to a speaker's services, as a control point does.
#pragma once

#include <functional>
#include <QNetworkAccessManager>
#include <QString>
#include <QUrl>
#include <utility>
#include <vector>

class UpnpControl : public QObject
{
public:
    // Players answer in milliseconds; a speaker that takes longer is treated as gone.
    static constexpr int timeoutMs = 5000;
    static inline const QString avTransport =
        QStringLiteral("urn:schemas-upnp-org:service:AVTransport:1");
    static inline const QString renderingControl =
        QStringLiteral("urn:schemas-upnp-org:service:RenderingControl:1");

    struct Reply
    {
        bool ok = false;
        int fault = 0;  // the UPnP error code of a SOAP fault; 0 for anything else
        QString detail; // for the log: the fault's description or the network error
    };
    using Arguments = std::vector<std::pair<QString, QString>>;
    using Done = std::function<void(const Reply &)>;

    // timeout: how long a call may take (a test gives up sooner).
    explicit UpnpControl(QObject *parent = nullptr, int timeout = timeoutMs);

    // The control URL of a service of the player whose description is at location.
    static QUrl controlUrl(const QUrl &location, const QString &service);
    static QByteArray envelope(const QString &service, const QString &action,
                               const Arguments &arguments);
    // The errorCode of a SOAP fault's UPnPError; 0 when the body holds none.
    static int faultCode(const QByteArray &body);
    // A fault's body is small; of a larger one, this much is read.
    static constexpr qint64 maxFaultBytes = 64 * 1024;
    // One sentence for the user about a failed action.
    static QString sentence(const Reply &reply);

    void call(const QUrl &control, const QString &service, const QString &action,
              const Arguments &arguments, Done done);
    int pending() const { return m_pending; }

private:
    int m_timeoutMs;
    QNetworkAccessManager m_network{this}; // its replies are children of this
    int m_pending = 0;
};
