// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogCapture.h"
#include "RecordCompare.h"
#include "Settings.h"

#include <QJsonDocument>
#include <QTest>

namespace {
const QUrl kitchen(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));

DeviceInfo speaker(const QUrl &location, const QString &room, const QString &display)
{
    DeviceInfo info;
    info.location = location;
    info.roomName = room;
    info.displayName = display;
    info.udn = QStringLiteral("uuid:RINCON_1");
    return info;
}

std::unique_ptr<Settings> freshSettings(MemorySettingsStorage **memory = nullptr)
{
    auto storage = std::make_unique<MemorySettingsStorage>();
    if (memory)
        *memory = storage.get();
    return Settings::load(std::move(storage));
}
} // namespace

class TestDeviceSettings : public QObject
{
    Q_OBJECT

private slots:
    void readingAppliesDefaults_data();
    void readingAppliesDefaults();
    void newSpeakerIsEnabledUnderDefaultName();
    void knownSpeakerKeepsUserChoices_data();
    void knownSpeakerKeepsUserChoices();
    void renameRules_data();
    void renameRules();
    void enableAndDisable();
    void unknownLocationsAreIgnored();
    void activeDevicesAndSearchStart();
    void mapIteratesInLocationTextOrder();
};

void TestDeviceSettings::readingAppliesDefaults_data()
{
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<bool>("hasTopology");
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<bool>("nameChanged");
    QTest::newRow("only name and info") << QByteArray() << false << true << false;
    QTest::newRow("all present")
        << QByteArray(
               R"(,"topology":{"coordinator":false,"group":"g"},"enabled":false,"nameChanged":true)")
        << true << false << true;
    QTest::newRow("unreadable optional values fall back")
        << QByteArray(R"(,"topology":{"coordinator":"yes"},"enabled":"no","nameChanged":1)")
        << false << true << false;
    QTest::newRow("topology not an object")
        << QByteArray(R"(,"topology":[],"enabled":null)") << false << true << false;
}

void TestDeviceSettings::readingAppliesDefaults()
{
    QFETCH(QByteArray, extra);
    QFETCH(bool, hasTopology);
    QFETCH(bool, enabled);
    QFETCH(bool, nameChanged);
    const QByteArray json =
        R"({"name":"Kitchen","info":{"location":"http://a:1400/d.xml","iconList":[]})" + extra +
        "}";
    QString error;
    const auto record = DeviceSettings::fromJson(QJsonDocument::fromJson(json).object(), &error);
    QVERIFY2(record, qPrintable(error));
    QCOMPARE(record->topology.has_value(), hasTopology);
    QCOMPARE(record->enabled, enabled);
    QCOMPARE(record->nameChanged, nameChanged);
    QCOMPARE(record->active, false);
}

void TestDeviceSettings::newSpeakerIsEnabledUnderDefaultName()
{
    MemorySettingsStorage *memory = nullptr;
    auto settings = freshSettings(&memory);
    LogCapture capture;
    const DeviceSettings &record = settings->mergeDiscoveredSpeaker(
        speaker(kitchen, "Kitchen", "Front"), DeviceTopology{true, QStringLiteral("g")});
    QCOMPARE(record.name, QStringLiteral("Kitchen - Front"));
    QVERIFY(record.enabled && !record.nameChanged && record.active);
    QCOMPARE(memory->writes, 1); // only the first start's save: a merge does not save
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             QStringLiteral("Adding menu item Kitchen - Front (") +
                                 kitchen.toString() + ")"));
}

void TestDeviceSettings::knownSpeakerKeepsUserChoices_data()
{
    QTest::addColumn<bool>("renamed");
    QTest::addColumn<bool>("disabled");
    QTest::addColumn<QString>("expectedName");
    QTest::newRow("unnamed follows the room") << false << false << "Den - Front";
    QTest::newRow("user name is kept") << true << false << "Mine";
    QTest::newRow("disabled stays disabled") << false << true << "Den - Front";
}

void TestDeviceSettings::knownSpeakerKeepsUserChoices()
{
    QFETCH(bool, renamed);
    QFETCH(bool, disabled);
    QFETCH(QString, expectedName);
    auto settings = freshSettings();
    settings->mergeDiscoveredSpeaker(speaker(kitchen, "Kitchen", "Front"), {true, "g"});
    if (renamed)
        settings->renameDevice(kitchen, QStringLiteral("Mine"));
    if (disabled)
        settings->setDeviceEnabled(kitchen, false);
    settings->markAllDevicesNotActive();
    const QString nameBefore = settings->devices.at(kitchen).name;

    LogCapture capture;
    const DeviceSettings &record =
        settings->mergeDiscoveredSpeaker(speaker(kitchen, "Den", "Front"), {false, "h"});
    QCOMPARE(record.name, expectedName);
    QCOMPARE(record.enabled, !disabled);
    QCOMPARE(record.nameChanged, renamed);
    QCOMPARE(record.active, true);
    QCOMPARE(*record.info.roomName, QStringLiteral("Den"));
    QCOMPARE(record.topology->group, QStringLiteral("h"));
    QVERIFY(capture.contains(LogLevel::Info, std::nullopt,
                             "Updating menu item " + nameBefore + " (" + kitchen.toString() + ")"));
}

