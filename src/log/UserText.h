// SPDX-License-Identifier: GPL-3.0-or-later
// A message that is both logged and shown: English in the log, the user's language on screen.
// The source text is marked for the translation tools with QT_TRANSLATE_NOOP(context, ...).
#pragma once

#include <QCoreApplication>
#include <QString>

// The text for quoting in a message: its first max characters, then "…" when it was longer.
inline QString excerpt(const QString &text, qsizetype max = 60)
{
    return text.size() <= max ? text : text.left(max) + QStringLiteral("…");
}

struct UserText
{
    QString english;
    QString shown;

    // args are strings, as QString::arg takes several at once.
    template <typename... Args>
    static UserText make(const char *context, const char *source, const Args &...args)
    {
        if constexpr (sizeof...(Args) == 0)
            return {QString::fromUtf8(source), QCoreApplication::translate(context, source)};
        else
            return {QString::fromUtf8(source).arg(args...),
                    QCoreApplication::translate(context, source).arg(args...)};
    }
};
