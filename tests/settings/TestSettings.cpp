// SPDX-License-Identifier: GPL-3.0-or-later
#include "JsonReader.h"
#include "Settings.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QTemporaryDir>

namespace {
// Storage whose text the test still sees after the Settings took ownership of it.
struct SharedStorage : SettingsStorage
{
    explicit SharedStorage(MemorySettingsStorage *target) : target(target) {}
    std::optional<QString> read() override { return target->read(); }
    bool write(const QString &text, QString *error) override { return target->write(text, error); }
    std::optional<QString> keepCopy() override { return target->keepCopy(); }
    MemorySettingsStorage *target;
};

std::unique_ptr<Settings> loadFrom(MemorySettingsStorage &memory)
{
    return Settings::load(std::make_unique<SharedStorage>(&memory));
}

const QByteArray validDocument =
    R"({"devices":[],"crashesByVersion":{"1.0.0":3},"installedAt":536457600.25,)"
    R"("lastRatingsPrompt":536457600.5,"hasPromptedForRating":true,"hasRated":false})";

const QUrl kitchen(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));

DeviceInfo speaker(const QUrl &location, const QString &room, const QString &display)
{
    DeviceInfo info;
    info.location = location;
    info.roomName = room;
    info.displayName = display;
    return info;
}
} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    // QSettings reads its folder once per process, so the whole suite shares one.
    void initTestCase() { qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8()); }
    void init() { QCoreApplication::setApplicationVersion(QStringLiteral("1.2.0")); }
    void firstStartAndAValidDocument();
    void undecodableDocumentIsReplaced_data();
    void undecodableDocumentIsReplaced();
    void mergeKeepsTheUsersChoices_data();
    void mergeKeepsTheUsersChoices();
    void speakersWithTheirOwnAirPlayStartNotOffered_data();
    void speakersWithTheirOwnAirPlayStartNotOffered();
    void addressChangeMovesTheChoices();
    void aFloodOfSpeakersIsNotWritten();
    void renameRules_data();
    void renameRules();
    void enableAndUnknownLocations();
    void userStoreSurvivesAndFails();
    void fuzzFindingRoundTrips();

private:
    QTemporaryDir m_config;
};

void TestSettings::firstStartAndAValidDocument()
{
    MemorySettingsStorage memory;
    loadFrom(memory); // nothing stored: a fresh document, saved compact
    const QJsonObject json = QJsonDocument::fromJson(memory.text->toUtf8()).object();
    QVERIFY(json.size() == 9 && !memory.text->contains(QLatin1Char('\n')));
    QCOMPARE(json.value("soundOutputs"), QJsonValue(false));
    QCOMPARE(json.value("bridgeDelay").toString(), QStringLiteral("balanced"));
    QCOMPARE(json.value("bridgePorts").toString(), QStringLiteral("49200:64"));
    // Dates count from 2001-01-01 UTC.
    const double installed = json.value(QStringLiteral("installedAt")).toDouble();
    QVERIFY(std::abs(installed - (QDateTime::currentSecsSinceEpoch() - 978307200.0)) < 5);
    memory.text = QString::fromUtf8(validDocument).insert(1, R"("sparkle":{"x":1},)");
    LogCapture capture;
    const auto settings = loadFrom(memory);
    QCOMPARE(memory.writes, 1); // read as it is, not saved
    QCOMPARE(settings->installedAt, 536457600.25);
    QVERIFY(capture.has("Verbose - Loading settings:\n" + *memory.text));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0.0"));
    settings->recordCrashReport(); // counted per version; unknown keys go at the next save
    QVERIFY(settings->crashCount() == 4 && !memory.text->contains(QLatin1String("sparkle")));
    QVERIFY(memory.text->contains(QLatin1String("{\"1.0.0\":4}")));
    QVERIFY(memory.text->contains(QLatin1String("\"hasPromptedForRating\":true")));
    // The bridge's delay and ports: read when known; a value this version cannot use falls
    // back to the default and never sets the speakers aside.
    memory.text = QString::fromUtf8(validDocument)
                      .insert(1, R"("bridgeDelay":"steady","bridgePorts":"50000:8",)"
                                 R"("soundOutputs":true,)");
    const auto chosen = loadFrom(memory);
    QVERIFY(chosen->bridgeDelay == BridgeDelay::Steady && chosen->bridgePorts == "50000:8" &&
            chosen->soundOutputs);
    for (const char *ports : {"80:8", "65530:7", "49200", "a:b", "49200:0"}) {
        memory.text =
            QString::fromUtf8(validDocument)
                .insert(1, QStringLiteral(R"("bridgeDelay":7,"bridgePorts":"%1","soundOutputs":1,)")
                               .arg(QLatin1String(ports)));
        LogCapture fallback;
        const auto read = loadFrom(memory);
        QVERIFY2(read->bridgeDelay == BridgeDelay::Balanced && read->bridgePorts == "49200:64" &&
                     !read->soundOutputs && read->installedAt == 536457600.25,
                 ports);
        QCOMPARE(fallback.count("Warning settings Unknown bridgeDelay"), 1);
        QCOMPARE(fallback.count("Warning settings Invalid bridgePorts"), 1);
    }
    const int writes = memory.writes;
    QVERIFY(!settings->setBridgeDelay(BridgeDelay::Balanced)); // already so: not saved
    QVERIFY(settings->setBridgeDelay(BridgeDelay::Lowest) && memory.writes == writes + 1);
    QVERIFY(memory.text->contains(QLatin1String("\"bridgeDelay\":\"lowest\"")));
}