void TestDeviceSettings::renameRules_data()
{
    QTest::addColumn<QString>("newName");
    QTest::addColumn<bool>("changes");
    QTest::newRow("same name") << QStringLiteral("Caf\u00e9 - One") << false;
    QTest::newRow("canonically equal name") << QStringLiteral("Cafe\u0301 - One") << false;
    QTest::newRow("new name") << QStringLiteral("Terrace") << true;
    QTest::newRow("empty name is accepted") << QString() << true;
    QTest::newRow("spaces are kept") << QStringLiteral(" Caf\u00e9 - One ") << true;
    QTest::newRow("case differs") << QStringLiteral("caf\u00e9 - one") << true;
}

void TestDeviceSettings::renameRules()
{
    QFETCH(QString, newName);
    QFETCH(bool, changes);
    MemorySettingsStorage *memory = nullptr;
    auto settings = freshSettings(&memory);
    settings->mergeDiscoveredSpeaker(speaker(kitchen, QStringLiteral("Caf\u00e9"), "One"),
                                     {true, "g"});
    const int writesBefore = memory->writes;
    LogCapture capture;
    QCOMPARE(settings->renameDevice(kitchen, newName), changes);
    const DeviceSettings &record = settings->devices.at(kitchen);
    QCOMPARE(memory->writes, writesBefore + (changes ? 1 : 0));
    QCOMPARE(record.nameChanged, changes);
    if (changes) {
        QCOMPARE(record.name, newName);
        QCOMPARE(capture.messages(LogLevel::Info),
                 QStringList("Changing name for speaker at " + kitchen.toString() +
                             QStringLiteral(" from \"Caf\u00e9 - One\" to \"") + newName + "\""));
        QVERIFY(record.enabled && record.active);
    } else {
        QVERIFY(capture.entries().empty());
    }
}

void TestDeviceSettings::enableAndDisable()
{
    MemorySettingsStorage *memory = nullptr;
    auto settings = freshSettings(&memory);
    settings->mergeDiscoveredSpeaker(speaker(kitchen, "Kitchen", "Front"), {true, "g"});
    LogCapture capture;
    QVERIFY(settings->setDeviceEnabled(kitchen, false));
    QVERIFY(settings->setDeviceEnabled(kitchen, false)); // always writes and saves
    QVERIFY(settings->setDeviceEnabled(kitchen, true));
    QCOMPARE(memory->writes, 4);
    QCOMPARE(capture.messages(LogLevel::Info),
             QStringList({"Disabling speaker at " + kitchen.toString(),
                          "Disabling speaker at " + kitchen.toString(),
                          "Enabling speaker at " + kitchen.toString()}));
    const DeviceSettings &record = settings->devices.at(kitchen);
    QVERIFY(record.enabled && record.active && !record.nameChanged);
    QCOMPARE(record.name, QStringLiteral("Kitchen - Front"));
}

void TestDeviceSettings::unknownLocationsAreIgnored()
{
    MemorySettingsStorage *memory = nullptr;
    auto settings = freshSettings(&memory);
    LogCapture capture;
    QVERIFY(!settings->renameDevice(kitchen, QStringLiteral("x")));
    QVERIFY(!settings->setDeviceEnabled(kitchen, false));
    QVERIFY(!settings->renameDevice(QUrl(), QStringLiteral("x")));
    QCOMPARE(memory->writes, 1);
    QVERIFY(capture.entries().empty());
    QVERIFY(settings->devices.empty());
}

void TestDeviceSettings::activeDevicesAndSearchStart()
{
    auto settings = freshSettings();
    const QUrl den(QStringLiteral("http://192.0.2.11:1400/xml/device_description.xml"));
    settings->mergeDiscoveredSpeaker(speaker(kitchen, "Kitchen", "Front"), {true, "g"});
    settings->mergeDiscoveredSpeaker(speaker(den, "Den", "One"), {true, "h"});
    QCOMPARE(settings->activeDevices().size(), 2u);
    settings->markAllDevicesNotActive();
    QVERIFY(settings->activeDevices().empty());
    QCOMPARE(settings->devices.size(), 2u); // choices outlive the search
    settings->mergeDiscoveredSpeaker(speaker(den, "Den", "One"), {true, "h"});
    const DeviceMap active = settings->activeDevices();
    QCOMPARE(active.size(), 1u);
    QCOMPARE(active.begin()->first, den);
}

void TestDeviceSettings::mapIteratesInLocationTextOrder()
{
    auto settings = freshSettings();
    const QStringList locations = {"http://192.0.2.9:1400/x.xml", "http://192.0.2.10:1400/x.xml",
                                   "http://192.0.2.100:1400/x.xml", "http://192.0.2.1:1400/x.xml"};
    for (const QString &location : locations)
        settings->mergeDiscoveredSpeaker(speaker(QUrl(location), "r", "d"), {true, "g"});
    QStringList order;
    for (const auto &entry : settings->devices)
        order << entry.first.toString();
    QCOMPARE(order, QStringList({"http://192.0.2.100:1400/x.xml", "http://192.0.2.10:1400/x.xml",
                                 "http://192.0.2.1:1400/x.xml", "http://192.0.2.9:1400/x.xml"}));
}

QTEST_GUILESS_MAIN(TestDeviceSettings)
#include "TestDeviceSettings.moc"
