// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogCapture.h"
#include "Settings.h"
#include "SoundOutputs.h"
#include "ViewController.h"

#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QTemporaryDir>
#include <QTest>

namespace {
QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

class TestSoundOutputs : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void detectsTheServer_data();
    void detectsTheServer();
    void enableAndDisableOnPipeWire();
    void enableAndDisableOnPulseAudio();
    void failuresNameWhatIsMissing_data();
    void failuresNameWhatIsMissing();
    void preferencesCheckbox();

private:
    SoundOutputs outputs(bool avahi = true) const
    {
        return SoundOutputs(QStringLiteral(FAKE_PACTL), m_config->path(),
                            [avahi] { return avahi; });
    }
    std::unique_ptr<QTemporaryDir> m_config;
    QString m_state;
};

void TestSoundOutputs::init()
{
    m_config = std::make_unique<QTemporaryDir>();
    m_state = m_config->filePath(QStringLiteral("modules"));
    qputenv("FAKE_PACTL_STATE", m_state.toUtf8());
    qputenv("FAKE_PACTL_SERVER", "PulseAudio (on PipeWire 0.3.65)");
    qunsetenv("FAKE_PACTL_FAIL_LOAD");
}

void TestSoundOutputs::detectsTheServer_data()
{
    QTest::addColumn<QByteArray>("serverName");
    QTest::addColumn<QByteArray>("modules");
    QTest::addColumn<int>("server");
    QTest::addColumn<bool>("active");
    QTest::newRow("PipeWire, off")
        << QByteArray("PulseAudio (on PipeWire 0.3.65)") << QByteArray("7\tmodule-null-sink\n")
        << int(SoundOutputs::Server::PipeWire) << false;
    QTest::newRow("PipeWire, on") << QByteArray("PulseAudio (on PipeWire 0.3.65)")
                                  << QByteArray("536870913\tmodule-raop-discover\t\t\n")
                                  << int(SoundOutputs::Server::PipeWire) << true;
    QTest::newRow("PulseAudio") << QByteArray("pulseaudio")
                                << QByteArray("14\tmodule-raop-discover\t\t\n")
                                << int(SoundOutputs::Server::PulseAudio) << true;
    QTest::newRow("no server") << QByteArray() << QByteArray("14\tmodule-raop-discover\n")
                               << int(SoundOutputs::Server::None) << false;
}

void TestSoundOutputs::detectsTheServer()
{
    QFETCH(QByteArray, serverName);
    QFETCH(QByteArray, modules);
    QFETCH(int, server);
    QFETCH(bool, active);
    qputenv("FAKE_PACTL_SERVER", serverName);
    QFile state(m_state);
    QVERIFY(state.open(QIODevice::WriteOnly));
    state.write(modules);
    state.close();
    const SoundOutputs::Status status = outputs().status();
    QCOMPARE(int(status.server), server);
    QCOMPARE(status.raopDiscoveryActive, active);
}

void TestSoundOutputs::enableAndDisableOnPipeWire()
{
    const SoundOutputs pipeWire = outputs();
    QString error;
    QVERIFY2(pipeWire.enable(&error), qPrintable(error));
    QVERIFY(pipeWire.status().raopDiscoveryActive);
    QVERIFY(readFile(pipeWire.pipeWireDropIn()).contains("libpipewire-module-raop-discover"));
    QVERIFY(pipeWire.enable(&error)); // again: nothing loaded twice
    QCOMPARE(readFile(m_state).count("module-raop-discover"), 1);
    QVERIFY2(pipeWire.disable(&error), qPrintable(error));
    QVERIFY(!pipeWire.status().raopDiscoveryActive);
    QVERIFY(!QFile::exists(pipeWire.pipeWireDropIn()));
}