void TestSettings::undecodableDocumentIsReplaced_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("errorPart");
    for (const QStringList &column : tableRows(QStringLiteral("settings/undecodable.txt"), 4)) {
        const QByteArray valid(validDocument), from = column[1].toUtf8(), to = column[2].toUtf8();
        QVERIFY2(from == "*" || valid.contains(from), qPrintable(column[0]));
        QTest::addRow("%s", qPrintable(column[0]))
            << (from == "*" ? to : QByteArray(valid).replace(from, to)) << column[3];
    }
}

void TestSettings::undecodableDocumentIsReplaced()
{
    QFETCH(QByteArray, stored);
    QFETCH(QString, errorPart);
    MemorySettingsStorage memory;
    memory.text = QString::fromUtf8(stored);
    LogCapture capture;
    const auto settings = loadFrom(memory);
    QCOMPARE(capture.count(QStringLiteral("Error")), 1);
    const QString error = capture.lines().filter(QStringLiteral("Error settings ")).value(0);
    QVERIFY2(error.startsWith(QStringLiteral("Error settings Failed to deserialize settings, ")),
             capture.dump());
    QVERIFY2(error.contains(errorPart), qPrintable(error));
    // The unreadable document is kept beside the fresh one, and the line says where.
    QVERIFY(error.endsWith(QStringLiteral(" - \"") + QString::fromUtf8(stored) +
                           "\" (kept as memory)"));
    QVERIFY(memory.kept == QStringList{QString::fromUtf8(stored)} && memory.writes == 1);
    QVERIFY(settings->devices.empty() && settings->crashesByVersion.empty());
    // Text with no UTF-8 form (a lone surrogate at the end) is replaced and kept, silently.
    memory.text = QString::fromUtf8(validDocument) + QChar(0xD800);
    LogCapture quiet;
    loadFrom(memory);
    QVERIFY(quiet.count(QStringLiteral("Error")) == 0 && memory.kept.size() == 2 &&
            memory.writes == 2);
}

void TestSettings::mergeKeepsTheUsersChoices_data()
{
    QTest::addColumn<bool>("renamed");
    QTest::addColumn<bool>("disabled");
    QTest::addColumn<QString>("expectedName");
    QTest::newRow("unnamed follows the room") << false << false << "Den - Front";
    QTest::newRow("the user's name stays") << true << false << "Mine";
    QTest::newRow("disabled stays disabled") << false << true << "Den - Front";
}

void TestSettings::speakersWithTheirOwnAirPlayStartNotOffered_data()
{
    QTest::addColumn<QString>("model");
    QTest::addColumn<bool>("offered");
    for (const QStringList &column : tableRows(QStringLiteral("settings/airplay-models.txt"), 3))
        QTest::addRow("%s", qPrintable(column[0])) << column[1] << (column[2] == "yes");
}

void TestSettings::speakersWithTheirOwnAirPlayStartNotOffered()
{
    // Such a speaker would be listed twice in every AirPlay menu; the user may still offer
    // it, and that choice stays.
    QFETCH(QString, model);
    QFETCH(bool, offered);
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    DeviceInfo info = speaker(kitchen, QStringLiteral("Kitchen"), QStringLiteral("One"));
    if (!model.isEmpty())
        info.modelNumber = model;
    QCOMPARE(settings->mergeDiscoveredSpeaker(info, {true, "g"}).enabled, offered);
    QCOMPARE(info.hasOwnAirPlay(), !offered);
    settings->setDeviceEnabled(kitchen, true);
    QVERIFY(settings->mergeDiscoveredSpeaker(info, {true, "g"}).enabled);
}

