// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel in the user's language: its own translations and Qt's (for the standard dialogs and
// buttons), installed on the application before any window or message is made.
#pragma once

#include <QLocale>
#include <QString>

namespace Translations {
// Where Corvel's .qm files are: share/corvel/translations beside the program's bin folder,
// the same in the install prefix and in the build tree.
QString folder();
// Installs the translators for locale in place of any installed before. Returns how many
// were found: 0 for English, which needs none.
int install(const QLocale &locale = QLocale::system());
} // namespace Translations
