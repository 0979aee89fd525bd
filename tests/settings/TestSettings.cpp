// SPDX-License-Identifier: GPL-3.0-or-later
#include "JsonReader.h"
#include "LogCapture.h"
#include "RecordCompare.h"
#include "RunAsNobody.h"
#include "Settings.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {
// Storage whose text the test can see after the Settings took ownership of it.
struct SharedStorage : SettingsStorage
{
    explicit SharedStorage(MemorySettingsStorage *target) : target(target) {}
    std::optional<QString> read() override { return target->read(); }
    bool write(const QString &text, QString *error) override { return target->write(text, error); }
    MemorySettingsStorage *target;
};

std::unique_ptr<Settings> loadFrom(MemorySettingsStorage &memory)
{
    return Settings::load(std::make_unique<SharedStorage>(&memory));
}

QJsonObject storedObject(const MemorySettingsStorage &memory)
{
    return QJsonDocument::fromJson(memory.text.value_or(QString()).toUtf8()).object();
}

const QByteArray validDocument =
    R"({"devices":[],"crashesByVersion":{"1.0.0":3},"installedAt":536457600.25,)"
    R"("lastRatingsPrompt":536457600.5,"hasPromptedForRating":true,"hasRated":false})";

bool isFresh(const QJsonObject &json, double before, double after)
{
    const double installed = json.value("installedAt").toDouble();
    return json.value("devices").toArray().isEmpty() &&
           json.value("crashesByVersion").toObject().isEmpty() && installed >= before &&
           installed <= after && json.value("lastRatingsPrompt").toDouble() >= installed &&
           json.value("lastRatingsPrompt").toDouble() <= after &&
           json.value("hasPromptedForRating") == QJsonValue(false) &&
           json.value("hasRated") == QJsonValue(false) && json.size() == 6;
}
} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    // QSettings reads its folder once per process, so the whole suite shares one.
    void initTestCase() { qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8()); }
    void init() { QCoreApplication::setApplicationVersion(QStringLiteral("1.2.0")); }
    void firstStartCreatesAndSavesFreshDocument();
    void referenceDateEpoch();
    void readsAValidDocumentWithoutSaving();
    void undecodableDocumentIsReplaced_data();
    void undecodableDocumentIsReplaced();
    void nonUtf8TextIsReplacedSilently();
    void extraKeysAreDroppedAtNextSave();
    void devicesSurviveSaveAndLoad();
    void crashCountsPerVersion();
    void missingVersionCountsUnderPlaceholder();
    void userStoreRoundTrip();
    void unwritableStoreKeepsSessionGoing();
    void fuzzFindingsRoundTrip_data();
    void fuzzFindingsRoundTrip();

private:
    QTemporaryDir m_config;
};

void TestSettings::firstStartCreatesAndSavesFreshDocument()
{
    MemorySettingsStorage memory;
    const double before = referenceDateNow();
    const auto settings = loadFrom(memory);
    const double after = referenceDateNow();
    QCOMPARE(memory.writes, 1);
    QVERIFY(isFresh(storedObject(memory), before, after));
    QVERIFY(memory.text->startsWith(QStringLiteral("{\""))); // compact, no extra white space
    QVERIFY(!memory.text->contains(QLatin1Char('\n')));
    QVERIFY(settings->devices.empty());
}

void TestSettings::referenceDateEpoch()
{
    // Stored dates count from 2001-01-01, not 1970-01-01.
    const double now = referenceDateNow();
    const double expected = QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC)
                                .msecsTo(QDateTime::currentDateTimeUtc()) /
                            1000.0;
    QVERIFY(std::abs(now - expected) < 5);
    QCOMPARE(QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC)
                 .secsTo(QDateTime(QDate(2018, 1, 1), QTime(0, 0), Qt::UTC)),
             536457600);
}

void TestSettings::readsAValidDocumentWithoutSaving()
{
    MemorySettingsStorage memory;
    memory.text = QString::fromUtf8(validDocument);
    LogCapture capture;
    const auto settings = loadFrom(memory);
    QCOMPARE(memory.writes, 0);
    QCOMPARE(settings->installedAt, 536457600.25);
    QCOMPARE(settings->lastRatingsPrompt, 536457600.5);
    QCOMPARE(settings->hasPromptedForRating, true);
    QCOMPARE(settings->crashesByVersion.at(QStringLiteral("1.0.0")), 3);
    QVERIFY(capture.contains(LogLevel::Verbose, std::nullopt,
                             QStringLiteral("Loading settings:\n") + memory.text.value()));
}

