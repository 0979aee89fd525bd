// SPDX-License-Identifier: GPL-3.0-or-later
#include "UpnpControl.h"

#include <pugixml.hpp>
#include <QCoreApplication>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QPointer>

UpnpControl::UpnpControl(QObject *parent, int timeout) : QObject(parent), m_timeoutMs(timeout)
{
    m_network.setProxy(QNetworkProxy::NoProxy);
    m_network.setAutoDeleteReplies(true);
}

QUrl UpnpControl::controlUrl(const QUrl &location, const QString &service)
{
    QUrl url = location.adjusted(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment);
    url.setPath(service == renderingControl
                    ? QStringLiteral("/MediaRenderer/RenderingControl/Control")
                    : QStringLiteral("/MediaRenderer/AVTransport/Control"));
    return url;
}

QByteArray UpnpControl::envelope(const QString &service, const QString &action,
                                 const Arguments &arguments)
{
    QByteArray body;
    for (const auto &[name, value] : arguments)
        body +=
            '<' + name.toUtf8() + '>' + value.toHtmlEscaped().toUtf8() + "</" + name.toUtf8() + '>';
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
           "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
           action.toUtf8() + " xmlns:u=\"" + service.toUtf8() + "\">" + body +
           "</u:" + action.toUtf8() + "></s:Body></s:Envelope>";
}

int UpnpControl::faultCode(const QByteArray &body)
{
    pugi::xml_document document;
    if (!document.load_buffer(body.constData(), size_t(body.size())))
        return 0;
    // The fault's detail names its error code whatever the namespace prefixes are.
    const pugi::xpath_node code =
        document.select_node("//*[local-name()='UPnPError']/*[local-name()='errorCode']");
    return code ? QString::fromUtf8(code.node().child_value()).trimmed().toInt() : 0;
}

QString UpnpControl::sentence(const Reply &reply)
{
    switch (reply.fault) {
    case 0:
        return QCoreApplication::translate(
            "UpnpControl", "The speaker did not answer Corvel: it may be off or out of reach.");
    case 701:
        return QCoreApplication::translate(
            "UpnpControl", "The speaker was busy changing what it plays; Corvel tries again "
                           "when sound plays next.");
    case 714:
        return QCoreApplication::translate(
            "UpnpControl", "The speaker refused the audio format of this computer's sound.");
    case 716:
        return QCoreApplication::translate(
            "UpnpControl", "The speaker could not fetch this computer's sound: a firewall on "
                           "this computer may block it.");
    default:
        return QCoreApplication::translate("UpnpControl",
                                           "The speaker refused to play this computer's sound "
                                           "(UPnP error %1).")
            .arg(reply.fault);
    }
}

void UpnpControl::call(const QUrl &control, const QString &service, const QString &action,
                       const Arguments &arguments, Done done)
{
    QNetworkRequest request(control);
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QByteArrayLiteral("text/xml; charset=\"utf-8\""));
    request.setRawHeader("SOAPACTION", '"' + service.toUtf8() + '#' + action.toUtf8() + '"');
    request.setTransferTimeout(m_timeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    QNetworkReply *reply = m_network.post(request, envelope(service, action, arguments));
    ++m_pending;
    connect(reply, &QNetworkReply::finished, this, [this, reply, done = std::move(done)] {
        --m_pending;
        const QByteArray body = reply->read(maxFaultBytes);
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        Reply result;
        result.ok = reply->error() == QNetworkReply::NoError && status == 200;
        if (!result.ok) {
            result.fault = faultCode(body);
            result.detail = result.fault ? QString::fromUtf8(body).simplified().left(300)
                                         : reply->errorString();
        }
        if (done)
            done(result);
    });
}
