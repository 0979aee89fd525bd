// SPDX-License-Identifier: GPL-3.0-or-later
// In-memory stand-ins for the desktop services, one per interface, used by every suite.
#pragma once

#include "Platform.h"

#include <QCoreApplication>
#include <QStringList>

// Records calls; answers create() on the next turn of the loop with result.
struct FakeIdleInhibitor : IdleInhibitor
{
    int result = 0;
    QStringList calls;
    quint32 nextId = 7;
    void create(const QString &name, Done done) override
    {
        calls << QStringLiteral("create ") + name;
        const int r = result;
        const quint32 id = nextId++;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [done, r, id] { done(r, id); }, Qt::QueuedConnection);
    }
    void release(quint32 id) override { calls << QStringLiteral("release %1").arg(id); }
};

struct FakeAutostart : Autostart
{
    bool on = false;
    bool fails = false;
    bool enabled() const override { return on; }
    bool setEnabled(bool enabled, QString *error) override
    {
        if (fails)
            *error = QStringLiteral("read-only");
        else
            on = enabled;
        return !fails;
    }
};

struct FakeLauncherHelper : LauncherHelper
{
    bool running = false;
    int stopped = 0;
    void stopIfRunning(std::function<void()> stopping) override
    {
        if (running) {
            stopping();
            ++stopped;
            running = false;
        }
    }
};

struct FakeSoundOutputs : SoundOutputs
{
    Status current;
    QString failure; // non-empty: setEnabled fails with it
    void status(std::function<void(const Status &)> done) override { done(current); }
    void setEnabled(bool enable, Done done) override
    {
        if (failure.isEmpty())
            current.raopDiscoveryActive = enable;
        done(failure.isEmpty(), failure);
    }
};

// Resumes when the test says so.
struct FakeResumeWatcher : ResumeWatcher
{
    std::function<void()> resumed;
    void watch(std::function<void()> callback) override { resumed = std::move(callback); }
};

struct FakePlatform
{
    std::shared_ptr<FakeIdleInhibitor> idle = std::make_shared<FakeIdleInhibitor>();
    std::shared_ptr<FakeAutostart> autostart = std::make_shared<FakeAutostart>();
    std::shared_ptr<FakeLauncherHelper> helper = std::make_shared<FakeLauncherHelper>();
    std::shared_ptr<FakeSoundOutputs> sound = std::make_shared<FakeSoundOutputs>();
    std::shared_ptr<FakeResumeWatcher> resume = std::make_shared<FakeResumeWatcher>();
    Platform platform() const { return Platform{idle, autostart, helper, sound, resume}; }
};
