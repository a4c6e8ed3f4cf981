// The commands ./run, ./test and .ci/run, in a copy of the project where every tool that they call
// is a stand-in that keeps a log of its calls.

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

const int LimitMs = 60000;

struct Outcome {
    int exitCode = -1;
    QString output;
    QString errors;
    QString calls; ///< of the tools, one a line
};

/// The tools. Each knows the folder `$STATE`, where `log` holds the calls, `installed` the packages
/// that are installed, and `unavailable` those that cannot be.
const char DpkgQuery[] = R"sh(
shift 3
for package; do
  grep -qxF "$package" "$STATE/installed" && echo "$package=installed"
done
true)sh";

const char AptGet[] = R"sh(
echo "apt-get $*" >>"$STATE/log"
[ "$1" = install ] || exit 0
[ -e "$STATE/offline" ] && exit 100
shift
packages=()
for word; do case $word in -*) ;; *) packages+=("$word") ;; esac; done
for package in "${packages[@]}"; do
  grep -qxF "$package" "$STATE/unavailable" && exit 100
done
printf '%s\n' "${packages[@]}" >>"$STATE/installed")sh";

const char Sudo[] = R"sh(
echo "sudo" >>"$STATE/log"
exec "$@")sh";

const char Id[] = "cat \"$STATE/user\"";

const char Cmake[] = R"sh(
echo "cmake $*" >>"$STATE/log"
[ -e "$STATE/broken-configure" ] && exit 1
mkdir -p build/release
touch build/release/build.ninja
for word; do
  case $word in -DVEXT_BUILD_TESTS=*)
    echo "VEXT_BUILD_TESTS:BOOL=${word#*=}" >build/release/CMakeCache.txt ;;
  esac
done)sh";

const char Ninja[] = R"sh(
folder=$2; shift 2
if [ "$1" = -n ]; then
  [ -e "$STATE/built" ] && echo 'ninja: no work to do.'
  exit 0
fi
echo "ninja $*" >>"$STATE/log"
[ -e "$STATE/broken-build" ] && { echo 'FAILED: x.o'; exit 1; }
touch "$STATE/built"
mkdir -p "$folder/bin"
printf '#!/bin/sh\nprintf "<%%s>" "$@"; printf " in %%s\\n" "$PWD"; cat; exit 3\n' >"$folder/bin/vext-run"
chmod +x "$folder/bin/vext-run")sh";

const char Ctest[] = R"sh(
echo "ctest $*" >>"$STATE/log"
echo "input: $(cat)"
echo '100% tests passed'
[ ! -e "$STATE/broken-tests" ])sh";

} // namespace

class TestCommands : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void runInstallsBuildsAndRunsTheQuickstart();
    void runPassesArgumentsInputAndExitCodeOn();
    void runDoesNothingWhereNothingIsToDo();
    void runNeedsNoServersAndNoTests();
    void runWorksThroughALinkAndFromAnyFolder();
    void runFailsLoudly_data();
    void runFailsLoudly();
    void sudoIsUsedByOtherUsersOnly();
    void withoutSudoTheMissingPackagesAreNamed();
    void missingPackageListsDoNotStopAnInstallation();
    void testInstallsBuildsAndRunsTheTests();
    void testPassesArgumentsAndExitCodeOn();
    void testDoesNothingButTestWhereNothingIsToDo();
    void testPreparesAFolderWithoutTestsAgain();
    void missingServerIsAWarningAtBothEnds();
    void continuousIntegrationEndsWithTheSummary();

private:
    QString path(const QString &name) const { return m_folder->filePath(name); }
    void write(const QString &name, const QByteArray &text);
    void addTool(const char *name, const char *code);
    void install(const QStringList &packages);
    void installAll();
    Outcome call(const QString &command, const QStringList &arguments = QStringList(),
                 const QByteArray &input = QByteArray());
    QString takeCalls();

    static const QStringList s_buildPackages;
    static const QStringList s_testPackages;
    static const QStringList s_serverPackages;
    static const QStringList s_toolPackages;

    QScopedPointer<QTemporaryDir> m_folder;
    QString m_callFrom;
};

const QStringList TestCommands::s_buildPackages{QStringLiteral("g++"),
                                                QStringLiteral("cmake"),
                                                QStringLiteral("ninja-build"),
                                                QStringLiteral("qtbase5-dev"),
                                                QStringLiteral("qtbase5-private-dev"),
                                                QStringLiteral("qtscript5-dev"),
                                                QStringLiteral("libreadline-dev"),
                                                QStringLiteral("libqt5sql5-sqlite"),
                                                QStringLiteral("qttools5-dev-tools")};
