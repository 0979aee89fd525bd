// SPDX-License-Identifier: GPL-3.0-or-later
// The parts of this computer's own stream that need no sound server: who may fetch it and
// how, the endless WAV with its silence, the UPnP calls and their faults, and which speakers
// get an output. Servers listen on loopback only.
#include "SoundServer.h"
#include "SpeakerStreams.h"
#include "StreamServer.h"
#include "TestSupport.h"
#include "UpnpControl.h"

#include <QNetworkReply>
#include <QTcpServer>
#include <QTcpSocket>

namespace {
const QHostAddress loopback(QStringLiteral("127.0.0.1"));

// Sends request from the address from, then reads for ms; everything the server sent.
QByteArray fetch(const QUrl &url, const QByteArray &request, const QHostAddress &from, int ms)
{
    QTcpSocket socket;
    if (!socket.bind(from))
        return "cannot bind";
    socket.connectToHost(url.host(), quint16(url.port()));
    if (!socket.waitForConnected(2000))
        return "cannot connect";
    socket.write(request);
    QByteArray received;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms && socket.state() == QAbstractSocket::ConnectedState) {
        QTest::qWait(10);
        received += socket.readAll();
    }
    return received + socket.readAll();
}

DeviceSettings speaker(const QString &location, bool coordinator = true)
{
    DeviceSettings record;
    record.name = QStringLiteral("Kitchen");
    record.info.location = QUrl(location);
    record.info.udn = QStringLiteral("uuid:RINCON_000E58A0B1C201400");
    record.topology = DeviceTopology{coordinator, QStringLiteral("G")};
    record.active = true;
    return record;
}
} // namespace

class TestStream : public QObject
{
    Q_OBJECT

private slots:
    void onlyTheSpeakerFetches_data();
    void onlyTheSpeakerFetches();
    void pausesAreSilenceAndSoundFollows();
    void upnpCallsAndTheirFaults();
    void whichSpeakersGetAnOutput_data();
    void whichSpeakersGetAnOutput();
    void namesAndTextsAreSafe();
    void noSoundServerIsSaidOnce();
};

void TestStream::onlyTheSpeakerFetches_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<bool>("audio");
    for (const QStringList &column : tableRows(QStringLiteral("stream/fetches.txt"), 5))
        QTest::addRow("%s", qPrintable(column[0]))
            << unescaped(column[1]) << column[2] << column[3].toUtf8() << (column[4] == "yes");
    QTest::newRow("an endless header")
        << QByteArray(9000, 'a') << "127.0.0.1" << QByteArray("431 Request Header") << false;
}

void TestStream::onlyTheSpeakerFetches()
{
    QFETCH(QByteArray, request);
    QFETCH(QString, from);
    QFETCH(QByteArray, status);
    QFETCH(bool, audio);
    StreamServer server;
    QString error;
    const QUrl url = server.open(QStringLiteral("RINCON_1"), loopback, loopback, &error);
    QCOMPARE(url.path(), QStringLiteral("/stream/RINCON_1.wav"));
    LogCapture capture;
    const QByteArray answer = fetch(url, request, QHostAddress(from), 300);
    QVERIFY2(answer.startsWith("HTTP/1.0 " + status), answer.left(200).constData());
    const QByteArray body = answer.mid(answer.indexOf("\r\n\r\n") + 4);
    QCOMPARE(body.startsWith("RIFF"), audio);
    QCOMPARE(capture.count("Warning stream Refused 127.0.0.2"), from == "127.0.0.2" ? 1 : 0);
    if (audio) // PCM, 2 channels, 44100 Hz, 176400 B/s, frames of 4, 16 bits; "data", the most
        QCOMPARE(answer.contains("Content-Type: audio/wav") ? body.mid(20, 24).toHex() : "",
                 "0100020044ac000010b102000400100064617461dbffffff");
}

