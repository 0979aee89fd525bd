<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>AboutWindow</name>
    <message>
        <location filename="../src/windows/AboutWindow.cpp" line="+18"/>
        <source>About Corvel</source>
        <translation>Über Corvel</translation>
    </message>
    <message>
        <location line="+28"/>
        <source>Plays this computer&apos;s sound on Sonos speakers, and offers them to phones and other computers through the AirConnect bridge.</source>
        <translation>Spielt den Ton dieses Computers auf Sonos-Lautsprechern ab und bietet sie über die AirConnect-Brücke Telefonen und anderen Computern an.</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Website</source>
        <translation>Website</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Created by %1</source>
        <translation>Erstellt von %1</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Corvel is free software: you may redistribute and modify it under the %1, version 3 or (at your option) any later version. It comes with no warranty.</source>
        <translation>Corvel ist freie Software: Sie dürfen sie unter der %1, Version 3 oder (nach Ihrer Wahl) jeder späteren Version, weitergeben und verändern. Sie wird ohne jede Gewährleistung bereitgestellt.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>GNU General Public License</source>
        <translation>GNU General Public License</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>&amp;Copy Version Info</source>
        <translation>Versionsangaben &amp;kopieren</translation>
    </message>
</context>
<context>
    <name>BridgeLocator</name>
    <message>
        <location filename="../src/bridge/BridgeLocator.cpp" line="+121"/>
        <source>Cannot read %1: %2</source>
        <translation>%1 kann nicht gelesen werden: %2</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>%1 is the release&apos;s zip file: open it and choose %2 from inside.</source>
        <translation>%1 ist die ZIP-Datei des Release: Öffnen Sie sie und wählen Sie %2 darin aus.</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>%1 is a script, not the bridge: choose %2 from AirConnect&apos;s release.</source>
        <translation>%1 ist ein Skript, nicht die Brücke: Wählen Sie %2 aus dem Release von AirConnect.</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>%1 is not a Linux program.</source>
        <translation>%1 ist kein Linux-Programm.</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>%1 is built for another kind of computer; this one needs %2.</source>
        <translation>%1 ist für eine andere Art von Computer gebaut; dieser braucht %2.</translation>
    </message>
    <message>
        <location line="+25"/>
        <source>%1 is not the AirConnect bridge: asked for its options, it does not answer as the bridge does.</source>
        <translation>%1 ist nicht die AirConnect-Brücke: Nach seinen Optionen gefragt, antwortet es nicht wie die Brücke.</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Cannot copy the bridge to %1: %2</source>
        <translation>Die Bridge kann nicht nach %1 kopiert werden: %2</translation>
    </message>
</context>
<context>
    <name>BridgeOutput</name>
    <message>
        <location filename="../src/bridge/BridgeOutput.cpp" line="+35"/>
        <source>Another program holds the bridge&apos;s ports (%1): close it, or another copy of the bridge, and turn Corvel off and on.</source>
        <translation>Ein anderes Programm belegt die Ports der Brücke (%1): Beenden Sie es oder eine weitere Kopie der Brücke und schalten Sie Corvel aus und wieder ein.</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>The bridge could not start UPnP (%1): the network is not ready yet. Corvel tries again when it is.</source>
        <translation>Die Brücke konnte UPnP nicht starten (%1): Das Netzwerk ist noch nicht bereit. Corvel versucht es erneut, sobald es bereit ist.</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>The bridge could not offer %1 as an AirPlay target: another program may hold its ports.</source>
        <translation>Die Brücke konnte %1 nicht als AirPlay-Ziel anbieten: Möglicherweise belegt ein anderes Programm die Ports.</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>%1 stopped the stream right after fetching it: the speaker refused the audio format. Updating the bridge usually helps.</source>
        <translation>%1 hat die Wiedergabe gleich nach dem Abruf beendet: Der Lautsprecher hat das Audioformat abgelehnt. Meist hilft es, die Brücke zu aktualisieren.</translation>
    </message>