void TestSettings::undecodableDocumentIsReplaced_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("errorPart");
    QByteArray missingRated = validDocument;
    missingRated.replace(R"(,"hasRated":false)", "");
    QTest::newRow("missing hasRated") << missingRated << "\"hasRated\"";
    QByteArray oddDevices = validDocument;
    oddDevices.replace(R"("devices":[])", R"("devices":["http://a/",{"name":"x"},"http://b/"])");
    QTest::newRow("odd-length devices") << oddDevices << "odd";
    QByteArray badUrl = validDocument;
    badUrl.replace(R"("devices":[])", R"("devices":["http://[x",{}])");
    QTest::newRow("device key not a URL") << badUrl << "not a valid URL";
    QByteArray badRecord = validDocument;
    badRecord.replace(R"("devices":[])",
                      R"("devices":["http://a/",{"name":"x","info":{"location":"http://a/"}}])");
    QTest::newRow("record without iconList") << badRecord << "\"iconList\"";
    QByteArray nameless = validDocument;
    nameless.replace(R"("devices":[])",
                     R"("devices":["http://a/",{"info":{"location":"http://a/","iconList":[]}}])");
    QTest::newRow("record without name") << nameless << "\"name\"";
    QByteArray badCount = validDocument;
    badCount.replace(R"({"1.0.0":3})", R"({"1.0.0":"3"})");
    QTest::newRow("crash count not an integer") << badCount << "\"1.0.0\"";
    QByteArray dateString = validDocument;
    dateString.replace("536457600.25", "\"2018-01-01\"");
    QTest::newRow("date as text") << dateString << "\"installedAt\"";
    QTest::newRow("not JSON") << QByteArray("{\"devices\":") << "JSON error";
    QTest::newRow("JSON array") << QByteArray("[]") << "not a JSON object";
    QTest::newRow("empty text") << QByteArray("") << "JSON error";
}

void TestSettings::undecodableDocumentIsReplaced()
{
    QFETCH(QByteArray, stored);
    QFETCH(QString, errorPart);
    MemorySettingsStorage memory;
    memory.text = QString::fromUtf8(stored);
    LogCapture capture;
    const double before = referenceDateNow();
    const auto settings = loadFrom(memory);

    const QStringList errors = capture.messages(LogLevel::Error);
    QCOMPARE(errors.size(), 1);
    QVERIFY(errors[0].startsWith(QStringLiteral("Failed to deserialize settings, ")));
    QVERIFY2(errors[0].contains(errorPart), qPrintable(errors[0]));
    QVERIFY(errors[0].endsWith(QStringLiteral(" - \"") + QString::fromUtf8(stored) + '"'));
    QCOMPARE(capture.entries().back().category, std::optional<QString>("settings"));
    QCOMPARE(memory.writes, 1);
    QVERIFY(isFresh(storedObject(memory), before, referenceDateNow()));
    QVERIFY(settings->devices.empty());
}

void TestSettings::nonUtf8TextIsReplacedSilently()
{
    MemorySettingsStorage memory;
    memory.text = QString::fromUtf8(validDocument) + QChar(0xD800); // lone surrogate
    LogCapture capture;
    const auto settings = loadFrom(memory);
    QCOMPARE(memory.writes, 1);
    QVERIFY(capture.messages(LogLevel::Error).isEmpty());
    QVERIFY(settings->crashesByVersion.empty());
}

void TestSettings::extraKeysAreDroppedAtNextSave()
{
    MemorySettingsStorage memory;
    QByteArray withExtra = validDocument;
    withExtra.insert(1, R"("sparkle":{"x":1},)");
    memory.text = QString::fromUtf8(withExtra);
    auto settings = loadFrom(memory);
    QCOMPARE(memory.writes, 0);
    settings->save();
    const QJsonObject saved = storedObject(memory);
    QVERIFY(!saved.contains("sparkle"));
    QCOMPARE(saved.value("installedAt").toDouble(), 536457600.25);
    QCOMPARE(saved.value("hasPromptedForRating"), QJsonValue(true));
}

void TestSettings::devicesSurviveSaveAndLoad()
{
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    const DeviceInfo info = fullDeviceInfo();
    settings->mergeDiscoveredSpeaker(info, DeviceTopology{false, QStringLiteral("G:1")});
    settings->mergeDiscoveredSpeaker(fullDeviceInfo(QStringLiteral("192.0.2.11")),
                                     DeviceTopology{true, QStringLiteral("G:1")});
    settings->renameDevice(info.location, QStringLiteral("Den"));
    settings->setDeviceEnabled(info.location, false);

    const QJsonArray devices = storedObject(memory).value("devices").toArray();
    QCOMPARE(devices.size(), 4);
    QCOMPARE(devices[0].toString(), absoluteString(info.location));

    const auto reloaded = loadFrom(memory);
    QCOMPARE(reloaded->devices.size(), 2u);
    const DeviceSettings &record = reloaded->devices.at(info.location);
    QCOMPARE(record.name, QStringLiteral("Den"));
    QCOMPARE(record.nameChanged, true);
    QCOMPARE(record.enabled, false);
    QCOMPARE(record.active, false); // never stored
    QCOMPARE(record.topology->group, QStringLiteral("G:1"));
    QVERIFY(sameInfo(record.info, info));
    QVERIFY(reloaded->activeDevices().empty());
}

void TestSettings::crashCountsPerVersion()
{
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    QCOMPARE(settings->crashCount(), 0);
    settings->recordCrashReport();
    settings->recordCrashReport();
    QCoreApplication::setApplicationVersion(QStringLiteral("1.3.0"));
    settings->recordCrashReport();
    QCOMPARE(memory.writes, 4);
    const QJsonObject crashes = storedObject(memory).value("crashesByVersion").toObject();
    QCOMPARE(crashes.value("1.2.0").toInteger(), 2);
    QCOMPARE(crashes.value("1.3.0").toInteger(), 1);
    QCOMPARE(loadFrom(memory)->crashCount(), 1);
}

void TestSettings::missingVersionCountsUnderPlaceholder()
{
    MemorySettingsStorage memory;
    auto settings = loadFrom(memory);
    QCoreApplication::setApplicationVersion(QString());
    LogCapture capture;
    QCOMPARE(Settings::currentVersion(), QStringLiteral("?.?.?"));
    QVERIFY(capture.contains(LogLevel::Error, QStringLiteral("settings"),
                             QStringLiteral("Failed to lookup CFBundleShortVersionString")));
    settings->recordCrashReport();
    QCOMPARE(settings->crashesByVersion.at(QStringLiteral("?.?.?")), 1);
}

void TestSettings::userStoreRoundTrip()
{
    {
        auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
        settings->mergeDiscoveredSpeaker(fullDeviceInfo(), DeviceTopology{true, "G"});
        settings->setDeviceEnabled(fullDeviceInfo().location, false);
    }
    QVERIFY(QFile::exists(m_config.filePath(QStringLiteral("Corvel/Corvel.conf"))));
    auto reloaded = Settings::load(std::make_unique<UserSettingsStorage>());
    QCOMPARE(reloaded->devices.size(), 1u);
    QCOMPARE(reloaded->devices.begin()->second.enabled, false);
    QCOMPARE(reloaded->devices.begin()->second.name,
             QStringLiteral("K\u00fcche \U0001F3B5 - PLAY:3"));
}

void TestSettings::unwritableStoreKeepsSessionGoing()
{
    // The settings folder is root's and read-only to the child: saves fail with a log line,
    // the session keeps its document, and the stored one is left as it was.
    const QString folder = m_config.filePath(QStringLiteral("Corvel"));
    const QString file = folder + QStringLiteral("/Corvel.conf");
    QVERIFY(QFile::exists(file));
    QFile stored(file);
    QVERIFY(stored.open(QIODevice::ReadOnly));
    const QByteArray before = stored.readAll();
    stored.close();
    const auto readable =
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther;
    QFile::setPermissions(m_config.path(), readable);
    QFile::setPermissions(folder,
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);
    const int verdict = runAsNobody([] {
        LogCapture capture;
        auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
        settings->setDeviceEnabled(fullDeviceInfo().location, true);
        const bool renamed = settings->renameDevice(fullDeviceInfo().location, "Den");
        const QStringList errors = capture.messages(LogLevel::Error);
        const DeviceSettings &record = settings->devices.begin()->second;
        return renamed && errors.size() == 2 &&
               errors[0].startsWith(QStringLiteral("Failed to save settings: ")) &&
               record.name == QStringLiteral("Den") && record.enabled;
    });
    QFile::setPermissions(folder, readable);
    QCOMPARE(verdict, 1);
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), before);
}

// Inputs the fuzzer once broke: each loads, saves, and loads again to the same text.
void TestSettings::fuzzFindingsRoundTrip_data()
{
    QTest::addColumn<QString>("path");
    const QDir folder(QStringLiteral(SETTINGS_REGRESSIONS));
    for (const QString &name : folder.entryList(QDir::Files))
        QTest::newRow(qPrintable(name)) << folder.filePath(name);
    QVERIFY(folder.entryList(QDir::Files).size() > 0);
}

void TestSettings::fuzzFindingsRoundTrip()
{
    QFETCH(QString, path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    auto storage = std::make_unique<MemorySettingsStorage>();
    MemorySettingsStorage *memory = storage.get();
    memory->text = QString::fromUtf8(file.readAll());
    auto settings = Settings::load(std::move(storage));
    settings->save();
    const QString saved = memory->text.value_or(QString());
    QString error;
    QVERIFY2(SettingsDocument::decode(saved.toUtf8(), &error), qPrintable(error));
    auto again = Settings::load(std::make_unique<MemorySettingsStorage>(*memory));
    again->save();
    QCOMPARE(again->storage().read(), saved);
}

QTEST_GUILESS_MAIN(TestSettings)
#include "TestSettings.moc"
