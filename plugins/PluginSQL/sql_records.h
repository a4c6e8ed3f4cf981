/// @file
/// The records that carry work and its outcome between the threads of one connection.
#pragma once

#include "column_values.h"
#include "sql_driver_kind.h"

#include <QElapsedTimer>
#include <QList>
#include <QMetaType>
#include <QScriptValue>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

#include <vector>

/// What a task asks the worker to do. The worker's loop dispatches on these numbers.
enum taskSqlType : int {
    taskSql = 0,         ///< run the statements of sqlList
    taskTransaction = 1, ///< begin a transaction
    taskCommit = 2,
    taskRollback = 3
};

/// One column of one executed statement.
struct structSqlFieldResult {
    QString name;        ///< as the driver reports it
    int type = 0;        ///< QVariant type id; 0 while unknown
    ColumnValues values; ///< one value a row, nulls included
    QList<uint> nulls;   ///< zero-based rows that are NULL, ascending
};

/// One executed statement, column by column.
struct structSqlResult {
    QSqlError error;
    QList<structSqlFieldResult> fields;
    QVariant lastInsertId;
    QString executedQuery;
    QString lastQuery;
    int index = 0;           ///< position of the statement within its task
    int size = -1;           ///< as the driver reports it, -1 where unknown
    int numRowsAffected = 0; ///< a negative report is stored as 0
    bool hasLastInsertId = false;
    bool canceled = false; ///< reading stopped early
    int stream = 0;        ///< number of its slices, where the rows are no longer in `fields`
    /// Cells of the only row on its way from the worker thread; `fields` hold no values then.
    std::vector<QVariant> onlyRow;

    /// Gives the cells of the only row to their columns.
    void spreadOnlyRow();
};

/// One task: the statements, the callback that wants the outcome, and the results.
///
/// One owner at a time: its creator, the queue, the worker's loop, the completion step, which
/// frees it. Script values are made, read and destroyed in the engine's thread only; the worker
/// touches `sqlQuery`, the lists of strings and variants, `results`, the flags and the integers.
struct structThrSql {
    structThrSql();
    /// As above, with a query on `database`; for statements run in the calling thread.
    explicit structThrSql(const QSqlDatabase &database);
    /// Finishes, clears and deletes a query that is still there. In the thread that made it.
    ~structThrSql();

    Q_DISABLE_COPY(structThrSql)

    /// Finishes and clears the query if it is active, and deletes it.
    void releaseQuery();

    QSqlQuery *sqlQuery = nullptr; ///< owned; at most one at a time
    QElapsedTimer timer;           ///< age of the task, started at construction
    // The four script values start as the boolean false, not undefined: a callback that gets an
    // untouched error sees false. They are made without an engine: they need none, and an engine
    // that is gone does not matter.
    QScriptValue thisObject = scriptFalse();
    QScriptValue func = scriptFalse();
    QScriptValue result = scriptFalse();
    QScriptValue error = scriptFalse();
    QStringList sqlList;
    QScriptValueList argsJs;      ///< the script's own argument values, kept with the task
    QScriptValueList callArgs;    ///< follow the callback's fixed arguments
    QList<QVariantList> procArgs; ///< bound values, one list an entry of sqlList
    QList<structSqlResult> results;
    bool inThread = false; ///< taken from the queue by the worker
    bool timing = false;   ///< the statement ends with "--"
    bool failed = false;
    bool isProc = false; ///< made by exec_thread
    bool ok = false;     ///< outcome of the last execution
    int current = 0;     ///< index of the statement being executed or converted
    int rowsAffected = 0;
    taskSqlType type = taskSql;
    SqlDriverKind::ConnectionKind kind; ///< of the connection that runs it
    QSqlError ownError;                 ///< of the worker; stands in place of the query's
    QString ownText;                    ///< statement that was not sent because of it

    /// What the last execution ended with.
    QSqlError lastError() const;

private:
    /// One for all tasks, of any thread: a value without an engine is never changed.
    static const QScriptValue &scriptFalse();
};

Q_DECLARE_METATYPE(structThrSql *)