</context>
<context>
    <name>BridgeSetupWindow</name>
    <message>
        <location filename="../src/windows/BridgeSetupWindow.cpp" line="+22"/>
        <source>Set Up the AirConnect Bridge</source>
        <translation>AirConnect-Bridge einrichten</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>&lt;p&gt;Corvel plays this computer&apos;s sound to your speakers by itself. For phones, tablets and other computers it runs AirConnect, a free program that makes Sonos speakers appear as AirPlay speakers. It is not installed on this computer yet.&lt;/p&gt;&lt;p&gt;Download &lt;b&gt;%1&lt;/b&gt; from &lt;a href=&quot;%2&quot;&gt;AirConnect&apos;s releases page&lt;/a&gt; (it is inside the zip file of the latest release), then choose the downloaded file here.&lt;/p&gt;</source>
        <translation>&lt;p&gt;Corvel spielt den Ton dieses Computers selbst auf Ihren Lautsprechern ab. Für Telefone, Tablets und andere Computer führt es AirConnect aus, ein kostenloses Programm, das Sonos-Lautsprecher als AirPlay-Lautsprecher erscheinen lässt. Es ist auf diesem Computer noch nicht installiert.&lt;/p&gt;&lt;p&gt;Laden Sie &lt;b&gt;%1&lt;/b&gt; von der &lt;a href=&quot;%2&quot;&gt;Release-Seite von AirConnect&lt;/a&gt; herunter (die Datei liegt in der ZIP-Datei des neuesten Release) und wählen Sie die heruntergeladene Datei dann hier aus.&lt;/p&gt;</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>Places Corvel looked in</source>
        <translation>Orte, an denen Corvel gesucht hat</translation>
    </message>
    <message>
        <location line="+19"/>
        <source>&amp;Choose Downloaded File…</source>
        <translation>Heruntergeladene Datei &amp;wählen…</translation>
    </message>
    <message>
        <location line="+13"/>
        <source>Corvel looks for %1 in its own folder, in %2 and on the PATH; the environment variable CORVEL_BRIDGE may name the file instead. It looked in:
%3</source>
        <translation>Corvel sucht %1 im eigenen Ordner, in %2 und im PATH; stattdessen kann die Umgebungsvariable CORVEL_BRIDGE die Datei nennen. Gesucht wurde in:
%3</translation>
    </message>
    <message>
        <location line="+12"/>
        <source>Choose the AirConnect Bridge</source>
        <translation>AirConnect-Bridge wählen</translation>
    </message>
    <message>
        <location line="+20"/>
        <source>&lt;p&gt;The AirConnect bridge is installed in %1.&lt;/p&gt;</source>
        <translation>&lt;p&gt;Die AirConnect-Brücke ist in %1 installiert.&lt;/p&gt;</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Installed. Corvel is looking for your speakers.</source>
        <translation>Installiert. Corvel sucht jetzt Ihre Lautsprecher.</translation>
    </message>
</context>
<context>
    <name>Controller</name>
    <message>
        <location filename="../src/app/Controller.cpp" line="+230"/>
        <source>AirConnect bridge needed</source>
        <translation>AirConnect-Bridge benötigt</translation>
    </message>
    <message>
        <location line="-5"/>
        <source>AirConnect bridge not set up</source>
        <translation>AirConnect-Brücke nicht eingerichtet</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>This computer plays to your speakers without it. Set up the free AirConnect bridge so that phones and other computers can too.</source>
        <translation>Dieser Computer spielt auch ohne sie auf Ihren Lautsprechern. Richten Sie die kostenlose AirConnect-Brücke ein, damit auch Telefone und andere Computer es können.</translation>
    </message>
    <message>
        <location line="+2"/>
        <location line="+6"/>
        <source>Set Up…</source>
        <translation>Einrichten…</translation>
    </message>
    <message>
        <location line="-3"/>
        <source>Corvel needs the free AirConnect bridge to play to your speakers from phones and other computers. This computer&apos;s own sound needs no bridge: turn on sound outputs in Preferences.</source>
        <translation>Corvel braucht die kostenlose AirConnect-Brücke, damit Telefone und andere Computer auf Ihren Lautsprechern spielen können. Der Ton dieses Computers braucht keine Brücke: Schalten Sie in den Einstellungen die Tonausgaben ein.</translation>
    </message>
    <message>
        <location line="+6"/>
        <location line="+4"/>
        <source>AirConnect bridge stopped</source>
        <translation>AirConnect-Bridge angehalten</translation>
    </message>
    <message>
        <location line="-3"/>
        <source>The bridge stopped unexpectedly; Corvel is restarting it.</source>
        <translation>Die Bridge wurde unerwartet beendet; Corvel startet sie neu.</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The bridge was not ready within 20 seconds, so Corvel stopped it; it is starting it again.</source>
        <translation>Die Brücke war nach 20 Sekunden nicht bereit, deshalb hat Corvel sie beendet; es startet sie erneut.</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Corvel stopped</source>
        <translation>Corvel angehalten</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The AirConnect bridge keeps stopping, so Corvel has stopped restarting it. Its last words:
%1</source>
        <translation>Die AirConnect-Bridge bricht immer wieder ab, deshalb startet Corvel sie nicht mehr neu. Ihre letzten Ausgaben:
%1</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>(nothing)</source>
        <translation>(nichts)</translation>
    </message>
    <message>
        <location line="+203"/>
        <source>Corvel</source>
        <translation>Corvel</translation>
    </message>
</context>
<context>
    <name>CrashPrompt</name>
    <message>
        <location filename="../src/windows/CrashPrompt.cpp" line="+41"/>
        <source>Corvel quit unexpectedly</source>
        <translation>Corvel wurde unerwartet beendet</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel quit unexpectedly the last time it ran.</source>
        <translation>Corvel wurde beim letzten Mal unerwartet beendet.</translation>
    </message>
    <message numerus="yes">
        <location line="+1"/>
        <source>Corvel quit unexpectedly %n times since it last asked.</source>
        <translation>
            <numerusform>Corvel wurde seit der letzten Nachfrage %n-mal unerwartet beendet.</numerusform>
            <numerusform>Corvel wurde seit der letzten Nachfrage %n-mal unerwartet beendet.</numerusform>
        </translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Would you like to send a report? It holds where Corvel crashed and its recent log, which names your speakers and their addresses on your network.</source>
        <translation>Möchten Sie einen Bericht senden? Er enthält, wo Corvel abgestürzt ist, und das jüngste Protokoll, in dem Ihre Lautsprecher und ihre Adressen in Ihrem Netzwerk stehen.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>You can save a report to attach to a bug report. It holds where Corvel crashed and its recent log, which names your speakers and their addresses on your network.</source>
        <translation>Sie können einen Bericht speichern, um ihn einer Fehlermeldung beizufügen. Er enthält, wo Corvel abgestürzt ist, und das jüngste Protokoll, in dem Ihre Lautsprecher und ihre Adressen in Ihrem Netzwerk stehen.</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Send</source>
        <translation>Senden</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Save Report…</source>
        <translation>Bericht speichern…</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Always Send</source>
        <translation>Immer senden</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Don&apos;t Send</source>
        <translation>Nicht senden</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Don&apos;t Save</source>
        <translation>Nicht speichern</translation>
    </message>
    <message>
        <location line="+21"/>
        <source>Save Crash Report</source>
        <translation>Absturzbericht speichern</translation>
    </message>
</context>
<context>
    <name>DeviceSettings</name>
    <message>
        <location filename="../src/settings/DeviceSettings.cpp" line="+16"/>
        <source>A speaker needs a name: the old one stays.</source>
        <translation>Ein Lautsprecher braucht einen Namen: Der bisherige bleibt.</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>A speaker name is one line of text, without control characters or line breaks.</source>
        <translation>Ein Lautsprechername ist eine Zeile Text, ohne Steuerzeichen oder Zeilenumbrüche.</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>A speaker name can be at most %1 bytes long (about %1 letters, fewer with accents or emoji); &quot;%2&quot; has %3.</source>
        <translation>Ein Lautsprechername darf höchstens %1 Bytes lang sein (etwa %1 Buchstaben, weniger mit Umlauten, Akzenten oder Emoji); „%2“ hat %3.</translation>
    </message>