const QStringList TestCommands::s_testPackages{
    QStringLiteral("libsqlite3-dev"),   QStringLiteral("libpq-dev"),
    QStringLiteral("libqt5sql5-psql"),  QStringLiteral("libqt5sql5-mysql"),
    QStringLiteral("libqt5sql5-ibase"), QStringLiteral("libqt5sql5-odbc")};
const QStringList TestCommands::s_serverPackages{QStringLiteral("postgresql"),
                                                 QStringLiteral("pgbouncer"),
                                                 QStringLiteral("mariadb-server"),
                                                 QStringLiteral("galera-4"),
                                                 QStringLiteral("rsync"),
                                                 QStringLiteral("firebird3.0-server"),
                                                 QStringLiteral("firebird3.0-server-core"),
                                                 QStringLiteral("firebird3.0-utils"),
                                                 QStringLiteral("unixodbc"),
                                                 QStringLiteral("odbc-postgresql"),
                                                 QStringLiteral("libsqliteodbc")};
const QStringList TestCommands::s_toolPackages{
    QStringLiteral("dpkg-dev"), QStringLiteral("lintian"), QStringLiteral("fakeroot"),
    QStringLiteral("tmux"), QStringLiteral("python3")};

void TestCommands::init()
{
    m_folder.reset(new QTemporaryDir);
    const QDir source(QStringLiteral(VEXT_SOURCE_DIR));
    for (const char *folder :
         {"project/.ci", "project/scripts", "project/examples", "tools", "state", "elsewhere"})
        QVERIFY(QDir().mkpath(path(QLatin1String(folder))));
    for (const char *file : {"run", "test", ".ci/run", "scripts/common.sh"}) {
        const QString name = QLatin1String(file);
        QVERIFY2(QFile::copy(source.filePath(name), path(QStringLiteral("project/") + name)), file);
    }
    addTool("dpkg-query", DpkgQuery);
    addTool("apt-get", AptGet);
    addTool("sudo", Sudo);
    addTool("id", Id);
    addTool("cmake", Cmake);
    addTool("ninja", Ninja);
    addTool("ctest", Ctest);
    write(QStringLiteral("state/installed"), QByteArray());
    write(QStringLiteral("state/unavailable"), QByteArray());
    write(QStringLiteral("state/user"), "0");
    m_callFrom = path(QStringLiteral("elsewhere"));
}

