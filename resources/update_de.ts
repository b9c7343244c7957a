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
        <location filename="../app/commandlineoptions.cpp" line="67"/>
        <source>No client type specified</source>
        <translation>Kein Client-Typ angegeben</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="70"/>
        <source>No client version specified</source>
        <translation>Keine Client-Version angegeben</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="73"/>
        <source>Wrong version code</source>
        <translation>Ungültige Versionsnummer</translation>
    </message>
    <message>
        <location filename="../app/startup.cpp" line="78"/>
        <source>Another update is running in this installation.</source>
        <translation>In dieser Installation läuft bereits eine Aktualisierung.</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="79"/>
        <source>Wrong client type</source>
        <translation>Ungültiger Client-Typ</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="85"/>
        <location filename="../app/startup.cpp" line="48"/>
        <source>Error</source>
        <translation>Fehler</translation>
    </message>
    <message>
        <location filename="../app/commandlineoptions.cpp" line="86"/>
        <source>Failed to query latest client
version from update server.</source>
        <translation>Die neueste Client-Version konnte nicht
vom Update-Server abgefragt werden.</translation>
    </message>
</context>
<context>
    <name>DirectoryUpdate</name>
    <message>
        <location filename="../update/directoryupdate.cpp" line="133"/>
        <source>Can&apos;t overwrite %1.
%2
Do you wish to stop update?</source>
        <translation>%1 kann nicht überschrieben werden.
%2
Möchten Sie die Aktualisierung abbrechen?</translation>
    </message>
</context>
<context>
    <name>FTPProductDownloadSession</name>
    <message>
        <location filename="../session/ftpproductdownloadsession.cpp" line="248"/>
        <source>Stream %1: %2</source>
        <translation>Datenstrom %1: %2</translation>
    </message>
    <message>
        <location filename="../session/ftpproductdownloadsession.cpp" line="253"/>
        <source>Stream %1 got error %2</source>
        <translation>Datenstrom %1 meldet den Fehler %2</translation>
    </message>
    <message>
        <location filename="../session/ftpproductdownloadsession.cpp" line="365"/>
        <source>Unable to initialize session with %1.</source>
        <translation>Die Sitzung konnte mit %1 nicht eingerichtet werden.</translation>
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
    <message>
        <location filename="../ui/mainwindow.cpp" line="121"/>
        <location filename="../ui/mainwindow.cpp" line="138"/>
        <source>Error</source>
        <translation>Fehler</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="241"/>
        <source>Start Orlivo</source>
        <translation>Orlivo starten</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="292"/>
        <location filename="../ui/mainwindow.cpp" line="293"/>
        <source>%1 KB</source>
        <translation>%1 KB</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="326"/>
        <source>Restart</source>
        <translation>Neu starten</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="340"/>
        <source>Update</source>
        <translation>Aktualisierung</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="341"/>
        <source>Download cancelled. Push &quot;Details&quot; to check reasons.</source>
        <translation>Download abgebrochen. Unter „Details“ finden Sie die Gründe.</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="353"/>
        <source>Question</source>
        <translation>Frage</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="354"/>
        <source>&lt;p&gt;Update in progress.&lt;/p&gt;&lt;p&gt;Are you sure you want to abort?&lt;/p&gt;</source>
        <translation>&lt;p&gt;Die Aktualisierung läuft.&lt;/p&gt;&lt;p&gt;Möchten Sie sie wirklich abbrechen?&lt;/p&gt;</translation>
    </message>
    <message>
        <location filename="../ui/mainwindow.cpp" line="370"/>
        <source> KB/s</source>
        <translation> KB/s</translation>
    </message>
</context>
<context>
    <name>SingleFileDownloadStream</name>
    <message>
        <location filename="../streams/singlefiledownloadstream.cpp" line="101"/>
        <source>Download attempt %1</source>
        <translation>Download-Versuch %1</translation>
    </message>
    <message>
        <location filename="../streams/singlefiledownloadstream.cpp" line="184"/>
        <source>Download error. Timeout %1 seconds to repeat.</source>
        <translation>Download-Fehler. Neuer Versuch in %1 Sekunden.</translation>
    </message>
    <message>
        <location filename="../streams/singlefiledownloadstream.cpp" line="171"/>
        <source>%1 is damaged, downloading it again from the start</source>
        <translation>%1 ist beschädigt und wird von Anfang an neu heruntergeladen</translation>
    </message>
</context>
<context>
    <name>UpdateRun</name>
    <message>
        <source>%1 is missing, cannot proceed.</source>
        <translation>%1 fehlt, die Aktualisierung kann nicht beginnen.</translation>
    </message>
    <message>
        <source>Unable to get temp directory.</source>
        <translation>Es steht kein temporäres Verzeichnis zur Verfügung.</translation>
    </message>
    <message>
        <source>The update server announces version %1, older than the installed version %2. Nothing was changed.</source>
        <translation>Der Aktualisierungsserver meldet Version %1, die älter ist als die installierte Version %2. Es wurde nichts verändert.</translation>
    </message>
</context>
</TS>
