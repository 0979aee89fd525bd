// SPDX-License-Identifier: GPL-3.0-or-later
#include "Translations.h"

#include "Logging.h"

#include <memory>
#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

QString Translations::folder()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../share/corvel/translations");
}

int Translations::install(const QLocale &locale)
{
    static std::unique_ptr<QTranslator> corvel;
    static std::unique_ptr<QTranslator> qt;
    // A translator leaves the application when it is deleted.
    corvel.reset();
    qt.reset();
    int loaded = 0;
    const auto load = [&](std::unique_ptr<QTranslator> &slot, const QString &name,
                          const QString &dir) {
        auto translator = std::make_unique<QTranslator>();
        if (!translator->load(locale, name, QStringLiteral("_"), dir))
            return;
        logInfo(
            QStringLiteral("Translation for %1: %2").arg(locale.name(), translator->filePath()));
        QCoreApplication::installTranslator(translator.get());
        slot = std::move(translator);
        ++loaded;
    };
    // English is the source language: nothing to load. Only the first language counts, or
    // an English user with a second language would get that one. ("C" has no file to load.)
    if (locale.uiLanguages().value(0).startsWith(QLatin1String("en")))
        return 0;
    load(corvel, QStringLiteral("corvel"), folder());
    load(qt, QStringLiteral("qtbase"), QLibraryInfo::path(QLibraryInfo::TranslationsPath));
    return loaded;
}
