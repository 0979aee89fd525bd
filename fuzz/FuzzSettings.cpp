// SPDX-License-Identifier: GPL-3.0-or-later
// The stored settings text through the whole load path; a document that loads must save and
// load again to the same text.
#include "Settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto storage = std::make_unique<MemorySettingsStorage>();
    MemorySettingsStorage *memory = storage.get();
    memory->text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    auto settings = Settings::load(std::move(storage));
    settings->save();
    const QString saved = memory->text.value_or(QString());
    auto again = Settings::load(std::make_unique<MemorySettingsStorage>(*memory));
    again->save();
    if (again->storage().read() != saved)
        __builtin_trap();
    return 0;
}