void TestCommands::write(const QString &name, const QByteArray &text)
{
    QFile file(path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(text);
}

void TestCommands::addTool(const char *name, const char *code)
{
    const QString file = QStringLiteral("tools/") + QLatin1String(name);
    write(file, QByteArray("#!/bin/bash\n") + code + '\n');
    QFile::setPermissions(path(file), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void TestCommands::install(const QStringList &packages)
{
    write(QStringLiteral("state/installed"), packages.join(QLatin1Char('\n')).toUtf8() + '\n');
}

void TestCommands::installAll()
{
    install(s_buildPackages + s_testPackages + s_serverPackages + s_toolPackages);
}

QString TestCommands::takeCalls()
{
    QFile log(path(QStringLiteral("state/log")));
    if (!log.open(QIODevice::ReadOnly))
        return QString();
    const QString text = QString::fromUtf8(log.readAll());
    log.remove();
    return text;
}

Outcome TestCommands::call(const QString &command, const QStringList &arguments,
                           const QByteArray &input)
{
    QProcess process;
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("PATH"),
                       path(QStringLiteral("tools")) + QStringLiteral(":/usr/bin:/bin"));
    environment.insert(QStringLiteral("STATE"), path(QStringLiteral("state")));
    environment.insert(QStringLiteral("CI"), QStringLiteral("true"));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(m_callFrom);
    process.start(path(command), arguments);
    process.write(input);
    process.closeWriteChannel();
    Outcome outcome;
    if (process.waitForFinished(LimitMs) && process.exitStatus() == QProcess::NormalExit)
        outcome.exitCode = process.exitCode();
    outcome.output = QString::fromUtf8(process.readAllStandardOutput());
    outcome.errors = QString::fromUtf8(process.readAllStandardError());
    outcome.calls = takeCalls();
    return outcome;
}

void TestCommands::runInstallsBuildsAndRunsTheQuickstart()
{
    const Outcome outcome = call(QStringLiteral("project/run"));
    QCOMPARE(outcome.calls, QStringLiteral("apt-get update -q\n"
                                           "apt-get install -y -q --no-install-recommends %1\n"
                                           "cmake --preset release -DVEXT_BUILD_TESTS=OFF\n"
                                           "ninja vext-run PluginSQL VextDrivers\n")
                                .arg(s_buildPackages.join(QLatin1Char(' '))));
    QCOMPARE(outcome.output, QStringLiteral("<%1> in %2\n")
                                 .arg(QDir(path(QStringLiteral("project")))
                                          .filePath(QStringLiteral("examples/quickstart.js")),
                                      m_callFrom));
    QVERIFY(outcome.errors.contains(QStringLiteral("vext: installing: g++ cmake")));
    QVERIFY(outcome.errors.contains(QStringLiteral("vext: building the release preset")));
}

void TestCommands::runPassesArgumentsInputAndExitCodeOn()
{
    install(s_buildPackages);
    const Outcome outcome =
        call(QStringLiteral("project/run"),
             {QStringLiteral("-e"), QStringLiteral("a b"), QStringLiteral("--trace")}, "typed\n");
    QCOMPARE(outcome.exitCode, 3);
    QCOMPARE(outcome.output, QStringLiteral("<-e><a b><--trace> in %1\ntyped\n").arg(m_callFrom));
}

void TestCommands::runDoesNothingWhereNothingIsToDo()
{
    install(s_buildPackages);
    call(QStringLiteral("project/run"));
    const Outcome outcome = call(QStringLiteral("project/run"));
    QCOMPARE(outcome.calls, QString());
    QCOMPARE(outcome.errors, QString());
    QCOMPARE(outcome.exitCode, 3);
}

void TestCommands::runNeedsNoServersAndNoTests()
{
    install(s_buildPackages);
    const Outcome outcome = call(QStringLiteral("project/run"));
    QVERIFY2(!outcome.calls.contains(QStringLiteral("apt-get")), qPrintable(outcome.calls));
    QVERIFY(outcome.calls.contains(QStringLiteral("-DVEXT_BUILD_TESTS=OFF\n")));
}

void TestCommands::runWorksThroughALinkAndFromAnyFolder()
{
    install(s_buildPackages);
    QVERIFY(QFile::link(path(QStringLiteral("project/run")), path(QStringLiteral("link"))));
    m_callFrom = QDir::rootPath();
    const Outcome outcome = call(QStringLiteral("link"), {QStringLiteral("my.js")});
    QCOMPARE(outcome.output, QStringLiteral("<my.js> in /\n"));
    QVERIFY(QFile::exists(path(QStringLiteral("project/build/release/bin/vext-run"))));
}

void TestCommands::runFailsLoudly_data()
{
    QTest::addColumn<QString>("trouble");
    QTest::addColumn<QString>("message");
    QTest::newRow("installation") << QStringLiteral("offline")
                                  << QStringLiteral("vext: could not install: g++ cmake ");
    QTest::newRow("preparation") << QStringLiteral("broken-configure")
                                 << QStringLiteral("vext: the build could not be prepared\n");
    QTest::newRow("build") << QStringLiteral("broken-build")
                           << QStringLiteral("FAILED: x.o\nvext: the build failed\n");
}

void TestCommands::runFailsLoudly()
{
    QFETCH(QString, trouble);
    QFETCH(QString, message);
    write(QStringLiteral("state/") + trouble, QByteArray());
    const Outcome outcome = call(QStringLiteral("project/run"));
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY2(outcome.errors.contains(message), qPrintable(outcome.errors));
    QCOMPARE(outcome.output, QString());
}

void TestCommands::sudoIsUsedByOtherUsersOnly()
{
    write(QStringLiteral("state/user"), "1000");
    const Outcome outcome = call(QStringLiteral("project/run"));
    QVERIFY2(outcome.calls.startsWith(QStringLiteral("sudo\napt-get update -q\nsudo\napt-get i")),
             qPrintable(outcome.calls));
    QCOMPARE(outcome.exitCode, 3);
}

void TestCommands::withoutSudoTheMissingPackagesAreNamed()
{
    if (QFile::exists(QStringLiteral("/usr/bin/sudo")))
        QSKIP("this machine has sudo, and it cannot be hidden from the command");
    write(QStringLiteral("state/user"), "1000");
    QVERIFY(QFile::remove(path(QStringLiteral("tools/sudo"))));
    const Outcome outcome = call(QStringLiteral("project/run"));
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY2(outcome.errors.contains(QStringLiteral("there is no sudo; as root, run: env ")),
             qPrintable(outcome.errors));
    QVERIFY(outcome.errors.contains(QStringLiteral("vext: could not install: g++")));
}

void TestCommands::missingPackageListsDoNotStopAnInstallation()
{
    const QByteArray failing =
        QByteArray("[ \"$1\" = update ] && { echo \"apt-get $*\" >>\"$STATE/log\"; exit 100; }") +
        AptGet;
    addTool("apt-get", failing.constData());
    const Outcome outcome = call(QStringLiteral("project/run"));
    QCOMPARE(outcome.exitCode, 3);
    QVERIFY(outcome.errors.contains(QStringLiteral("the package lists could not be read")));
}

void TestCommands::testInstallsBuildsAndRunsTheTests()
{
    const Outcome outcome = call(QStringLiteral("project/test"));
    QCOMPARE(outcome.exitCode, 0);
    QCOMPARE(outcome.calls, QStringLiteral("apt-get update -q\n"
                                           "apt-get install -y -q --no-install-recommends %1\n"
                                           "apt-get install -y -q --no-install-recommends %2\n"
                                           "cmake --preset release -DVEXT_BUILD_TESTS=ON\n"
                                           "ninja all\n"
                                           "ctest --preset release\n")
                                .arg((s_buildPackages + s_testPackages).join(QLatin1Char(' ')),
                                     (s_serverPackages + s_toolPackages).join(QLatin1Char(' '))));
    QVERIFY(!outcome.errors.contains(QStringLiteral("WARNING")));
}

void TestCommands::testPassesArgumentsAndExitCodeOn()
{
    installAll();
    write(QStringLiteral("state/broken-tests"), QByteArray());
    const Outcome outcome = call(QStringLiteral("project/test"),
                                 {QStringLiteral("-R"), QStringLiteral("a b")}, "typed\n");
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY(outcome.calls.endsWith(QStringLiteral("ctest --preset release -R a b\n")));
    QCOMPARE(outcome.output, QStringLiteral("input: \n100% tests passed\n"));
}

void TestCommands::testDoesNothingButTestWhereNothingIsToDo()
{
    installAll();
    call(QStringLiteral("project/test"));
    const Outcome outcome = call(QStringLiteral("project/test"));
    QCOMPARE(outcome.calls, QStringLiteral("ctest --preset release\n"));
    QCOMPARE(outcome.errors, QString());
}

void TestCommands::testPreparesAFolderWithoutTestsAgain()
{
    installAll();
    call(QStringLiteral("project/run"));
    QVERIFY(
        call(QStringLiteral("project/test"))
            .calls.startsWith(QStringLiteral("cmake --preset release -DVEXT_BUILD_TESTS=ON\n")));
    QCOMPARE(call(QStringLiteral("project/run")).calls,
             QString()); // a folder with tests serves both
}

void TestCommands::missingServerIsAWarningAtBothEnds()
{
    write(QStringLiteral("state/unavailable"), "mariadb-server\nlibsqliteodbc\n");
    const Outcome outcome = call(QStringLiteral("project/test"));
    QCOMPARE(outcome.exitCode, 0);
    const QString warning = QStringLiteral(
        "vext: WARNING: these packages cannot be installed, the tests that need them are skipped: "
        "mariadb-server libsqliteodbc\n");
    QCOMPARE(outcome.errors.count(warning), 2);
    QVERIFY2(outcome.errors.endsWith(warning), qPrintable(outcome.errors));
    QVERIFY(outcome.errors.indexOf(warning) <
            outcome.errors.indexOf(QStringLiteral("vext: preparing ")));
    // The others are there all the same.
    QVERIFY(outcome.calls.contains(QStringLiteral("--no-install-recommends postgresql\n")));
}

void TestCommands::continuousIntegrationEndsWithTheSummary()
{
    installAll();
    const Outcome outcome = call(QStringLiteral("project/.ci/run"));
    QCOMPARE(outcome.exitCode, 0);
    QVERIFY(outcome.calls.endsWith(QStringLiteral("ctest --preset release --parallel 2\n")));
    QCOMPARE(outcome.output, QStringLiteral("input: \n100% tests passed\n"));
    QVERIFY(outcome.errors.endsWith(QStringLiteral("vext: building the release preset: all\n")));
    write(QStringLiteral("state/broken-tests"), QByteArray());
    QCOMPARE(call(QStringLiteral("project/.ci/run")).exitCode, 1);
}

QTEST_GUILESS_MAIN(TestCommands)
#include "test_commands.moc"
