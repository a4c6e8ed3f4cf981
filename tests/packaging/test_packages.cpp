// The Debian packages: what they hold, and that they are installed, work and are removed without a
// trace. They are made from this build; VEXT_PACKAGES names a folder with others.

#include "command.h"
#include "sample_host.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace
{

const qint64 PluginLimit = 3 * 1024 * 1024;

const QStringList &packages()
{
    static const QStringList names{QStringLiteral("vext-sql"), QStringLiteral("vext-run"),
                                   QStringLiteral("vext-sql-dev")};
    return names;
}

/// The files and links below a folder, relative to it, sorted.
QStringList filesBelow(const QString &folder)
{
    QStringList files;
    QDirIterator all(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                     QDirIterator::Subdirectories);
    while (all.hasNext()) {
        const QString path = all.next();
        if (!all.fileInfo().isDir() || all.fileInfo().isSymLink())
            files.append(path.mid(folder.size() + 1));
    }
    files.sort();
    return files;
}

/// Where libraries lie depends on the prefix that a build was prepared for.
QStringList withoutArchitecture(const QStringList &files)
{
    QStringList result = files;
    return result.replaceInStrings(QRegularExpression(QStringLiteral("^usr/lib/[^/]+-linux-gnu/")),
                                   QStringLiteral("usr/lib/"));
}

} // namespace

class TestPackages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void thereAreThreeAndTheirDebugSymbols();
    void cmakeInstallPutsTheSameFilesInPlace();
    void everythingThatHasASourceIsPacked();
    void modesAreThoseOfDebian();
    void dependenciesNameWhatIsLinkedAndTheVersionOfQt();
    void librariesAreStrippedSmallAndFreeOfPaths();
    void debugSymbolsFitTheLibraries();
    void textsNameNoPathOfThisMachine();
    void copyrightTellsThatThereIsNoLicence();
    void lintianFindsNoError();
    void installedPackagesWorkAndLeaveNoTrace();

private:
    QString packageFile(const QString &name) const;
    QString field(const QString &package, const QString &name) const;
    QString unpacked(const QString &file) const;
    QString unpackedLibrary(const QString &name) const;
    CommandOutcome dpkg(const QStringList &arguments) const;
    void prepareRoot();
    void runInstalledProgram();
    void askPkgConfig();

    QTemporaryDir m_folder;
    QString m_made; ///< the folder with the packages
    QString m_root; ///< the system that they are installed into
};

void TestPackages::initTestCase()
{
    for (const char *tool : {"dpkg", "dpkg-deb", "dpkg-shlibdeps", "cpack", "readelf"}) {
        if (!haveCommand(QLatin1String(tool)))
            QSKIP(qPrintable(QStringLiteral("packages need '%1'").arg(QLatin1String(tool))));
    }
    m_made = qEnvironmentVariable("VEXT_PACKAGES");
    if (m_made.isEmpty()) {
        m_made = m_folder.filePath(QStringLiteral("made"));
        const CommandOutcome outcome =
            runCommand({QStringLiteral(VEXT_SOURCE_DIR "/packaging/make_packages"),
                        QStringLiteral(VEXT_BINARY_DIR), m_made});
        QVERIFY2(outcome.isGood(), outcome.described().constData());
    }
    for (const QString &file : QDir(m_made).entryList({QStringLiteral("*.deb")})) {
        const bool isDebug = file.contains(QLatin1String("-dbgsym"));
        const QString target =
            m_folder.filePath(isDebug ? QStringLiteral("symbols") : QStringLiteral("files"));
        const CommandOutcome outcome = runCommand({QStringLiteral("dpkg-deb"), QStringLiteral("-x"),
                                                   QDir(m_made).filePath(file), target});
        QVERIFY2(outcome.isGood(), outcome.described().constData());
    }
}

QString TestPackages::packageFile(const QString &name) const
{
    const QStringList found = QDir(m_made).entryList({name + QStringLiteral("_*.deb")});
    return found.size() == 1 ? QDir(m_made).filePath(found.first()) : QString();
}

