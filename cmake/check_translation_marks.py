#!/usr/bin/env python3
# Fails when a translation loses or gains a placeholder (%1 … %9, %n) or a mnemonic (&) of
# its source text: a lost %1 drops a name from a sentence, a lost & a keyboard shortcut. Also
# fails when two texts shown side by side share a mnemonic in a language (one key press would
# do either).
import itertools
import re
import sys
import xml.etree.ElementTree as ET

MARKS = re.compile(r"%[1-9n]|&[^& ]")


def marks(text):
    return sorted("&" if m.startswith("&") else m for m in MARKS.findall(text or ""))


# Where texts are shown together: a tray menu, the preferences window (with the tray menu's
# commands, as without a tray). One wording of a group is shown at a time (one item or button).
TOGETHER = {
    "TrayPresenter": [["Turn Corvel &On", "Turn Corvel &Off", "&Install Bridge…"]],
    "PreferencesWindow": [["&Start", "&Stop", "&Install Bridge…", "Search &Again"]],
}


def mnemonic(text):
    text = text.replace("&&", "")
    at = text.find("&")
    return text[at + 1].lower() if 0 <= at < len(text) - 1 else None


def shared_mnemonics(path, context, texts):
    """texts: source -> translation of one context; the failures of both languages."""
    found = []
    groups = TOGETHER[context]
    for group in groups:
        found += ["%s: %s has no %r" % (path, context, s) for s in group if s not in texts]
    alone = [s for s in texts if mnemonic(s) and not any(s in g for g in groups)]
    for language in (lambda s: s, lambda s: texts[s]):
        for chosen in itertools.product(*groups):
            shown = [language(s) for s in alone + list(chosen) if s in texts]
            keys = [mnemonic(t) for t in shown]
            if len(set(keys)) != len(keys):
                found.append("%s: %s shares a mnemonic: %s" % (path, context, " | ".join(shown)))
    return found


failures, checked = [], 0
for path in sys.argv[1:]:
    root = ET.parse(path).getroot()
    for context in root.iter("context"):
        name = context.findtext("name")
        if name in TOGETHER:
            texts = {m.findtext("source"): m.findtext("translation") or ""
                     for m in context.iter("message")}
            failures += shared_mnemonics(path, name, texts)
    for message in root.iter("message"):
        source = message.findtext("source")
        translation = message.find("translation")
        forms = translation.findall("numerusform") or [translation]
        for form in forms:
            checked += 1
            if marks(source) != marks(form.text):
                failures.append("%s: %r -> %r" % (path, source, form.text))
print("\n".join(failures) or "%d translations keep their placeholders and mnemonics" % checked)
sys.exit(1 if failures or checked < 100 else 0)