void TestStream::pausesAreSilenceAndSoundFollows()
{
    StreamServer server;
    QString error;
    const QUrl url = server.open(QStringLiteral("S"), loopback, loopback, &error);
    QTcpSocket socket;
    socket.connectToHost(url.host(), quint16(url.port()));
    QVERIFY(socket.waitForConnected(2000));
    socket.write("GET /stream/S.wav HTTP/1.0\r\n\r\n");
    CORVEL_WAIT(server.listeners(QStringLiteral("S")) == 1);
    QByteArray received;
    // Nothing played for 700 ms: the speaker still gets a steady stream, of silence.
    QTest::qWait(700);
    received += socket.readAll();
    const QByteArray silence = received.mid(received.indexOf("\r\n\r\n") + 4 + 44);
    QVERIFY2(silence.size() >= StreamServer::bytesPerSecond / 3 &&
                 silence.size() <= StreamServer::bytesPerSecond,
             QByteArray::number(silence.size()).constData());
    QVERIFY(silence.count('\0') == silence.size() && silence.size() % 4 == 0);
    // While sound plays, a late delivery is waited for, never cut into with silence.
    server.setSounding(QStringLiteral("S"), true);
    received += socket.readAll();
    const qsizetype before = received.size();
    QTest::qWait(500);
    QCOMPARE(received.size() + socket.readAll().size(), before);
    // Sound goes out at once and whole, to this listener only.
    const QByteArray sound = QByteArray(4000, '\x11');
    server.write(QStringLiteral("S"), sound);
    server.write(QStringLiteral("other"), QByteArray(4000, '\x22'));
    CORVEL_WAIT((received += socket.readAll()).contains(sound));
    QVERIFY(!received.contains('\x22'));
    // A speaker that hangs up is no longer a listener; the one that listens again is.
    socket.abort();
    CORVEL_WAIT(server.listeners(QStringLiteral("S")) == 0);
    socket.connectToHost(url.host(), quint16(url.port()));
    QVERIFY(socket.waitForConnected(2000));
    socket.write("GET /stream/S.wav HTTP/1.0\r\n\r\n");
    CORVEL_WAIT(server.listeners(QStringLiteral("S")) == 1);
    // The speaker no longer offered: its listener is cut, the port closed.
    server.close(QStringLiteral("S"));
    CORVEL_WAIT(socket.state() == QAbstractSocket::UnconnectedState);
    socket.connectToHost(url.host(), quint16(url.port()));
    QVERIFY(!socket.waitForConnected(2000));
}

void TestStream::upnpCallsAndTheirFaults()
{
    // A player that answers each call with the next canned reply.
    QTcpServer player;
    QVERIFY(player.listen(loopback));
    QList<QByteArray> replies;
    for (const QStringList &column : tableRows(QStringLiteral("stream/upnp-replies.txt"), 2))
        replies << unescaped(column[1]);
    QByteArray asked;
    connect(&player, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = player.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [&, socket] {
            asked += socket->readAll();
            if (!asked.endsWith("</s:Envelope>") || replies.isEmpty())
                return;
            socket->write(replies.takeFirst());
            socket->disconnectFromHost();
        });
    });
    UpnpControl upnp(nullptr, 1000); // short: the last player never answers
    const QUrl location(QStringLiteral("http://%1:%2/xml/device_description.xml")
                            .arg(loopback.toString())
                            .arg(player.serverPort()));
    const QUrl control = UpnpControl::controlUrl(location, UpnpControl::avTransport);
    QCOMPARE(control.path(), QStringLiteral("/MediaRenderer/AVTransport/Control"));
    std::vector<UpnpControl::Reply> got;
    const auto call = [&](const QString &uri, const QUrl &to) {
        upnp.call(to, UpnpControl::avTransport, QStringLiteral("SetAVTransportURI"),
                  {{QStringLiteral("InstanceID"), QStringLiteral("0")},
                   {QStringLiteral("CurrentURI"), uri}},
                  [&](const UpnpControl::Reply &reply) { got.push_back(reply); });
        CORVEL_WAIT(upnp.pending() == 0);
    };
    call(QStringLiteral("http://h/a?b=1&c=<2>"), control);
    QVERIFY(asked.contains("SOAPACTION: \"urn:schemas-upnp-org:service:AVTransport:1#"
                           "SetAVTransportURI\"") &&
            asked.contains("Content-Type: text/xml; charset=\"utf-8\"\r\n"));
    QVERIFY(asked.contains("<CurrentURI>http://h/a?b=1&amp;c=&lt;2&gt;</CurrentURI>"));
    call(QString(), control);
    call(QString(), control);
    QTcpServer silent; // takes the call, never answers it
    QVERIFY(silent.listen(loopback));
    call(QString(),
         QStringLiteral("http://%1:%2/").arg(loopback.toString()).arg(silent.serverPort()));
    CORVEL_WAIT(upnp.findChildren<QNetworkReply *>().isEmpty()); // none kept
    QVERIFY(got.size() == 4 && got[0].ok && !got[1].ok && got[1].fault == 714 && !got[2].ok &&
            got[2].fault == 0 && !got[3].ok && got[3].fault == 0);
    QVERIFY(got[1].detail.endsWith("<errorCode>714</errorCode></UPnPError></detail></s:Fault>"
                                   "</s:Body></s:Envelope>") && // the fault, else Qt's reason
            !got[2].detail.isEmpty() &&
            UpnpControl::faultCode("<a/>") == 0);
    for (const QStringList &column : tableRows(QStringLiteral("stream/upnp-sentences.txt"), 2))
        QVERIFY(UpnpControl::sentence({false, column[0].toInt(), {}}).contains(column[1]));
}