QString TestPackages::field(const QString &package, const QString &name) const
{
    return runCommand(
               {QStringLiteral("dpkg-deb"), QStringLiteral("-f"), packageFile(package), name})
        .output.trimmed();
}

QString TestPackages::unpacked(const QString &file) const
{
    return m_folder.filePath(QStringLiteral("files/") + file);
}

QString TestPackages::unpackedLibrary(const QString &name) const
{
    for (const QString &file : filesBelow(m_folder.filePath(QStringLiteral("files")))) {
        if (file.endsWith(QLatin1Char('/') + name))
            return unpacked(file);
    }
    return QString();
}

void TestPackages::thereAreThreeAndTheirDebugSymbols()
{
    QStringList names;
    for (const QString &file : QDir(m_made).entryList({QStringLiteral("*.deb")}))
        names.append(file.section(QLatin1Char('_'), 0, 0));
    names.sort();
    QCOMPARE(names, (QStringList{QStringLiteral("vext-run"), QStringLiteral("vext-run-dbgsym"),
                                 QStringLiteral("vext-sql"), QStringLiteral("vext-sql-dbgsym"),
                                 QStringLiteral("vext-sql-dev")}));
    for (const QString &package : packages())
        QCOMPARE(field(package, QStringLiteral("Version")).section(QLatin1Char('-'), 0, 0),
                 QStringLiteral(VEXT_VERSION));
}

void TestPackages::cmakeInstallPutsTheSameFilesInPlace()
{
    const QString target = m_folder.filePath(QStringLiteral("installed"));
    const CommandOutcome outcome = runCommand(
        {QStringLiteral(VEXT_CMAKE), QStringLiteral("--install"), QStringLiteral(VEXT_BINARY_DIR),
         QStringLiteral("--prefix"), target + QLatin1String("/usr")});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    const QStringList installed = withoutArchitecture(filesBelow(target));
    QVERIFY(installed.size() > 20);
    QCOMPARE(installed,
             withoutArchitecture(filesBelow(m_folder.filePath(QStringLiteral("files")))));
}

void TestPackages::everythingThatHasASourceIsPacked()
{
    struct Kind {
        const char *folder;
        const char *pattern;
        const char *target;
        const char *suffix; ///< in place of the source's last one
    };
    const QDir source(QStringLiteral(VEXT_SOURCE_DIR));
    for (const Kind &kind : {Kind{"examples", "*.js", "usr/share/vext/examples", "js"},
                             Kind{"library", "*.js", "usr/share/vext/library", "js"},
                             Kind{"translations", "*.ts", "usr/share/vext/translations", "qm"},
                             Kind{"types", "*.d.ts", "usr/share/vext/types", "ts"},
                             Kind{"docs", "*.1", "usr/share/man/man1", "1.gz"}}) {
        const QDir folder(source.filePath(QLatin1String(kind.folder)));
        for (const QString &file : folder.entryList({QLatin1String(kind.pattern)}, QDir::Files)) {
            const QString name = file.section(QLatin1Char('.'), 0, -2);
            const QString packed =
                unpacked(QStringLiteral("%1/%2.%3")
                             .arg(QLatin1String(kind.target), name, QLatin1String(kind.suffix)));
            QVERIFY2(QFileInfo(packed).isFile(), qPrintable(packed));
        }
    }
}

void TestPackages::modesAreThoseOfDebian()
{
    for (const QString &package : packages()) {
        const QString list =
            runCommand({QStringLiteral("dpkg-deb"), QStringLiteral("-c"), packageFile(package)})
                .output;
        QVERIFY(!list.isEmpty());
        for (const QString &line : list.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const bool isProgram = line.contains(QLatin1String(" ./usr/bin/"));
            const QString mode = line.startsWith(QLatin1Char('d')) ? QStringLiteral("drwxr-xr-x")
                                 : isProgram && !line.endsWith(QLatin1Char('/'))
                                     ? QStringLiteral("-rwxr-xr-x")
                                     : QStringLiteral("-rw-r--r--");
            QVERIFY2(line.startsWith(mode + QStringLiteral(" root/root ")), qPrintable(line));
        }
    }
}

