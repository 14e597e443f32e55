<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<!-- A small German catalogue for the string table tests: plain translations,
     translations with the escapes that LoadStr expands, one with an escape it
     must leave alone, and a text of another context that must not be used. -->
<TS version="2.1">
<context>
    <name>global</name>
    <message>
        <source>Exit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Sync complete</source>
        <translation>Synchronisierung\nabgeschlossen</translation>
    </message>
    <message>
        <source>Upgrade</source>
        <translation>Jetzt\Naktualisieren</translation>
    </message>
    <message>
        <source>Updating...</source>
        <translation>Aktualisierung\tläuft...</translation>
    </message>
    <message>
        <source>Open Folder</source>
        <translation>Ordner\\nöffnen</translation>
    </message>
</context>
<context>
    <name>other</name>
    <message>
        <source>Completed</source>
        <translation>Abgeschlossen</translation>
    </message>
</context>
</TS>
