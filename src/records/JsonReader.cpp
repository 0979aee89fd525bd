// SPDX-License-Identifier: GPL-3.0-or-later
#include "JsonReader.h"

#include <cfloat>
#include <cmath>
#include <limits>

JsonReader::JsonReader(const QJsonObject &object, QString context)
    : m_object(object), m_context(std::move(context))
{
}

void JsonReader::fail(const QString &message)
{
    if (m_error.isEmpty())
        m_error = m_context + QStringLiteral(": ") + message;
}

std::optional<qint64> JsonReader::integerValue(const QJsonValue &value)
{
    // toInteger gives its default for a fraction or a value beyond 64 bits; two
    // different defaults tell that apart from any stored value.
    using Limits = std::numeric_limits<qint64>;
    if (!value.isDouble() || value.toInteger(Limits::min()) != value.toInteger(Limits::max()))
        return std::nullopt;
    return value.toInteger();
}

namespace {
// The value as T with the name of the type expected, for the error text.
template <typename T> std::pair<std::optional<T>, const char *> convert(const QJsonValue &v)
{
    if constexpr (std::is_same_v<T, QString>)
        return {v.isString() ? std::optional(v.toString()) : std::nullopt, "a string"};
    else if constexpr (std::is_same_v<T, qint64>)
        return {JsonReader::integerValue(v), "a 64-bit integer"};
    else if constexpr (std::is_same_v<T, float>) {
        const double d = v.toDouble();
        const bool fits = v.isDouble() && std::isfinite(d) && std::fabs(d) <= FLT_MAX;
        return {fits ? std::optional(static_cast<float>(d)) : std::nullopt, "a 32-bit float"};
    } else if constexpr (std::is_same_v<T, double>)
        return {v.isDouble() ? std::optional(v.toDouble()) : std::nullopt, "a number"};
    else if constexpr (std::is_same_v<T, bool>)
        return {v.isBool() ? std::optional(v.toBool()) : std::nullopt, "true or false"};
    else if constexpr (std::is_same_v<T, QJsonArray>)
        return {v.isArray() ? std::optional(v.toArray()) : std::nullopt, "an array"};
    else
        return {v.isObject() ? std::optional(v.toObject()) : std::nullopt, "an object"};
}
} // namespace

template <typename T> std::optional<T> JsonReader::get(const QString &key, bool required)
{
    if (!ok())
        return std::nullopt;
    const auto it = m_object.constFind(key);
    // null for an optional key reads as absent.
    if (it == m_object.constEnd() || (!required && it.value().isNull())) {
        if (required)
            fail(QStringLiteral("missing key \"%1\"").arg(key));
        return std::nullopt;
    }
    if constexpr (std::is_same_v<T, QUrl>) {
        const auto text = get<QString>(key, required);
        if (!text)
            return std::nullopt;
        auto parsed = parseUrl(*text);
        if (!parsed)
            fail(QStringLiteral("value for key \"%1\" is not a valid URL: \"%2\"").arg(key, *text));
        return parsed;
    } else {
        auto [value, expected] = convert<T>(it.value());
        if (!value)
            fail(
                QStringLiteral("value for key \"%1\" is not %2").arg(key, QLatin1String(expected)));
        return value;
    }
}

template std::optional<QString> JsonReader::get(const QString &, bool);
template std::optional<qint64> JsonReader::get(const QString &, bool);
template std::optional<float> JsonReader::get(const QString &, bool);
template std::optional<double> JsonReader::get(const QString &, bool);
template std::optional<bool> JsonReader::get(const QString &, bool);
template std::optional<QUrl> JsonReader::get(const QString &, bool);
template std::optional<QJsonArray> JsonReader::get(const QString &, bool);
template std::optional<QJsonObject> JsonReader::get(const QString &, bool);

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
