// SPDX-License-Identifier: GPL-3.0-or-later
// The idle-sleep backend against a private D-Bus daemon whose stand-in services record the
// calls, so the wire calls are checked too.
#include "LinuxIdleInhibitor.h"
#include "LogCapture.h"
#include "SystemSleep.h"

#include <poll.h>
#include <QDBusConnectionInterface>
#include <QDBusUnixFileDescriptor>
#include <QMutex>
#include <QProcess>
#include <QTest>
#include <QThread>
#include <unistd.h>

namespace {
QMutex g_mutex;
QStringList g_calls; // "Method arg arg ..."

void record(const QString &call)
{
    QMutexLocker locker(&g_mutex);
    g_calls << call;
}

QStringList calls()
{
    QMutexLocker locker(&g_mutex);
    return g_calls;
}
} // namespace

class GnomeSessionManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.gnome.SessionManager")
public slots:
    uint Inhibit(const QString &app, uint xid, const QString &reason, uint flags)
    {
        record(QStringLiteral("Inhibit %1 %2 %3 %4").arg(app).arg(xid).arg(reason).arg(flags));
        return 41;
    }
    void Uninhibit(uint cookie) { record(QStringLiteral("Uninhibit %1").arg(cookie)); }
};

class PowerManagementInhibit : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.PowerManagement.Inhibit")
public slots:
    uint Inhibit(const QString &app, const QString &reason)
    {
        record(QStringLiteral("PM.Inhibit %1 %2").arg(app, reason));
        return 42;
    }
    void UnInhibit(uint cookie) { record(QStringLiteral("PM.UnInhibit %1").arg(cookie)); }
};

class LogindManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")
public:
    int readEnd = -1;
public slots:
    QDBusUnixFileDescriptor Inhibit(const QString &what, const QString &who, const QString &why,
                                    const QString &mode)
    {
        record(QStringLiteral("login1.Inhibit %1 %2 %3 %4").arg(what, who, why, mode));
        int fds[2];
        if (pipe(fds) != 0)
            return {};
        readEnd = fds[0];
        QDBusUnixFileDescriptor handed(fds[1]); // duplicates it
        ::close(fds[1]);
        return handed;
    }
};

class TestIdleInhibitor : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void gnomeAndLogind();
    void powerManagementWhenNotGnome();
    void nothingToTalkTo();
    void systemSleepRecordsFailures();

private:
    void serve(QObject *object, const QString &service, const QString &path);
    void unserve(const QString &service);
    QProcess m_daemon;
    QString m_address;
    QThread m_serviceThread;
    std::vector<QObject *> m_objects;
};

void TestIdleInhibitor::initTestCase()
{
    m_daemon.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
    if (!m_daemon.waitForStarted(5000))
        QSKIP("dbus-daemon is not installed");
    QVERIFY(m_daemon.waitForReadyRead(5000));
    m_address = QString::fromUtf8(m_daemon.readLine().trimmed());
    QVERIFY(!m_address.isEmpty());
    m_serviceThread.start();
}

void TestIdleInhibitor::cleanupTestCase()
{
    // Deleted in their own thread before it stops: a queued deleteLater could be dropped when
    // the thread's loop quits first, and the objects would leak.
    for (QObject *object : m_objects)
        QMetaObject::invokeMethod(
            object, [object] { delete object; }, Qt::BlockingQueuedConnection);
    m_objects.clear();
    m_serviceThread.quit();
    m_serviceThread.wait();
    for (const char *name : {"service", "client"})
        QDBusConnection::disconnectFromBus(QLatin1String(name));
    m_daemon.terminate();
    m_daemon.waitForFinished();
}

void TestIdleInhibitor::init()
{
    QMutexLocker locker(&g_mutex);
    g_calls.clear();
}

// Registers the object in the service thread, so blocking calls from the test are answered.
void TestIdleInhibitor::serve(QObject *object, const QString &service, const QString &path)
{
    object->moveToThread(&m_serviceThread);
    m_objects.push_back(object);
    QDBusConnection bus = QDBusConnection::connectToBus(m_address, QStringLiteral("service"));
    QVERIFY(bus.registerObject(path, object, QDBusConnection::ExportAllSlots));
    QVERIFY(bus.registerService(service));
}