</context>
<context>
    <name>FeedbackWindow</name>
    <message>
        <location filename="../src/windows/FeedbackWindow.cpp" line="+23"/>
        <source>Send Feedback</source>
        <translation>Feedback senden</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Optional</source>
        <translation>Freiwillig</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Optional, if you would like an answer</source>
        <translation>Freiwillig, falls Sie eine Antwort möchten</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>What works, what doesn&apos;t, what you would like Corvel to do…</source>
        <translation>Was funktioniert, was nicht, was Corvel können sollte …</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Include the log (the last 100 lines)</source>
        <translation>Protokoll beifügen (die letzten 100 Zeilen)</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The log records what Corvel did: your speakers&apos; names and their addresses on your network, and the bridge&apos;s messages. It holds nothing of what you play.</source>
        <translation>Das Protokoll hält fest, was Corvel getan hat: die Namen Ihrer Lautsprecher, ihre Adressen in Ihrem Netzwerk und die Meldungen der Bridge. Nichts von dem, was Sie abspielen, steht darin.</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Name:</source>
        <translation>Name:</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Email:</source>
        <translation>E-Mail:</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Save…</source>
        <translation>Speichern…</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Send</source>
        <translation>Senden</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Message:</source>
        <translation>Nachricht:</translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Save Feedback</source>
        <translation>Feedback speichern</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Sending…</source>
        <translation>Wird gesendet …</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Thank you, your feedback was sent.</source>
        <translation>Danke, Ihr Feedback wurde gesendet.</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Sending failed: %1</source>
        <translation>Senden fehlgeschlagen: %1</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Saved to %1.</source>
        <translation>Gespeichert unter %1.</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Saving failed: %1</source>
        <translation>Speichern fehlgeschlagen: %1</translation>
    </message>
</context>
<context>
    <name>Notices</name>
    <message>
        <location filename="../src/tray/Notices.cpp" line="+38"/>
        <source>Click here: %1</source>
        <translation>Hier klicken: %1</translation>
    </message>