void TestPackages::dependenciesNameWhatIsLinkedAndTheVersionOfQt()
{
    const QString depends = QStringLiteral("Depends");
    const QString ofPlugin = field(QStringLiteral("vext-sql"), depends);
    const QString qt = QString::fromLatin1(qVersion()).replace(QLatin1Char('.'), QLatin1Char('-'));
    for (const QString &wanted : {QStringLiteral("libqt5core5a (>= "),
                                  QStringLiteral("libqt5sql5 "), QStringLiteral("libqt5script5 "),
                                  QStringLiteral("libc6 (>= "), QStringLiteral("qtbase-abi-") + qt})
        QVERIFY2(ofPlugin.contains(wanted), qPrintable(ofPlugin + QLatin1String(": ") + wanted));
    const QString same = QStringLiteral("vext-sql (= %1)")
                             .arg(field(QStringLiteral("vext-sql"), QStringLiteral("Version")));
    for (const char *package : {"vext-run", "vext-sql-dev"}) {
        const QString others = field(QLatin1String(package), depends);
        QVERIFY2(others.contains(same), qPrintable(others));
    }
}

void TestPackages::librariesAreStrippedSmallAndFreeOfPaths()
{
    QVERIFY(QFileInfo(unpackedLibrary(QStringLiteral("libPluginSQL.so"))).size() < PluginLimit);
    for (const char *name : {"libPluginSQL.so", "libVextDrivers.so", "vext-run"}) {
        const QString file = unpackedLibrary(QLatin1String(name));
        const QString sections =
            runCommand({QStringLiteral("env"), QStringLiteral("LC_ALL=C"),
                        QStringLiteral("readelf"), QStringLiteral("-SdW"), file})
                .output;
        QVERIFY2(sections.contains(QLatin1String(".dynsym")), name);
        for (const char *unwanted : {".symtab", ".debug_info", "(RPATH)", "(RUNPATH)"})
            QVERIFY2(!sections.contains(QLatin1String(unwanted)), unwanted);
    }
}

void TestPackages::debugSymbolsFitTheLibraries()
{
    for (const char *name : {"libPluginSQL.so", "libVextDrivers.so", "vext-run"}) {
        const CommandOutcome notes = runCommand({QStringLiteral("env"), QStringLiteral("LC_ALL=C"),
                                                 QStringLiteral("readelf"), QStringLiteral("-n"),
                                                 unpackedLibrary(QLatin1String(name))});
        const QString id = QRegularExpression(QStringLiteral("Build ID: ([0-9a-f]+)"))
                               .match(notes.output)
                               .captured(1);
        QVERIFY2(!id.isEmpty(), name + notes.described());
        const QString symbols =
            m_folder.filePath(QStringLiteral("symbols/usr/lib/debug/.build-id/%1/%2.debug")
                                  .arg(id.left(2), id.mid(2)));
        const QString sections =
            runCommand({QStringLiteral("env"), QStringLiteral("LC_ALL=C"),
                        QStringLiteral("readelf"), QStringLiteral("-SW"), symbols})
                .output;
        QVERIFY2(sections.contains(QLatin1String(".debug_info")), qPrintable(symbols));
    }
}