void TestSettings::mergeKeepsTheUsersChoices()
{
    QFETCH(bool, renamed);
    QFETCH(bool, disabled);
    QFETCH(QString, expectedName);
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    LogCapture capture;
    const DeviceSettings &added = settings->mergeDiscoveredSpeaker(
        speaker(kitchen, QStringLiteral("Kitchen"), QStringLiteral("Front")), {true, "g"});
    QVERIFY(added.enabled && !added.nameChanged && added.active);
    QVERIFY(capture.has("Info - Adding menu item Kitchen - Front (" + kitchen.toString() + ")"));
    QCOMPARE(memory.writes, 1); // a merge does not save
    if (renamed)
        settings->renameDevice(kitchen, QStringLiteral("Mine"));
    if (disabled)
        settings->setDeviceEnabled(kitchen, false);
    settings->markAllDevicesNotActive();
    QVERIFY(settings->activeDevices().empty());
    const QString nameBefore = settings->devices.at(kitchen).name;
    const DeviceSettings &record = settings->mergeDiscoveredSpeaker(
        speaker(kitchen, QStringLiteral("Den"), QStringLiteral("Front")), {false, "h"});
    QCOMPARE(record.name, expectedName);
    QVERIFY(record.enabled == !disabled && record.nameChanged == renamed && record.active &&
            !record.topology->coordinator);
    QVERIFY(
        capture.has("Info - Updating menu item " + nameBefore + " (" + kitchen.toString() + ")"));
    QCOMPARE(settings->activeDevices().size(), 1u);
    // Offered to the bridge: a coordinator found in this run and enabled by the user.
    DeviceSettings offered = record;
    offered.topology = DeviceTopology{true, QStringLiteral("h")};
    QCOMPARE(offered.offeredToBridge(), !disabled);
    offered.enabled = true;
    for (auto change : {+[](DeviceSettings &r) { r.active = false; },
                        +[](DeviceSettings &r) {
                            r.topology.reset();
                        }}) {
        DeviceSettings other = offered;
        change(other);
        QVERIFY(!other.offeredToBridge());
    }
}

void TestSettings::addressChangeMovesTheChoices()
{
    // The router gave a renamed, switched-off speaker a new address: one record, the user's.
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    DeviceInfo info = speaker(kitchen, QStringLiteral("Kitchen"), QStringLiteral("One"));
    info.udn = QStringLiteral("uuid:RINCON_K");
    settings->mergeDiscoveredSpeaker(info, {true, "g"});
    settings->renameDevice(kitchen, QStringLiteral("Mine"));
    settings->setDeviceEnabled(kitchen, false);
    const int writes = memory.writes;
    info.location = QUrl(QStringLiteral("http://192.0.2.77:1400/xml/device_description.xml"));
    LogCapture capture;
    const DeviceSettings &moved = settings->mergeDiscoveredSpeaker(info, {true, "g"});
    QCOMPARE(capture.lines(), QStringList{"Info - Speaker Mine moved from " + kitchen.toString() +
                                          " to " + info.location.toString()});
    QVERIFY(moved.nameChanged && !moved.enabled && moved.active);
    QVERIFY(moved.name == QStringLiteral("Mine") && settings->devices.size() == 1u);
    QCOMPARE(memory.writes, writes + 1);                        // saved at once
    info.location = QUrl(QStringLiteral("http://192.0.2.78/")); // a record without a UDN stays
    info.udn.reset();
    settings->mergeDiscoveredSpeaker(info, {true, "g"});
    QCOMPARE(settings->devices.size(), 2u);
    // Two of one name are listed in the order of their addresses, the same every time.
    QVERIFY(settings->renameDevice(info.location, QStringLiteral("Mine")));
    const auto order = displayOrder(settings->devices, [](const auto &) { return true; });
    QVERIFY(order.size() == 2 && order[0] == &*settings->devices.begin());
}