</context>
<context>
    <name>PreferencesWindow</name>
    <message>
        <location filename="../src/windows/PreferencesWindow.ui" line="+7"/>
        <source>Corvel Preferences</source>
        <translation>Corvel – Einstellungen</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>&lt;b&gt;Speakers&lt;/b&gt;</source>
        <translation>&lt;b&gt;Lautsprecher&lt;/b&gt;</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Checked speakers are offered as AirPlay sound outputs. Click a name, or press F2, to rename it. Group members are listed under the speaker that plays for their group.</source>
        <translation>Angehakte Lautsprecher werden als AirPlay-Tonausgänge angeboten. Klicken Sie auf einen Namen oder drücken Sie F2, um ihn umzubenennen. Gruppenmitglieder stehen unter dem Lautsprecher, der für ihre Gruppe spielt.</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Speakers</source>
        <translation>Lautsprecher</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Arrow keys choose a speaker, Space offers it or not, F2 renames it</source>
        <translation>Die Pfeiltasten wählen einen Lautsprecher, die Leertaste bietet ihn an oder nicht, F2 benennt ihn um</translation>
    </message>
    <message>
        <location line="+7"/>
        <location filename="../src/windows/PreferencesWindow.cpp" line="+494"/>
        <source>&amp;Start</source>
        <translation>&amp;Starten</translation>
    </message>
    <message>
        <location line="+18"/>
        <source>Save &amp;Log…</source>
        <translation>&amp;Protokoll speichern…</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Start Corvel &amp;when I log in</source>
        <translation>Corvel bei der &amp;Anmeldung starten</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Show speakers as sound &amp;outputs on this computer</source>
        <translation>Lautsprecher als &amp;Tonausgänge dieses Computers zeigen</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Each speaker becomes a sound output of this computer: what plays into it goes straight to the speaker</source>
        <translation>Jeder Lautsprecher wird zu einer Tonausgabe dieses Computers: Was darin abgespielt wird, geht direkt an den Lautsprecher</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Sound &amp;delay:</source>
        <translation>&amp;Verzögerung:</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Sound delay</source>
        <translation>Verzögerung</translation>
    </message>
    <message>
        <location filename="../src/windows/PreferencesWindow.cpp" line="-411"/>
        <source>No system tray was found, so closing this window quits Corvel. To keep Corvel running in the background, add a system tray to your panel (on GNOME, the AppIndicator extension: package gnome-shell-extension-appindicator).</source>
        <translation>Es wurde kein Systemabschnitt (Tray) gefunden, daher beendet das Schließen dieses Fensters Corvel. Damit Corvel im Hintergrund weiterläuft, fügen Sie Ihrer Leiste einen Systemabschnitt hinzu (unter GNOME die Erweiterung AppIndicator: Paket gnome-shell-extension-appindicator).</translation>
    </message>
    <message>
        <location line="+33"/>
        <source>About &amp;Corvel</source>
        <translation>Über &amp;Corvel</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Send &amp;Feedback…</source>
        <translation>&amp;Feedback senden…</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>&amp;Quit Corvel</source>
        <translation>Corvel &amp;beenden</translation>
    </message>
    <message>
        <location line="+30"/>
        <source>Your changes could not be saved (%1). They apply until Corvel quits, and Corvel tries to save them again then.</source>
        <translation>Ihre Änderungen konnten nicht gespeichert werden (%1). Sie gelten, bis Corvel beendet wird, und Corvel versucht dann erneut, sie zu speichern.</translation>
    </message>
    <message>
        <location line="+341"/>
        <source>&amp;Stop</source>
        <translation>&amp;Stoppen</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Searching...</source>
        <translation>Suche läuft …</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>&amp;Install Bridge…</source>
        <translation>Bridge &amp;installieren…</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Search &amp;Again</source>
        <translation>&amp;Erneut suchen</translation>
    </message>
    <message>
        <location line="+37"/>
        <source>Balanced</source>
        <translation>Ausgewogen</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Lowest delay (wired network)</source>
        <translation>Geringste Verzögerung (Kabelnetz)</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Steady (Wi-Fi with drop-outs)</source>
        <translation>Stabil (WLAN mit Aussetzern)</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Holds a quarter second of sound; it starts within about a second, but hiccups of the network are heard.</source>
        <translation>Hält eine Viertelsekunde Ton vor; er beginnt nach etwa einer Sekunde, aber Störungen im Netzwerk sind zu hören.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Holds 1.5 s of sound against drop-outs; it starts about 4 s late.</source>
        <translation>Hält 1,5 s Ton gegen Aussetzer vor; er beginnt etwa 4 s später.</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Holds 1 s of sound against hiccups of the network; it starts about 2 s late.</source>
        <translation>Hält 1 s Ton gegen Störungen im Netzwerk vor; er beginnt etwa 2 s später.</translation>
    </message>
    <message>
        <location line="+26"/>
        <source>Each speaker becomes a sound output of this computer: what plays into it goes straight to the speaker, with no bridge in between</source>
        <translation>Jeder Lautsprecher wird zu einer Tonausgabe dieses Computers: Was darin abgespielt wird, geht direkt an den Lautsprecher, ohne Brücke dazwischen</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>No sound server answered: Corvel needs PipeWire (with pipewire-pulse) or PulseAudio</source>
        <translation>Kein Soundserver hat geantwortet: Corvel braucht PipeWire (mit pipewire-pulse) oder PulseAudio</translation>
    </message>
    <message>
        <location line="+31"/>
        <source>Save Log</source>
        <translation>Protokoll speichern</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Error</source>
        <translation>Fehler</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Failed to save log file: %1</source>
        <translation>Die Protokolldatei konnte nicht gespeichert werden: %1</translation>
    </message>
</context>
<context>
    <name>SpeakerCommands</name>
    <message>
        <location filename="../src/app/SpeakerCommands.cpp" line="+49"/>
        <source>More than one speaker is named &quot;%1&quot;; give its location instead.</source>
        <translation>Mehrere Lautsprecher heißen „%1“; geben Sie stattdessen seine Adresse (Location) an.</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>No known speaker has the location or name &quot;%1&quot; (see corvel --list).</source>
        <translation>Kein bekannter Lautsprecher hat die Adresse oder den Namen „%1“ (siehe corvel --list).</translation>
    </message>
    <message>
        <location line="+12"/>
        <source>The change is in effect but could not be saved: %1</source>
        <translation>Die Änderung gilt, konnte aber nicht gespeichert werden: %1</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>An argument of over %1 characters is refused.</source>
        <translation>Ein Argument mit mehr als %1 Zeichen wird abgelehnt.</translation>
    </message>