void TestPackages::textsNameNoPathOfThisMachine()
{
    int read = 0;
    for (const QString &name : filesBelow(m_folder.filePath(QStringLiteral("files")))) {
        QFile file(unpacked(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = file.readAll();
        if (text.startsWith("\x7f"
                            "ELF") ||
            name.endsWith(QLatin1String(".gz")))
            continue;
        QVERIFY2(!text.contains(VEXT_SOURCE_DIR), qPrintable(name));
        QVERIFY2(!text.contains(VEXT_BINARY_DIR), qPrintable(name));
        ++read;
    }
    QVERIFY(read > 10);
}

void TestPackages::copyrightTellsThatThereIsNoLicence()
{
    for (const QString &package : packages()) {
        QFile file(unpacked(QStringLiteral("usr/share/doc/%1/copyright").arg(package)));
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(package));
        QVERIFY(file.readAll().contains("has not chosen a licence yet"));
    }
}

void TestPackages::lintianFindsNoError()
{
    if (!haveCommand(QStringLiteral("lintian")))
        QSKIP("lintian is not installed");
    QStringList command{QStringLiteral("lintian"), QStringLiteral("--fail-on"),
                        QStringLiteral("error")};
    for (const QString &file : QDir(m_made).entryList({QStringLiteral("*.deb")}))
        command.append(QDir(m_made).filePath(file));
    const CommandOutcome outcome = runCommand(command);
    QVERIFY2(outcome.isGood(), outcome.described().constData());
}

CommandOutcome TestPackages::dpkg(const QStringList &arguments) const
{
    QStringList command{QStringLiteral("dpkg"), QStringLiteral("--root=") + m_root,
                        QStringLiteral("--force-not-root"),
                        QStringLiteral("--log=") + m_folder.filePath(QStringLiteral("dpkg.log"))};
    // Files keep the owner that their package gives them: it takes root, or what looks like it.
    if (::geteuid() != 0)
        command.prepend(QStringLiteral("fakeroot"));
    return runCommand(command + arguments);
}

/// A system without files, in which those packages count as installed that really are: what the
/// packages depend on has to be among them.
void TestPackages::prepareRoot()
{
    m_root = m_folder.filePath(QStringLiteral("root"));
    for (const char *folder : {"info", "updates", "triggers"})
        QVERIFY(QDir().mkpath(m_root + QLatin1String("/var/lib/dpkg/") + QLatin1String(folder)));
    QVERIFY(QFile::copy(QStringLiteral("/var/lib/dpkg/status"),
                        m_root + QLatin1String("/var/lib/dpkg/status")));
}

void TestPackages::runInstalledProgram()
{
    const QString program = m_root + QLatin1String("/usr/bin/vext-run");
    const CommandOutcome outcome = runCommand(
        {program, QStringLiteral("-e"),
         QStringLiteral("var db = new VEXT_SQL; db.driverName = 'QSQLITE';"
                        "db.databaseName = ':memory:'; print(db.open());"
                        "print(db.query('select 6 * 7 as a').a[0], db.hasFeature().CancelQuery);"
                        "if (exists('%1/library/vext.js')) { include('vext'); vext.rows; }")
             .arg(m_root + QLatin1String("/usr/share/vext"))});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    // With the layer of drivers, which alone can cancel.
    QCOMPARE(outcome.output, QStringLiteral("true\n42 true\n"));
    const CommandOutcome quickstart =
        runCommand({program, m_root + QLatin1String("/usr/share/vext/examples/quickstart.js")});
    QVERIFY2(quickstart.isGood(), quickstart.described().constData());
    QVERIFY(quickstart.output.endsWith(QLatin1String("answer: 42\n")));

    // It looks beside itself, nowhere else, unless it is told where to look.
    const QString alone = m_folder.filePath(QStringLiteral("alone/bin/vext-run"));
    QVERIFY(QDir().mkpath(QFileInfo(alone).path()));
    QVERIFY(QFile::copy(program, alone));
    const CommandOutcome lost =
        runCommand({alone, QStringLiteral("-e"), QStringLiteral("print(1)")});
    QCOMPARE(lost.exitCode, 2);
    QVERIFY2(lost.errors.contains(m_folder.filePath(QStringLiteral("alone"))),
             lost.described().constData());
    const CommandOutcome told = runCommand(
        {alone, QStringLiteral("--plugin"), unpackedLibrary(QStringLiteral("libPluginSQL.so")),
         QStringLiteral("-e"), QStringLiteral("print(typeof VEXT_SQL)")});
    QCOMPARE(told.output, QStringLiteral("function\n"));
}

void TestPackages::askPkgConfig()
{
    if (!haveCommand(QStringLiteral("pkg-config")))
        return;
    const QStringList found = filesBelow(m_root).filter(QLatin1String("pkgconfig/vext-sql.pc"));
    QCOMPARE(found.size(), 1);
    const QString folder = QFileInfo(m_root + QLatin1Char('/') + found.first()).path();
    const auto ask = [&folder](const char *option) {
        return runCommand({QStringLiteral("pkg-config"), QLatin1String(option),
                           QStringLiteral("vext-sql")},
                          {QStringLiteral("PKG_CONFIG_PATH=") + folder})
            .output.trimmed();
    };
    QCOMPARE(ask("--modversion"), QStringLiteral(VEXT_VERSION));
    const QString plugin = ask("--variable=plugindir") + QLatin1String("/libPluginSQL.so");
    QVERIFY2(QFileInfo(plugin).isFile(), qPrintable(plugin));
    const QString drivers = ask("--variable=driverdir") + QLatin1String("/sqldrivers");
    QVERIFY2(QFileInfo(drivers).isDir(), qPrintable(drivers));
    const QString header = ask("--variable=includedir") + QLatin1String("/vext_plugin_interface.h");
    QVERIFY2(QFileInfo(header).isFile() && QDir::cleanPath(header).startsWith(m_root),
             qPrintable(header));
    QVERIFY(ask("--cflags").contains(QFileInfo(header).path()));
}

void TestPackages::installedPackagesWorkAndLeaveNoTrace()
{
    if (::geteuid() != 0 && !haveCommand(QStringLiteral("fakeroot")))
        QSKIP("without root, installing needs 'fakeroot'");
    prepareRoot();
    const auto known = [this] { return dpkg({QStringLiteral("-l")}).output; };
    const QStringList filesBefore = filesBelow(m_root);
    const QString knownBefore = known();

    QStringList command{QStringLiteral("-i")};
    for (const QString &package : packages())
        command.append(packageFile(package));
    const CommandOutcome installed = dpkg(command);
    QVERIFY2(installed.isGood(), installed.described().constData());
    QVERIFY(known() != knownBefore);

    runInstalledProgram();
    if (QTest::currentTestFailed())
        return;
    const CommandOutcome host =
        buildAndRunSampleHost(m_folder.filePath(QStringLiteral("host")),
                              QStringLiteral("-DCMAKE_PREFIX_PATH=%1/usr").arg(m_root),
                              m_root + QLatin1String("/usr/share/doc/vext-sql-dev/examples/host"));
    QVERIFY2(host.isGood(), host.described().constData());
    QVERIFY2(host.errors.endsWith(sampleHostOutput()), host.described().constData());
    const QString cache = QStringLiteral("VextSql_DIR:PATH=") + m_root;
    QFile cacheFile(m_folder.filePath(QStringLiteral("host/CMakeCache.txt")));
    QVERIFY(cacheFile.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(cacheFile.readAll()).contains(cache));

    askPkgConfig();
    if (QTest::currentTestFailed())
        return;

    const CommandOutcome removed = dpkg(QStringList{QStringLiteral("-P")} + packages());
    QVERIFY2(removed.isGood(), removed.described().constData());
    QCOMPARE(known(), knownBefore);
    QStringList left = filesBelow(m_root);
    for (const QString &file : filesBefore)
        left.removeOne(file);
    left = left.filter(QRegularExpression(QStringLiteral("^(?!var/lib/dpkg/)")));
    QVERIFY2(left.isEmpty(), qPrintable(left.join(QLatin1Char('\n'))));
    QVERIFY(!QFileInfo::exists(m_root + QLatin1String("/usr")));
}

QTEST_GUILESS_MAIN(TestPackages)
#include "test_packages.moc"