void TestSoundOutputs::enableAndDisableOnPulseAudio()
{
    qputenv("FAKE_PACTL_SERVER", "pulseaudio");
    const SoundOutputs pulse = outputs();
    QDir().mkpath(m_config->filePath(QStringLiteral("pulse")));
    QFile script(pulse.pulseAudioScript());
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write(".include /etc/pulse/default.pa\nload-module module-echo-cancel");
    script.close();
    QString error;
    QVERIFY2(pulse.enable(&error), qPrintable(error));
    QCOMPARE(readFile(pulse.pulseAudioScript()),
             QByteArray(".include /etc/pulse/default.pa\nload-module "
                        "module-echo-cancel\nload-module module-raop-discover\n"));
    QVERIFY(!QFile::exists(pulse.pipeWireDropIn()));
    QVERIFY(pulse.disable(&error));
    QCOMPARE(readFile(pulse.pulseAudioScript()),
             QByteArray(".include /etc/pulse/default.pa\nload-module module-echo-cancel\n"));
    // Without a script of the user's own, one is made that keeps the system's.
    QFile::remove(pulse.pulseAudioScript());
    QVERIFY(pulse.enable(&error));
    QCOMPARE(readFile(pulse.pulseAudioScript()),
             QByteArray(".include /etc/pulse/default.pa\nload-module module-raop-discover\n"));
}

void TestSoundOutputs::failuresNameWhatIsMissing_data()
{
    QTest::addColumn<QByteArray>("serverName");
    QTest::addColumn<bool>("avahi");
    QTest::addColumn<bool>("loadFails");
    QTest::addColumn<QString>("message");
    QTest::newRow("no sound server") << QByteArray() << true << false << "pipewire-pulse";
    QTest::newRow("no avahi") << QByteArray("pulseaudio") << false << false << "avahi-daemon";
    QTest::newRow("PulseAudio without the module")
        << QByteArray("pulseaudio") << true << true << "pulseaudio-module-raop";
    QTest::newRow("PipeWire without the module")
        << QByteArray("PulseAudio (on PipeWire 1.0)") << true << true << "libpipewire-0.3-modules";
}

void TestSoundOutputs::failuresNameWhatIsMissing()
{
    QFETCH(QByteArray, serverName);
    QFETCH(bool, avahi);
    QFETCH(bool, loadFails);
    QFETCH(QString, message);
    qputenv("FAKE_PACTL_SERVER", serverName);
    if (loadFails)
        qputenv("FAKE_PACTL_FAIL_LOAD", "1");
    QString error;
    QVERIFY(!outputs(avahi).enable(&error));
    QVERIFY2(error.contains(message), qPrintable(error));
    QVERIFY(!QFile::exists(outputs().pipeWireDropIn()));
}

void TestSoundOutputs::preferencesCheckbox()
{
    auto settings = Settings::load(std::make_unique<MemorySettingsStorage>());
    AppServices services;
    services.settings = [&settings]() -> Settings & {
        return *settings;
    };
    services.bridgeRunning = [] {
        return false;
    };
    services.searchRunning = [] {
        return false;
    };
    ViewController window(services);
    window.setSoundOutputs(outputs());
    window.show();
    auto *box = window.findChild<QCheckBox *>(QStringLiteral("soundOutputsCheckBox"));
    QVERIFY(box->isEnabled() && !box->isChecked());
    LogCapture capture;
    box->click();
    QVERIFY(box->isChecked());
    QVERIFY(outputs().status().raopDiscoveryActive);
    QVERIFY(capture.contains(LogLevel::Info, QStringLiteral("preferences"),
                             QStringLiteral("Enabled speakers as sound outputs")));
    box->click();
    QVERIFY(!outputs().status().raopDiscoveryActive);
    // A failure shows what is missing and leaves the box as it was.
    window.setSoundOutputs(outputs(false));
    box->click();
    QVERIFY(!box->isChecked());
    auto *alert = window.findChild<QMessageBox *>(QStringLiteral("soundOutputsErrorMessageBox"));
    QVERIFY(alert);
    QVERIFY(alert->informativeText().contains(QStringLiteral("avahi-daemon")));
    alert->close();
}

QTEST_MAIN(TestSoundOutputs)
#include "TestSoundOutputs.moc"
