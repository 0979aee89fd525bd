// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceInfo.h"
#include "JsonReader.h"
#include "TestSupport.h"

#include <cmath>
#include <QJsonDocument>

namespace {
QJsonObject object(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}
} // namespace

class TestRecords : public QObject
{
    Q_OBJECT

private slots:
    void everyFieldSurvivesText();
    void strictReading_data();
    void strictReading();
    void defaultName_data();
    void defaultName();
    void topologyAndLocationOrder();
};

void TestRecords::everyFieldSurvivesText()
{
    // The settings keep records as text: 64-bit integers, float values and non-BMP text must
    // come back exactly, and every field of the table must be read and written.
    const QByteArray golden = testData(QStringLiteral("records/every-field.json"));
    QString error;
    const auto info = DeviceInfo::fromJson(object(golden), &error);
    QVERIFY2(info, qPrintable(error));
    QCOMPARE(*info->memory, 9007199254740993LL);
    QCOMPARE(*info->flash, std::numeric_limits<qint64>::min());
    QVERIFY(*info->satGainOffset == 0.1f && info->iconList.size() == 2u);
    const QByteArray text = QJsonDocument(info->toJson()).toJson(QJsonDocument::Compact);
    QCOMPARE(object(text), object(golden));
    QCOMPARE(object(text).size(), int(deviceInfoFields.size()) + 2);
    QVERIFY(*DeviceInfo::fromJson(object(text), nullptr) == *info);
    DeviceInfo renamed = *info;
    renamed.roomName = QStringLiteral("Bad");
    QVERIFY(!(renamed == *info));
    // A float JSON cannot hold (NaN, infinity) is left out, and the rest still reads.
    renamed.bassExtension = std::nanf("");
    renamed.satGainOffset = -INFINITY;
    const QJsonObject odd = renamed.toJson();
    QVERIFY(!odd.contains("bassExtension") && !odd.contains("satGainOffset"));
    QVERIFY(DeviceInfo::fromJson(odd, nullptr));
    // null for an optional key reads as absent; for a required one it is an error.
    const QByteArray nullUdn = "{\"location\":\"http://a/\",\"iconList\":[],\"udn\":null}";
    QVERIFY(!DeviceInfo::fromJson(object(nullUdn), nullptr)->udn);
    const QByteArray nullLocation = "{\"location\":null,\"iconList\":[]}";
    QVERIFY(!DeviceInfo::fromJson(object(nullLocation), nullptr));
}

void TestRecords::strictReading_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("errorPart");
    for (const QStringList &column : tableRows(QStringLiteral("records/refused.txt"), 3)) {
        QTest::addRow("%s", qPrintable(column[0])) << column[1].toUtf8() << column[2];
    }
}

void TestRecords::strictReading()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, errorPart);
    QString error;
    QVERIFY(!DeviceInfo::fromJson(object(json), &error));
    QVERIFY2(error.startsWith(QLatin1String("DeviceInfo: ")) || error.startsWith("Icon: "),
             qPrintable(error));
    QVERIFY2(error.contains(errorPart), qPrintable(error));
}

void TestRecords::defaultName_data()
{
    QTest::addColumn<QStringList>("parts"); // room, display, friendly, location, name
    for (const QStringList &column : tableRows(QStringLiteral("records/names.txt"), 6))
        QTest::addRow("%s", qPrintable(column[0])) << column.mid(1);
}

void TestRecords::defaultName()
{
    QFETCH(QStringList, parts);
    const auto text = [&parts](int i) { // "-" is none
        const QJsonValue json = QJsonDocument::fromJson(("[\"" + parts[i] + "\"]").toUtf8())[0];
        return parts[i] == "-" ? std::nullopt : std::optional(json.toString());
    };
    DeviceInfo info;
    info.location = QUrl(*text(3));
    info.roomName = text(0);
    info.displayName = text(1);
    info.friendlyName = text(2);
    QCOMPARE(info.defaultName(), *text(4));
}

void TestRecords::topologyAndLocationOrder()
{
    const DeviceTopology topology{false, QStringLiteral("RINCON_1:5")};
    const auto read = DeviceTopology::fromJson(topology.toJson(), nullptr);
    QVERIFY(read && !read->coordinator && read->group == topology.group);
    QVERIFY(!DeviceTopology::fromJson(QJsonObject{{"group", "G"}}, nullptr) && // each is needed
            !DeviceTopology::fromJson(QJsonObject{{"coordinator", true}}, nullptr));
    QVERIFY(LocationKey(QUrl("http://127.0.1.10/")) < QUrl("http://127.0.1.2/"));
    QVERIFY(!(LocationKey(QUrl("http://a/")) < QUrl("http://a/")));
}

QTEST_GUILESS_MAIN(TestRecords)
#include "TestRecords.moc"
