// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogCapture.h"
#include "Settings.h"
#include "SpeakerCommands.h"

#include <QTest>

namespace {
QUrl location(int n)
{
    return QUrl(QStringLiteral("http://127.0.1.%1:1400/xml/device_description.xml").arg(n));
}

std::unique_ptr<Settings> household(MemorySettingsStorage **storage)
{
    auto memory = std::make_unique<MemorySettingsStorage>();
    *storage = memory.get();
    auto settings = Settings::load(std::move(memory));
    const QStringList rooms = {"Kitchen", "Den", "Den"};
    for (int n = 1; n <= 3; ++n) {
        DeviceInfo info;
        info.location = location(n);
        info.roomName = rooms[n - 1];
        info.displayName = QStringLiteral("One");
        settings->mergeDiscoveredSpeaker(info, DeviceTopology{n != 3, QStringLiteral("G")});
    }
    settings->devices.at(location(2)).active = false;
    return settings;
}
} // namespace

class TestSpeakerCommands : public QObject
{
    Q_OBJECT

private slots:
    void findSpeaker_data();
    void findSpeaker();
    void commandsSaveWithTheRowsLogLines();
    void listShowsStateOfEverySpeaker();
};

void TestSpeakerCommands::findSpeaker_data()
{
    QTest::addColumn<QString>("query");
    QTest::addColumn<int>("found"); // 0: none
    QTest::addColumn<QString>("errorPart");
    QTest::newRow("by location") << location(2).toString() << 2 << "";
    QTest::newRow("by name") << "Kitchen - One" << 1 << "";
    QTest::newRow("ambiguous name") << "Den - One" << 0 << "More than one speaker";
    QTest::newRow("unknown") << "Garden" << 0 << "No known speaker";
    QTest::newRow("name is exact") << "kitchen - one" << 0 << "No known speaker";
}

void TestSpeakerCommands::findSpeaker()
{
    QFETCH(QString, query);
    QFETCH(int, found);
    QFETCH(QString, errorPart);
    MemorySettingsStorage *storage = nullptr;
    const auto settings = household(&storage);
    QString error;
    const auto result = SpeakerCommands::findSpeaker(*settings, query, &error);
    QCOMPARE(result.has_value(), found != 0);
    if (found)
        QCOMPARE(*result, location(found));
    else
        QVERIFY2(error.startsWith(errorPart), qPrintable(error));
}

void TestSpeakerCommands::commandsSaveWithTheRowsLogLines()
{
    MemorySettingsStorage *storage = nullptr;
    auto settings = household(&storage);
    const int writes = storage->writes;
    LogCapture capture;
    QString error;
    QCOMPARE(SpeakerCommands::setEnabled(*settings, QStringLiteral("Kitchen - One"), false, &error),
             0);
    QCOMPARE(SpeakerCommands::rename(*settings, location(2).toString(), QStringLiteral(" Study "),
                                     &error),
             0);
    QCOMPARE(
        SpeakerCommands::rename(*settings, QStringLiteral("Garden"), QStringLiteral("x"), &error),
        1);
    QCOMPARE(storage->writes, writes + 2);
    QCOMPARE(capture.messages(LogLevel::Info),
             QStringList({"Disabling speaker at " + location(1).toString(),
                          "Changing name for speaker at " + location(2).toString() +
                              " from \"Den - One\" to \" Study \""}));
    const auto reloaded = Settings::load(std::make_unique<MemorySettingsStorage>(*storage));
    QVERIFY(!reloaded->devices.at(location(1)).enabled);
    QCOMPARE(reloaded->devices.at(location(2)).name, QStringLiteral(" Study "));
}

void TestSpeakerCommands::listShowsStateOfEverySpeaker()
{
    MemorySettingsStorage *storage = nullptr;
    const auto settings = household(&storage);
    const QStringList lines =
        SpeakerCommands::formatList(*settings).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 6);
    QCOMPARE(lines[0], QStringLiteral("found      enabled   \"Kitchen - One\""));
    QCOMPARE(lines[1].trimmed(), location(1).toString());
    QCOMPARE(lines[2], QStringLiteral("not found  enabled   \"Den - One\""));
    QVERIFY(lines[4].endsWith(QStringLiteral("(group member: played through its coordinator)")));
    QCOMPARE(
        SpeakerCommands::formatList(*Settings::load(std::make_unique<MemorySettingsStorage>())),
        QStringLiteral("No speakers known yet.\n"));
}

QTEST_GUILESS_MAIN(TestSpeakerCommands)
#include "TestSpeakerCommands.moc"