</context>
<context>
    <name>SpeakerRow</name>
    <message>
        <location filename="../src/windows/SpeakerRow.cpp" line="+24"/>
        <source>No speakers found yet. Corvel searches the network when it starts; the button below searches again.</source>
        <translation>Noch keine Lautsprecher gefunden. Corvel durchsucht das Netzwerk beim Start; die Schaltfläche unten sucht erneut.</translation>
    </message>
    <message>
        <location line="+13"/>
        <source>Offer this speaker as an AirPlay sound output</source>
        <translation>Diesen Lautsprecher als AirPlay-Tonausgang anbieten</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Speaker name</source>
        <translation>Name des Lautsprechers</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>A name can be up to %1 bytes: most letters take one, accented letters two, emoji four.</source>
        <translation>Ein Name darf bis zu %1 Bytes lang sein: Die meisten Buchstaben belegen eines, Umlaute und Buchstaben mit Akzent zwei, Emoji vier.</translation>
    </message>
    <message>
        <location line="+79"/>
        <source>%1 — Already an AirPlay speaker</source>
        <translation>%1 — Bereits ein AirPlay-Lautsprecher</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>This speaker plays AirPlay itself: offered through the bridge too, it is listed twice.</source>
        <translation>Dieser Lautsprecher spielt selbst AirPlay: zusätzlich über die Brücke angeboten, erscheint er doppelt.</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Offer %1</source>
        <translation>%1 anbieten</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Icon of %1</source>
        <translation>Symbol von %1</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>The name this speaker is announced under</source>
        <translation>Der Name, unter dem dieser Lautsprecher angeboten wird</translation>
    </message>
    <message numerus="yes">
        <location line="+42"/>
        <source>(%n left)</source>
        <translation>
            <numerusform>(%n übrig)</numerusform>
            <numerusform>(%n übrig)</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <location line="+1"/>
        <source>(%n over the limit)</source>
        <translation>
            <numerusform>(%n über der Grenze)</numerusform>
            <numerusform>(%n über der Grenze)</numerusform>
        </translation>
    </message>
</context>
<context>
    <name>SpeakerState</name>
    <message>
        <location filename="../src/settings/DeviceSettings.cpp" line="+53"/>
        <source>Not found</source>
        <translation>Nicht gefunden</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>In %1&apos;s group</source>
        <translation>In der Gruppe von %1</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>In a group</source>
        <translation>In einer Gruppe</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Not offered</source>
        <translation>Nicht angeboten</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Playing from this computer</source>
        <translation>Spielt von diesem Computer</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Not offered by the bridge</source>
        <translation>Von der Brücke nicht angeboten</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Ready</source>
        <translation>Bereit</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Playing</source>
        <translation>Spielt</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Not answering</source>
        <translation>Antwortet nicht</translation>
    </message>
</context>
<context>
    <name>SpeakerStreams</name>
    <message>
        <location filename="../src/stream/SpeakerStreams.cpp" line="+131"/>
        <source>No sound server answered, so the speakers are not sound outputs of this computer: Corvel needs PipeWire (with pipewire-pulse) or PulseAudio, and tries again.</source>
        <translation>Kein Soundserver hat geantwortet, daher sind die Lautsprecher keine Tonausgaben dieses Computers: Corvel braucht PipeWire (mit pipewire-pulse) oder PulseAudio und versucht es erneut.</translation>
    </message>
    <message>
        <location line="+141"/>
        <source>Sound from %1</source>
        <translation>Ton von %1</translation>
    </message>
</context>
<context>
    <name>TrayPresenter</name>
    <message>
        <location filename="../src/tray/TrayPresenter.cpp" line="+31"/>
        <location line="+2"/>
        <source>Speakers</source>
        <translation>Lautsprecher</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>&amp;Preferences…</source>
        <translation>&amp;Einstellungen…</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>&amp;About Corvel</source>
        <translation>&amp;Über Corvel</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Send &amp;Feedback…</source>
        <translation>&amp;Feedback senden…</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>&amp;Quit Corvel</source>
        <translation>Corvel &amp;beenden</translation>
    </message>
    <message>
        <location line="+109"/>
        <source>Corvel: Running — 1 speaker</source>
        <translation>Corvel: Läuft — 1 Lautsprecher</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Running — %1 speakers</source>
        <translation>Corvel: Läuft — %1 Lautsprecher</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>%1 ready, %2 playing</source>
        <translation>%1 bereit, %2 spielen</translation>
    </message>
    <message>
        <location filename="../src/tray/TrayPresenter.h" line="+30"/>
        <source>Corvel: Off</source>
        <translation>Corvel: Aus</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Looking For Speakers...</source>
        <translation>Corvel: Sucht Lautsprecher …</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: No Speakers Found</source>
        <translation>Corvel: Keine Lautsprecher gefunden</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Starting...</source>
        <translation>Corvel: Startet …</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Running</source>
        <translation>Corvel: Läuft</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Stopped</source>
        <translation>Corvel: Angehalten</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Corvel: Bridge Stopped, Restarting...</source>
        <translation>Corvel: Bridge angehalten, Neustart …</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Corvel: Bridge Not Installed</source>
        <translation>Corvel: Bridge nicht installiert</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Corvel: Waiting For Network...</source>
        <translation>Corvel: Warte auf das Netzwerk...</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Turn Corvel &amp;On</source>
        <translation>Corvel ein&amp;schalten</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Turn Corvel &amp;Off</source>
        <translation>Corvel aus&amp;schalten</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>&amp;Install Bridge…</source>
        <translation>Bridge &amp;installieren…</translation>
    </message>
