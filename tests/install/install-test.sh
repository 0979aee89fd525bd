#!/bin/sh
# Installs into a temporary prefix and checks what a desktop and a package manager read:
# the desktop entry, the AppStream metadata, the icon, the user unit, the translations, and the
# program itself.
set -eu
build="$1"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
for file in bin/corvel share/applications/org.corvel.Corvel.desktop \
    share/icons/hicolor/scalable/apps/org.corvel.Corvel.svg \
    share/metainfo/org.corvel.Corvel.metainfo.xml share/systemd/user/corvel.service \
    share/corvel/translations/corvel_de.qm; do
    [ -f "$prefix/$file" ] || { echo "missing: $file"; exit 1; }
done
[ -d "$prefix/libexec/corvel" ] || { echo "missing: libexec/corvel/"; exit 1; }
desktop-file-validate "$prefix/share/applications/org.corvel.Corvel.desktop"
appstreamcli validate --no-net --pedantic "$prefix/share/metainfo/org.corvel.Corvel.metainfo.xml" >/dev/null || {
    appstreamcli validate --no-net "$prefix/share/metainfo/org.corvel.Corvel.metainfo.xml"
    exit 1
}
grep -q "^ExecStart=$prefix/bin/corvel --headless$" "$prefix/share/systemd/user/corvel.service"
version="$(QT_QPA_PLATFORM=offscreen "$prefix/bin/corvel" --version)"
case "$version" in "Corvel "[0-9]*) ;; *) echo "unexpected --version: $version"; exit 1 ;; esac
echo "installed and validated: $version"