void TestStream::whichSpeakersGetAnOutput_data()
{
    QTest::addColumn<DeviceSettings>("record");
    QTest::addColumn<bool>("wanted");
    for (const QStringList &column : tableRows(QStringLiteral("stream/outputs.txt"), 4)) {
        DeviceSettings record = speaker(column[1], column[2] != "member");
        record.enabled = column[2] != "off";
        record.active = column[2] != "gone";
        if (column[2] == "no UDN")
            record.info.udn.reset();
        if (column[2] == "alone")
            record.topology.reset();
        QTest::addRow("%s", qPrintable(column[0])) << record << (column[3] == "yes");
    }
}

void TestStream::whichSpeakersGetAnOutput()
{
    QFETCH(DeviceSettings, record);
    QFETCH(bool, wanted);
    QCOMPARE(SpeakerStreams::wanted(record), wanted);
}

void TestStream::namesAndTextsAreSafe()
{
    // The UDN names the sink and the stream's path; the speaker's name and the stream's URL
    // go into the sound server's arguments and into XML.
    DeviceSettings record = speaker(QStringLiteral("http://192.168.1.20:1400/"));
    QCOMPARE(SpeakerStreams::outputId(record), QStringLiteral("RINCON_000E58A0B1C201400"));
    record.info.udn = QStringLiteral("uuid:a b/\"c");
    QCOMPARE(SpeakerStreams::outputId(record), QStringLiteral("a_b__c"));
    QVERIFY(SoundServer::sinkArguments(QStringLiteral("x"), QStringLiteral("Bob's \"Den\"\\"))
                .contains(QStringLiteral("device.description=\"Bob’s ”Den”/\"")));
    const QString didl = SpeakerStreams::metadata(QUrl(QStringLiteral("http://h:1/s.wav?a&b")),
                                                  QStringLiteral("Sound from <pc>"));
    QVERIFY(didl.contains(QStringLiteral(">http://h:1/s.wav?a&amp;b</res>")) &&
            didl.contains(QStringLiteral("Sound from &lt;pc&gt;")));
}

void TestStream::noSoundServerIsSaidOnce()
{
    // Without a sound server the user is told once, however often Corvel asks again.
    QTemporaryDir dir;
    qputenv("PULSE_SERVER", "unix:" + dir.filePath(QStringLiteral("none")).toUtf8());
    SpeakerStreams streams;
    QStringList problems;
    streams.onProblem = [&](const QString &sentence) {
        problems << sentence;
    };
    LogCapture capture;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        streams.setEnabled(true);
        CORVEL_WAIT(capture.count("Warning sound No sound server: ") == attempt);
        streams.setEnabled(false);
        QVERIFY(problems.size() == 1 && problems[0].startsWith("No sound server answered"));
    }
    streams.setEnabled(true);
    streams.shutdown(100); // Corvel quits: off, and it stays off
    streams.setEnabled(true);
    QVERIFY(!streams.enabled());
}

QTEST_MAIN(TestStream)
#include "TestStream.moc"