</context>
<context>
    <name>UpnpControl</name>
    <message>
        <location filename="../src/stream/UpnpControl.cpp" line="+54"/>
        <source>The speaker did not answer Corvel: it may be off or out of reach.</source>
        <translation>Der Lautsprecher hat Corvel nicht geantwortet: Er ist vielleicht aus oder nicht erreichbar.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>The speaker was busy changing what it plays; Corvel tries again when sound plays next.</source>
        <translation>Der Lautsprecher wechselte gerade, was er spielt; Corvel versucht es beim nächsten Ton erneut.</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The speaker refused the audio format of this computer&apos;s sound.</source>
        <translation>Der Lautsprecher hat das Audioformat des Tons dieses Computers abgelehnt.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>The speaker could not fetch this computer&apos;s sound: a firewall on this computer may block it.</source>
        <translation>Der Lautsprecher konnte den Ton dieses Computers nicht abrufen: Vielleicht blockiert ihn eine Firewall auf diesem Computer.</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>The speaker refused to play this computer&apos;s sound (UPnP error %1).</source>
        <translation>Der Lautsprecher hat es abgelehnt, den Ton dieses Computers zu spielen (UPnP-Fehler %1).</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <location filename="../src/corvel/main.cpp" line="+144"/>
        <source>Plays this computer&apos;s audio on Sonos speakers.</source>
        <translation>Spielt den Ton dieses Computers auf Sonos-Lautsprechern ab.</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Run without a tray icon or windows (for servers).</source>
        <translation>Ohne Symbol im Systemabschnitt und ohne Fenster laufen (für Server).</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Started at login: wait for the desktop&apos;s tray.</source>
        <translation>Bei der Anmeldung gestartet: auf den Systemabschnitt der Arbeitsumgebung warten.</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Search for speakers, then list the known ones and exit.</source>
        <translation>Nach Lautsprechern suchen, dann die bekannten auflisten und beenden.</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Offer the speaker (location or name) and exit.</source>
        <translation>Den Lautsprecher (Adresse oder Name) anbieten und beenden.</translation>
    </message>
    <message>
        <location line="+1"/>
        <location line="+5"/>
        <location line="+5"/>
        <source>speaker</source>
        <translation>lautsprecher</translation>
    </message>
    <message>
        <location line="-7"/>
        <source>Stop offering the speaker (location or name) and exit.</source>
        <translation>Den Lautsprecher (Adresse oder Name) nicht mehr anbieten und beenden.</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Rename the speaker (location or name) to the next argument and exit.</source>
        <translation>Den Lautsprecher (Adresse oder Name) in das folgende Argument umbenennen und beenden.</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>name</source>
        <translation>Name</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The new name, with --rename.</source>
        <translation>Der neue Name, mit --rename.</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>[name]</source>
        <translation>[Name]</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Unknown argument &quot;%1&quot; (see corvel --help)</source>
        <translation>Unbekanntes Argument „%1“ (siehe corvel --help)</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>--rename needs the new name after the speaker</source>
        <translation>--rename braucht den neuen Namen nach dem Lautsprecher</translation>
    </message>
    <message>
        <location line="+41"/>
        <source>Corvel is already running.</source>
        <translation>Corvel läuft bereits.</translation>
    </message>
</context>
</TS>
