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

    std::optional<QString> string(const QString &key, bool required = false);
    std::optional<qint64> integer(const QString &key, bool required = false);
    std::optional<float> floatNumber(const QString &key, bool required = false);
    std::optional<double> number(const QString &key, bool required = false);
    std::optional<bool> boolean(const QString &key, bool required = false);
    // A string holding a valid URL.
    std::optional<QUrl> url(const QString &key, bool required = false);
    std::optional<QJsonArray> array(const QString &key, bool required = false);
    std::optional<QJsonObject> object(const QString &key, bool required = false);

    // A value holding a whole number that fits 64 bits exactly, else nothing.
    static std::optional<qint64> integerValue(const QJsonValue &value);

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }
    // Records a failure found by the caller (the first one wins).
    void fail(const QString &message);

private:
    // The value under key when it is present and the reader is still ok.
    std::optional<QJsonValue> value(const QString &key, bool required);
    void typeMismatch(const QString &key, const char *expected);

    QJsonObject m_object;
    QString m_context;
    QString m_error;
};

// The URL's text as stored and logged: fully encoded, so it parses back to the same URL.
QString absoluteString(const QUrl &url);
// Parses a URL the way stored documents are read: non-empty and valid, else nothing.
std::optional<QUrl> parseUrl(const QString &text);
