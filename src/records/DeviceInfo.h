// SPDX-License-Identifier: GPL-3.0-or-later
// The records that describe one speaker: its description, its icons and its zone group.
#pragma once

#include <memory>
#include <optional>
#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QUrl>
#include <variant>
#include <vector>

// What a speaker says about itself in its SSDP answer and its UPnP device description.
// Only location and iconList are always present.
struct DeviceInfo
{
    // One entry of the description's icon list; built once and shared between copies.
    struct Icon
    {
        std::optional<qint64> id;
        std::optional<QString> mimetype;
        std::optional<qint64> width;
        std::optional<qint64> height;
        std::optional<qint64> depth;
        std::optional<QUrl> url; // absolute, resolved against the speaker's location

        QJsonObject toJson() const;
        // Strict read; on failure returns nullptr and fills *error.
        static std::shared_ptr<const Icon> fromJson(const QJsonObject &object, QString *error);
    };

    QUrl location; // the speaker's identity
    std::optional<QString> server;
    std::optional<QString> deviceType;
    std::optional<QString> friendlyName;
    std::optional<QString> manufacturer;
    std::optional<QUrl> manufacturerURL;
    std::optional<QString> modelNumber;
    std::optional<QString> modelDescription;
    std::optional<QString> modelName;
    std::optional<QUrl> modelURL;
    std::optional<QString> softwareVersion;
    std::optional<QString> hardwareVersion;
    std::optional<QString> serialNum;
    std::optional<QString> udn; // as written, normally with its "uuid:" prefix
    std::vector<std::shared_ptr<const Icon>> iconList;
    std::optional<QString> minCompatibleVersion;
    std::optional<QString> legacyCompatibleVersion;
    std::optional<QString> apiVersion;
    std::optional<QString> displayVersion;
    std::optional<QString> extraVersion;
    std::optional<QString> roomName;
    std::optional<QString> displayName;
    std::optional<qint64> zoneType;
    std::optional<QString> feature1;
    std::optional<QString> feature2;
    std::optional<QString> feature3;
    std::optional<qint64> variant;
    std::optional<qint64> internalSpeakerSize;
    std::optional<float> bassExtension;
    std::optional<float> satGainOffset;
    std::optional<qint64> memory;
    std::optional<qint64> flash;
    std::optional<qint64> flashRepartitioned;
    std::optional<qint64> ampOnTime;
    std::optional<qint64> retailMode;

    // The name a new speaker is shown under: "room - display name", else the friendly
    // name, else the location's host, else the location's text. Empty texts count as present.
    QString defaultName() const;
    // Whether c breaks a line of text: C0 and C1 controls, DEL, line and paragraph separators.
    static bool isControlCharacter(QChar c);
    // Whether the speaker is an AirPlay speaker itself: any model not on the list of those
    // without AirPlay. A description without a model number counts as without AirPlay.
    bool hasOwnAirPlay() const;

    // Absent fields are not written; a non-finite float is not written either, so that
    // a bad description can never make the settings unreadable.
    QJsonObject toJson() const;
    // Strict read: "location" and "iconList" required, types checked, unknown keys ignored.
    static std::optional<DeviceInfo> fromJson(const QJsonObject &object, QString *error);

    // Equal when every field is (icons by content).
    bool operator==(const DeviceInfo &other) const;
};

// One optional field of a record: its JSON key, its element in the description (null when the
// description does not carry it) and the member that holds it.
template <typename Record> struct RecordField
{
    using Member = std::variant<std::optional<QString> Record::*, std::optional<QUrl> Record::*,
                                std::optional<qint64> Record::*, std::optional<float> Record::*>;
    const char *key;
    const char *element;
    Member member;
};
// Every optional field of DeviceInfo, in the description's order (location and iconList are
// not among them), and of an icon (its url is resolved against the location, so it is not
// among them either). The parser, the JSON reader and writer and comparisons all use these.
extern const std::vector<RecordField<DeviceInfo>> deviceInfoFields;
extern const std::vector<RecordField<DeviceInfo::Icon>> iconFields;

// A speaker's membership in a zone group.
struct DeviceTopology
{
    bool coordinator = true;
    QString group;

    QJsonObject toJson() const;
    // Both keys are required.
    static std::optional<DeviceTopology> fromJson(const QJsonObject &object, QString *error);
};

// A location as a map key: the URL with its text, made once. Keys order by the text, so
// menus, the window and the bridge configuration list speakers in one stable order, and a
// comparison costs no conversion of URLs to text.
struct LocationKey
{
    LocationKey(const QUrl &location); // implicit: every QUrl names a key
    operator const QUrl &() const { return url; }
    bool operator<(const LocationKey &other) const { return text < other.text; }
    bool operator==(const LocationKey &other) const { return text == other.text; }

    QUrl url;
    QString text; // absoluteString(url)
};

Q_DECLARE_METATYPE(DeviceInfo)
Q_DECLARE_METATYPE(DeviceTopology)
