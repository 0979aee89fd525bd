// SPDX-License-Identifier: GPL-3.0-or-later
// corvel --headless as a server runs it (or with other arguments, as a desktop starts it at
// login), with folders of its own under home and the stand-in bridge copied there under
// bridgeName (a name of the caller's own, so runs side by side never sweep each other's
// bridges away as stale). For the end-to-end suite and the benchmarks; start it only inside
// a private network namespace: it searches.
#pragma once

#include <QProcess>

class HeadlessCorvel
{
public:
    // environment: "NAME=value" entries on top of the ones set here (a session bus, say;
    // by default Corvel has none); arguments: how it is started (a desktop start, say).
    HeadlessCorvel(const QString &corvel, const QString &fakeBridge, const QString &home,
                   const QString &bridgeName, const QStringList &environment = {},
                   const QStringList &arguments = {QStringLiteral("--headless")});
    ~HeadlessCorvel();

    // Serves the event loop (servers in this process keep answering) until the output holds
    // text, Corvel ends, or timeoutMs pass; whether the output holds it.
    bool waitFor(const QByteArray &text, int timeoutMs = 40000);
    // A file the stand-in bridge wrote: "args.txt", "config.xml" or "pid".
    QByteArray bridgeRecord(const QString &name) const;
    qint64 pid() const { return m_process.processId(); }
    // Sends signal and waits for the exit; true when Corvel exited normally with 0.
    bool end(int signal);

    // Runs corvel with arguments (a speaker command, a second start) in Corvel's environment;
    // its exit code, with what it wrote in *output.
    int run(const QStringList &arguments, QByteArray *output);

    QByteArray output; // everything Corvel wrote, standard output and error merged

private:
    QString m_record;
    QProcess m_process;
};
