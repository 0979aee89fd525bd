#!/usr/bin/env python3
# Fails when a translation loses or gains a placeholder (%1 … %9, %n) or a mnemonic (&) of
# its source text: a lost %1 drops a name from a sentence, a lost & a keyboard shortcut.
import re
import sys
import xml.etree.ElementTree as ET

MARKS = re.compile(r"%[1-9n]|&[^& ]")


def marks(text):
    return sorted("&" if m.startswith("&") else m for m in MARKS.findall(text or ""))


failures, checked = [], 0
for path in sys.argv[1:]:
    for message in ET.parse(path).getroot().iter("message"):
        source = message.findtext("source")
        translation = message.find("translation")
        forms = translation.findall("numerusform") or [translation]
        for form in forms:
            checked += 1
            if marks(source) != marks(form.text):
                failures.append("%s: %r -> %r" % (path, source, form.text))
print("\n".join(failures) or "%d translations keep their placeholders and mnemonics" % checked)
sys.exit(1 if failures or checked < 100 else 0)