void TestSettings::aFloodOfSpeakersIsNotWritten()
{
    // Past the cap: every record the user changed, then the ones found now, never the rest.
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    const auto at = [](int n) {
        return QUrl(QStringLiteral("http://198.51.100.1:%1/").arg(n));
    };
    const int cap = int(SettingsDocument::maxStoredSpeakers);
    for (int n = 1; n <= cap + 40; ++n)
        settings->mergeDiscoveredSpeaker(speaker(at(n), "Room", "One"), {true, "g"});
    settings->renameDevice(at(cap + 30), QStringLiteral("Mine"));
    settings->setDeviceEnabled(at(cap + 31), false);
    QCOMPARE(SettingsDocument::decode(settings->encode(), nullptr)->devices.size(), size_t(cap));
    settings->markAllDevicesNotActive();
    settings->mergeDiscoveredSpeaker(speaker(at(cap + 40), "Room", "One"), {true, "g"});
    LogCapture capture;
    const auto stored = SettingsDocument::decode(settings->encode(), nullptr);
    QVERIFY(capture.dump().contains(
        QStringLiteral("writing %1 of %2").arg(cap).arg(cap + 40).toUtf8()));
    QCOMPARE(stored->devices.size(), size_t(cap));
    for (const int kept : {cap + 30, cap + 31, cap + 40})
        QVERIFY2(stored->devices.count(at(kept)), qPrintable(at(kept).toString()));
    QCOMPARE(stored->devices.at(at(cap + 30)).name, QStringLiteral("Mine"));
    // A speaker only announced is written once it answers a search or the user changes it.
    MemorySettingsStorage few;
    auto announced = loadFrom(few);
    for (int n = 1; n <= 3; ++n)
        announced->mergeDiscoveredSpeaker(speaker(at(n), "Room", "One"), {true, "g"}, false);
    announced->mergeDiscoveredSpeaker(speaker(at(1), "Room", "One"), {true, "g"});
    announced->renameDevice(at(2), QStringLiteral("Mine"));
    const auto written = SettingsDocument::decode(announced->encode(), nullptr)->devices;
    QVERIFY(written.size() == 2 && !written.count(at(3)) && !capture.dump().contains("of 3"));
}

void TestSettings::renameRules_data()
{
    QTest::addColumn<QString>("newName");
    QTest::addColumn<bool>("changes");
    QTest::newRow("same name") << QStringLiteral("Caf\u00e9 - One") << false;
    QTest::newRow("canonically equal") << QStringLiteral("Cafe\u0301 - One") << false;
    QTest::newRow("new name") << QStringLiteral("Terrace") << true;
    QTest::newRow("case differs") << QStringLiteral("caf\u00e9 - one") << true;
    QVERIFY(!speakerNameProblem(QString(50, 'x')) && speakerNameProblem(QString(51, 'x')));
    // One line of text; a refusal quotes a long name only in part.
    for (const char16_t control : {u'\n', u'\t', u'\x7f', u'\x85', u'\u2028', u'\u2029'})
        QVERIFY(speakerNameProblem(QStringLiteral("Den") + QChar(control) + "One"));
    QVERIFY(!speakerNameProblem(QStringLiteral("Caf\u00e9 \u2013 \U0001F3B5")));
    QVERIFY(speakerNameProblem(QString(5000, 'x'))->english.size() < 250);
}

void TestSettings::renameRules()
{
    QFETCH(QString, newName);
    QFETCH(bool, changes);
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    settings->mergeDiscoveredSpeaker(speaker(kitchen, QStringLiteral("Caf\u00e9"), "One"), {});
    LogCapture capture;
    QCOMPARE(settings->renameDevice(kitchen, newName), changes);
    QCOMPARE(memory.writes, changes ? 2 : 1);
    QCOMPARE(settings->devices.at(kitchen).nameChanged, changes);
    const QStringList expected{"Info - Changing name for speaker at " + kitchen.toString() +
                               QStringLiteral(" from \"Caf\u00e9 - One\" to \"") + newName + "\""};
    QCOMPARE(capture.lines(), changes ? expected : QStringList());
}

void TestSettings::enableAndUnknownLocations()
{
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    settings->mergeDiscoveredSpeaker(speaker(kitchen, "Kitchen", "Front"), {true, "g"});
    LogCapture capture;
    QVERIFY(settings->setDeviceEnabled(kitchen, false));
    QVERIFY(settings->setDeviceEnabled(kitchen, true) && memory.writes == 3);
    QCOMPARE(capture.lines(), QStringList({"Info - Disabling speaker at " + kitchen.toString(),
                                           "Info - Enabling speaker at " + kitchen.toString()}));
    QVERIFY(!settings->setDeviceEnabled(QUrl(QStringLiteral("http://192.0.2.99/")), false));
    QCOMPARE(memory.writes, 3); // an unknown location changes nothing
    // A stored record without "enabled" (or with something else there) is enabled.
    const auto read = DeviceSettings::fromJson(
        QJsonObject{{"name", "n"}, {"info", settings->devices.at(kitchen).info.toJson()}}, nullptr);
    QVERIFY(read && read->enabled && !read->nameChanged);
    // This computer's sound plays on the speakers named by UDN, never on one without a UDN.
    const QUrl a("http://a/"), b("http://b/");
    DeviceMap devices{{a, {}}, {b, {}}, {kitchen, {}}};
    devices.at(a).info.udn = QStringLiteral("A");
    devices.at(b).info.udn = QStringLiteral("B");
    QVERIFY(markPlayingHere(devices, {"A"}) && devices.at(a).playingHere &&
            !devices.at(b).playingHere && !devices.at(kitchen).playingHere);
    QVERIFY(!markPlayingHere(devices, {"A", "C"}) && devices.at(a).playingHere);
}

