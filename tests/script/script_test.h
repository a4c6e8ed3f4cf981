/// @file
/// What the tests of scripts share: the plugin in a host, a connection `db` and the questions that
/// a test asks about both.
#pragma once

#include "message_log.h"
#include "message_sink.h"
#include "plugin_library.h"
#include "recording_driver.h"
#include "script_host.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <vector>

/// A text of a test, written as it is.
inline QString operator""_qs(const char *text, size_t length)
{
    return QString::fromUtf8(text, int(length));
}

/// Error of a stub driver; its text() is "@p databaseText STUB: failed".
inline QSqlError statementError(const QString &databaseText)
{
    return stubError(QSqlError::StatementError, databaseText);
}

/// Base of a test program. Each test function gets a new host with the plugin installed, a folder
/// for database files and an empty message log; afterwards no connection, no driver and no result
/// may be left, and Qt must not have complained about misuse. Everything runs in the test's thread.
class ScriptTest : public QObject
{
    Q_OBJECT

public:
    ScriptTest();
    ~ScriptTest() override;

protected:
    /// Object to install into engines; by default that of the library loaded as a host does it.
    virtual QObject *pluginObject();
    /// The application's server, which lives as long as the program's tests.
    VextServerStub *server() const { return m_server.get(); }

    ScriptHost &host() const { return *m_host; }
    MessageLog &log() const { return *m_log; }
    /// Complaints of Qt that the test provokes on purpose, as a pattern.
    void expectComplaints(const QString &pattern) { m_expectedComplaints = pattern; }

    /// Destroys the engine with all its connections within a test.
    void destroyHost();

    /// Makes the stub driver of a name for this test; the last one made is stub().
    StubServer &makeStub(const QString &driverName,
                         QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms);
    StubServer &stub() const { return *m_stubs.back(); }

    /// `var db = new VEXT_SQL()` with a driver and a database, opened. Sent messages are forgotten.
    void openDb(const QString &driverName, const QString &databaseName = QStringLiteral("base"));
    /// The same on a database file of this test, which both connections of the object share.
    void openSqlite();
    /// The same on a stub driver made for it.
    StubServer &openStub(const QString &driverName,
                         QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms);
    QString path(const QString &fileName) const { return m_folder.filePath(fileName); }

    // Script expressions. An exception fails the test at the caller's line.
    QScriptValue eval(const QString &code, int line = __builtin_LINE());
    QString text(const QString &expression, int line = __builtin_LINE());
    bool truth(const QString &expression, int line = __builtin_LINE());
    double number(const QString &expression, int line = __builtin_LINE());
    /// The value as JSON.stringify() writes it.
    QString json(const QString &expression, int line = __builtin_LINE());

    /// Defines `answers` and `record`: a callback that notes its arguments there, and connects
    /// query_finish of `db` to `finished`, a list of its arguments.
    void recordAnswers();
    /// Runs events until that many answers, by callback and by signal together, have come.
    bool waitForAnswers(int count);

    /// Messages of the worker that reached the host: "level function text".
    QStringList sent() const;
    void forgetMessages();
    /// Critical lines of the log without their time.
    QStringList criticalLines() const;
    /// Debug lines of one function: what follows the function's name.
    QStringList debugLines(const QString &function) const;

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

private:
    QTemporaryDir m_folder;
    std::unique_ptr<VextServerStub> m_server;
    std::unique_ptr<PluginLibrary> m_library;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ScriptHost> m_host;
    std::vector<std::unique_ptr<StubServer>> m_stubs;
    QString m_expectedComplaints;
    int m_files = 0;
};
