// SPDX-License-Identifier: GPL-3.0-or-later
// Strict typed reading of one JSON object: the first missing key or wrong type is kept as
// the error, and every later read returns nothing.
#pragma once

#include <optional>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>

class JsonReader
{
public:
    // context names the object in error texts, e.g. "DeviceInfo".
    JsonReader(const QJsonObject &object, QString context);

    // The value under key as T: QString, qint64 (a whole number that fits 64 bits exactly),
    // float (finite, within float's range), double, bool, QUrl (a string holding a valid URL),
    // QJsonArray or QJsonObject. Absent, or of another type (which is the error), gives nothing.
    template <typename T> std::optional<T> get(const QString &key, bool required = false);

    // A value holding a whole number that fits 64 bits exactly, else nothing.
    static std::optional<qint64> integerValue(const QJsonValue &value);

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }
    // Records a failure found by the caller (the first one wins).
    void fail(const QString &message);

private:
    QJsonObject m_object;
    QString m_context;
    QString m_error;
};

// The URL's text as stored and logged: fully encoded, so it parses back to the same URL.
QString absoluteString(const QUrl &url);
// Parses a URL the way stored documents are read: non-empty and valid, else nothing.
std::optional<QUrl> parseUrl(const QString &text);