void TestSettings::userStoreSurvivesAndFails()
{
    {
        auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
        settings->mergeDiscoveredSpeaker(speaker(kitchen, "K\u00fcche", "One"), {true, "g"});
        settings->setDeviceEnabled(kitchen, false);
    }
    const QString folder = m_config.filePath(QStringLiteral("Corvel"));
    auto reloaded = Settings::load(std::make_unique<UserSettingsStorage>());
    QVERIFY(reloaded->devices.size() == 1u && !reloaded->devices.begin()->second.enabled);
    QCOMPARE(reloaded->devices.begin()->second.topology->group, QStringLiteral("g"));
    // A store that cannot be written: a log line, and the session keeps its document.
    QVERIFY(QFile::rename(folder + "/Corvel.conf", m_config.filePath("kept")));
    QVERIFY(QDir(folder).rmdir(folder));
    QFile blocker(folder);
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    LogCapture capture;
    QVERIFY(reloaded->renameDevice(kitchen, QStringLiteral("Den")));
    QVERIFY2(capture.count("Error settings Failed to save settings: cannot write ") == 1,
             capture.dump());
    QCOMPARE(reloaded->devices.begin()->second.name, QStringLiteral("Den"));
    QVERIFY(QFile::remove(folder) && QDir().mkpath(folder));
    QVERIFY(reloaded->renameDevice(kitchen, QStringLiteral("Attic")) && !reloaded->saveError());
    // Hand-edited unquoted JSON, which QSettings reads as a list, is read as the text it is.
    QVERIFY(writeFile(folder + "/Corvel.conf", "[General]\nsettings=" + validDocument + "\n"));
    QCOMPARE(UserSettingsStorage().read(), QString::fromUtf8(validDocument));
    // An unreadable one is kept beside the fresh document, binary garbage too (a single byte
    // is a file); an empty file is a first start.
    for (const QByteArray &garbage :
         {QByteArray("[General]\nsettings=garbage\n"), QByteArray("\x00\xff\xfe\x01[\x80", 6),
          QByteArray("\x01", 1), QByteArray()}) {
        QVERIFY(writeFile(folder + "/Corvel.conf", garbage));
        LogCapture capture;
        Settings::load(std::make_unique<UserSettingsStorage>());
        const QStringList kept = QDir(folder).entryList({"Corvel.conf.unreadable-*"});
        QCOMPARE(kept.size(), garbage.isEmpty() ? 0 : 1);
        if (kept.isEmpty())
            continue;
        // The line that says so quotes what was there (its last byte, at least) and the copy.
        const QString said = capture.lines().join("\n");
        QVERIFY(said.contains(QString::fromUtf8(garbage.right(1))) && said.contains(kept[0]));
        QCOMPARE(readFile(folder + "/" + kept[0]), garbage);
        QVERIFY(QFile::remove(folder + "/" + kept[0]));
    }
    QVERIFY(QFile::remove(folder + "/Corvel.conf"));
    QVERIFY(QFile::rename(m_config.filePath("kept"), folder + "/Corvel.conf"));
}

void TestSettings::fuzzFindingRoundTrips()
{
    // Keys beyond U+FFFF once made a saved document unreadable to Qt.
    MemorySettingsStorage memory;
    memory.text = QString::fromUtf8(testData(QStringLiteral("settings/keys-beyond-ffff.json")));
    QVERIFY(!memory.text->isEmpty());
    loadFrom(memory)->save();
    const QString saved = *memory.text;
    QString error;
    QVERIFY2(SettingsDocument::decode(saved.toUtf8(), &error), qPrintable(error));
    loadFrom(memory)->save(); // read back and saved again: the same text
    QCOMPARE(*memory.text, saved);
}

QTEST_GUILESS_MAIN(TestSettings)
#include "TestSettings.moc"
