// SPDX-License-Identifier: GPL-3.0-or-later
#include "JsonReader.h"

#include <cfloat>
#include <cmath>
#include <QJsonArray>

JsonReader::JsonReader(const QJsonObject &object, QString context)
    : m_object(object), m_context(std::move(context))
{
}

void JsonReader::fail(const QString &message)
{
    if (m_error.isEmpty())
        m_error = m_context + QStringLiteral(": ") + message;
}

void JsonReader::typeMismatch(const QString &key, const char *expected)
{
    fail(QStringLiteral("value for key \"%1\" is not %2").arg(key, QLatin1String(expected)));
}

std::optional<QJsonValue> JsonReader::value(const QString &key, bool required)
{
    if (!ok())
        return std::nullopt;
    const auto it = m_object.constFind(key);
    if (it == m_object.constEnd()) {
        if (required)
            fail(QStringLiteral("missing key \"%1\"").arg(key));
        return std::nullopt;
    }
    return it.value();
}

std::optional<QString> JsonReader::string(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    if (!v->isString()) {
        typeMismatch(key, "a string");
        return std::nullopt;
    }
    return v->toString();
}

std::optional<qint64> JsonReader::integer(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    const auto number = integerValue(*v);
    if (!number)
        typeMismatch(key, "a 64-bit integer");
    return number;
}

std::optional<qint64> JsonReader::integerValue(const QJsonValue &value)
{
    // toInteger gives its default for a fraction or a value beyond 64 bits; two
    // different defaults tell that apart from a stored 0 or 1.
    if (!value.isDouble() || value.toInteger(0) != value.toInteger(1))
        return std::nullopt;
    return value.toInteger();
}

std::optional<float> JsonReader::floatNumber(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    const double d = v->toDouble();
    if (!v->isDouble() || !std::isfinite(d) || std::fabs(d) > FLT_MAX) {
        typeMismatch(key, "a 32-bit float");
        return std::nullopt;
    }
    return static_cast<float>(d);
}

std::optional<double> JsonReader::number(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    if (!v->isDouble()) {
        typeMismatch(key, "a number");
        return std::nullopt;
    }
    return v->toDouble();
}

std::optional<bool> JsonReader::boolean(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    if (!v->isBool()) {
        typeMismatch(key, "true or false");
        return std::nullopt;
    }
    return v->toBool();
}

std::optional<QUrl> JsonReader::url(const QString &key, bool required)
{
    const auto text = string(key, required);
    if (!text)
        return std::nullopt;
    auto parsed = parseUrl(*text);
    if (!parsed)
        fail(QStringLiteral("value for key \"%1\" is not a valid URL: \"%2\"").arg(key, *text));
    return parsed;
}

std::optional<QJsonArray> JsonReader::array(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    if (!v->isArray()) {
        typeMismatch(key, "an array");
        return std::nullopt;
    }
    return v->toArray();
}

std::optional<QJsonObject> JsonReader::object(const QString &key, bool required)
{
    const auto v = value(key, required);
    if (!v)
        return std::nullopt;
    if (!v->isObject()) {
        typeMismatch(key, "an object");
        return std::nullopt;
    }
    return v->toObject();
}

QString absoluteString(const QUrl &url)
{
    return url.toString(QUrl::FullyEncoded);
}

std::optional<QUrl> parseUrl(const QString &text)
{
    if (text.isEmpty())
        return std::nullopt;
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}