void TestIdleInhibitor::unserve(const QString &service)
{
    QDBusConnection::connectToBus(m_address, QStringLiteral("service")).unregisterService(service);
}

void TestIdleInhibitor::gnomeAndLogind()
{
    auto *logind = new LogindManager;
    serve(new GnomeSessionManager, "org.gnome.SessionManager", "/org/gnome/SessionManager");
    serve(logind, "org.freedesktop.login1", "/org/freedesktop/login1");
    const QDBusConnection client =
        QDBusConnection::connectToBus(m_address, QStringLiteral("client"));
    LinuxIdleInhibitor inhibitor(client, client);
    quint32 id = 0;
    QCOMPARE(inhibitor.create(QStringLiteral("Corvel"), &id), 0);
    QCOMPARE(calls(),
             QStringList({"Inhibit org.corvel.Corvel 0 Playing audio on Sonos speakers 4",
                          "login1.Inhibit idle Corvel Playing audio on Sonos speakers block"}));
    // The lock is held: its descriptor is still open on our side.
    pollfd held{logind->readEnd, POLLIN, 0};
    QCOMPARE(poll(&held, 1, 0), 0);
    QCOMPARE(inhibitor.release(id), 0);
    QCOMPARE(calls().last(), QStringLiteral("Uninhibit 41"));
    pollfd released{logind->readEnd, POLLIN, 0};
    QCOMPARE(poll(&released, 1, 1000), 1); // end of file: every copy was closed
    ::close(logind->readEnd);
    unserve("org.gnome.SessionManager");
    unserve("org.freedesktop.login1");
}

void TestIdleInhibitor::powerManagementWhenNotGnome()
{
    serve(new PowerManagementInhibit, "org.freedesktop.PowerManagement",
          "/org/freedesktop/PowerManagement/Inhibit");
    const QDBusConnection client =
        QDBusConnection::connectToBus(m_address, QStringLiteral("client"));
    LinuxIdleInhibitor inhibitor(client, QDBusConnection(QStringLiteral("none")));
    quint32 id = 0;
    QCOMPARE(inhibitor.create(QStringLiteral("Corvel"), &id), 0);
    inhibitor.release(id);
    QCOMPARE(calls(),
             QStringList({"PM.Inhibit Corvel Playing audio on Sonos speakers", "PM.UnInhibit 42"}));
    unserve("org.freedesktop.PowerManagement");
}

void TestIdleInhibitor::nothingToTalkTo()
{
    const QDBusConnection client =
        QDBusConnection::connectToBus(m_address, QStringLiteral("client"));
    LinuxIdleInhibitor inhibitor(client, client); // no logind on this bus
    quint32 id = 0;
    QVERIFY(inhibitor.create(QStringLiteral("Corvel"), &id) != 0);
    LinuxIdleInhibitor noBuses(QDBusConnection(QStringLiteral("none")),
                               QDBusConnection(QStringLiteral("none")));
    QCOMPARE(noBuses.create(QStringLiteral("Corvel"), &id), LinuxIdleInhibitor::noLockTaken);
}

void TestIdleInhibitor::systemSleepRecordsFailures()
{
    const QDBusConnection none(QStringLiteral("none"));
    SystemSleep::setBackend(std::make_unique<LinuxIdleInhibitor>(none, none));
    SystemSleep::assertionResult.reset();
    LogCapture capture;
    SystemSleep::disableIdleSleep();
    SystemSleep::disableIdleSleep(); // recorded: no second attempt
    QVERIFY(SystemSleep::assertionResult.has_value());
    SystemSleep::enableIdleSleep();
    SystemSleep::enableIdleSleep();
    QCOMPARE(capture.messages(LogLevel::Warning),
             QStringList({"Failed to disable system idle sleep"}));
    QCOMPARE(capture.messages(LogLevel::Info), QStringList({"Allowing user idle sleep again"}));
    QVERIFY(!SystemSleep::assertionResult);
}

QTEST_GUILESS_MAIN(TestIdleInhibitor)
#include "TestIdleInhibitor.moc"
