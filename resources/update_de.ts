<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name></name>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="24"/>
        <source>Can&apos;t detect default parameters</source>
        <translation>Die Standardparameter konnten nicht ermittelt werden</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="68"/>
        <source>No client type specified</source>
        <translation>Kein Client-Typ angegeben</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="71"/>
        <source>No client version specified</source>
        <translation>Keine Client-Version angegeben</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="74"/>
        <source>Wrong version code</source>
        <translation>Ungültige Versionsnummer</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="86"/>
        <location filename="../app/startup.cpp" line="47"/>
        <source>Error</source>
        <translation>Fehler</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="87"/>
        <source>Failed to query latest client
version from update server.</source>
        <translation>Die neueste Client-Version konnte nicht
vom Update-Server abgefragt werden.</translation>
    </message>
</context>
<context>
    <name>MainWindow</name>
    <message>
        <location filename="../ui/mainwindow.ui" line="14"/>
        <source>Orlivo Client Update</source>
        <translation>Orlivo Client-Aktualisierung</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="29"/>
        <source>&lt;span style=&quot;font-size:14pt; font-weight:bold;&quot;&gt;Orlivo Client Update&lt;/span&gt;</source>
        <translation>&lt;span style=&quot;font-size:14pt; font-weight:bold;&quot;&gt;Orlivo Client-Aktualisierung&lt;/span&gt;</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="62"/>
        <source>&lt;span style=&quot;font-size:7pt;&quot;&gt;Copyright &amp;copy; Orlivo. &lt;a href=&quot;https://www.orlivo.com/&quot;&gt;www.orlivo.com&lt;/a&gt;&lt;/span&gt;</source>
        <translation>&lt;span style=&quot;font-size:7pt;&quot;&gt;Copyright &amp;copy; Orlivo. &lt;a href=&quot;https://www.orlivo.com/&quot;&gt;www.orlivo.com&lt;/a&gt;&lt;/span&gt;</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="76"/>
        <source>Version:</source>
        <translation>Version:</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="83"/>
        <source>1234</source>
        <translation>1234</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="118"/>
        <source>0 KB/s</source>
        <translation>0 KB/s</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="144"/>
        <location filename="../ui/mainwindow.ui" line="161"/>
        <source>0 KB</source>
        <translation>0 KB</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="154"/>
        <source>/</source>
        <translation>/</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="198"/>
        <source>Details</source>
        <translation>Details</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.ui" line="224"/>
        <source>Start Update</source>
        <translation>Aktualisierung starten</translation>
    </message>
</context>
</TS>
