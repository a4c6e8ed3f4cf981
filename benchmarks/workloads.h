/// @file
/// The workloads and the ways to do them. Each way runs in a process of its own.
#pragma once

#include "measurement.h"

#include <QString>
#include <QVector>

/// Where the data is.
struct Target {
    bool postgres = false;
    QString sqliteFile;
    QString host;
    int port = 0;
    QString database;
    QString driver; ///< empty: the system's own
    QString user;
    QString password;
    qint64 serverPid = 0; ///< 0: no server, or none of ours

    QString driverName() const
    {
        if (!driver.isEmpty())
            return driver;
        return postgres ? QStringLiteral("QPSQL") : QStringLiteral("QSQLITE");
    }
    QString name() const
    {
        return postgres ? QStringLiteral("PostgreSQL") : QStringLiteral("SQLite");
    }
    /// The server and what it has started, as far as it still runs.
    QVector<qint64> serverProcesses() const;
};

/// The statements, the same for every way.
struct Workload {
    enum class Kind {
        Read,       ///< one statement with many rows
        Chain,      ///< statements, each after the result of the one before
        Queue,      ///< statements, all at once
        Insert,     ///< inserts in one transaction
        Connections ///< connection objects, each with one statement
    };
    Kind kind = Kind::Read;
    int rows = 0;    ///< of Read
    int columns = 0; ///< of Read; 0 reads the six columns of the large table
    QString column;  ///< set by the way: Read reads this expression alone
    int count = 0;   ///< of statements or connections

    bool bound = false; ///< set by the way: look-ups and inserts bind their values
    QString readStatement() const;
    bool pointQuery = false; ///< Chain and Queue read one row by its key instead of a report
    /// What is looked up by statement number i.
    int key(int i) const { return (i * 37) % 400000 + 1; }
    /// Statement number i of Chain and Queue: a report over 500 rows, or one row by its key.
    QString smallStatement(int i) const;
};

// The floor: the C interfaces, reading into typed column vectors.
Measurement floorPath(const Target &target, const Workload &workload);
/// Chain and Queue on a thread of its own, which hands each result over.
Measurement floorThread(const Target &target, const Workload &workload);
/// Insert as quick as the system has it: COPY on PostgreSQL, one prepared statement on SQLite.
Measurement floorBulk(const Target &target, const Workload &workload);

// Plain Qt: QSqlQuery forward-only with the values discarded; a QThread that reads into columns of
// QVariant and hands them over; and a script's row loop over a wrapped QSqlQuery, NULL told apart.
Measurement qtQuery(const Target &target, const Workload &workload);
Measurement qtThread(const Target &target, const Workload &workload);
Measurement scriptLoop(const Target &target, const Workload &workload);

// The plugin, through a script engine.
/// The library that is measured: the one of this build, or what the variable names.
constexpr char PluginVariable[] = "VEXT_BENCH_PLUGIN";
QString pluginFile();
Measurement pluginSync(const Target &target, const Workload &workload);
Measurement pluginAsync(const Target &target, const Workload &workload);
