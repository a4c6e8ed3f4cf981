/// @file
/// The database systems that the tests of the layer run on.
#pragma once

#include "firebird_server.h"
#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <map>

/// Every system under one roof, each started on first use. In the test's thread.
class LayeredSystems
{
public:
    LayeredSystems();

    /// Names for data rows, in a fixed order. Firebird is the engine in this process there;
    /// "Firebird server" is one over the network.
    static QStringList names();

    TestDatabase &get(const QString &name) { return *m_all.at(name); }
    PostgresServer &postgres() { return m_postgres; }
    MariaDbServer &mariadb() { return m_mariadb; }
    FirebirdServer &firebirdServer() { return m_firebirdServer; }

    /// @return whether the system runs; a reason when it cannot on this machine, an error when it
    /// should but does not
    bool started(const QString &name, QString *reason, QString *error);

    /// SQL of the system for what the tests need everywhere.
    static QString selectWithoutTable(const QString &name, const QString &expression);
    /// Type of a column of texts that holds 200 characters of any script.
    static QString textType(const QString &name);

private:
    void add(TestDatabase *database) { m_all[database->name()] = database; }

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    FirebirdDatabase m_firebird;
    FirebirdServer m_firebirdServer;
    SqliteDatabase m_sqlite{SqliteDatabase::Place::File};
    OdbcSource m_odbcPostgres{OdbcSource::Behind::PostgreSql, &m_postgres};
    OdbcSource m_odbcSqlite{OdbcSource::Behind::Sqlite};
    std::map<QString, TestDatabase *> m_all;
    std::map<QString, bool> m_started;
};

/// Skips the row whose server is missing; fails it when the server does not start.
#define USE_SYSTEM(systems, name)                                                                  \
    do {                                                                                           \
        QString reason_;                                                                           \
        QString error_;                                                                            \
        if (!(systems).started(name, &reason_, &error_)) {                                         \
            if (!reason_.isEmpty())                                                                \
                QSKIP(qPrintable(reason_));                                                        \
            QFAIL(qPrintable(error_));                                                             \
        }                                                                                          \
    } while (false)
