/// @file
/// What the recording driver answers: replies to statements and effects on its other calls. Plain
/// values; each setter returns the value itself, so that a reply is written in one expression.
#pragma once

#include "thread_gate.h"

#include <QSqlError>
#include <QSqlField>
#include <QString>
#include <QVariant>
#include <QVector>

#include <functional>
#include <utility>

/// Makes an error as a driver reports it.
inline QSqlError stubError(QSqlError::ErrorType type, const QString &databaseText,
                           const QString &nativeCode = QString(),
                           const QString &driverText = QStringLiteral("STUB: failed"))
{
    return QSqlError(driverText, databaseText, type, nativeCode);
}

/// The rows of a reply: a row number (from 0) to the row's values.
using StubRowSource = std::function<QVariantList(int row)>;

/// The answer to one statement.
struct StubReply {
    using Column = std::pair<QString, QVariant::Type>;

    /// Success of a statement that returns no columns.
    static StubReply affected(int rows)
    {
        StubReply reply;
        reply.affectedRows = rows;
        return reply;
    }
    /// A result with columns and the rows given.
    static StubReply table(const QVector<Column> &columns, const QVector<QVariantList> &rows = {})
    {
        return generated(columns, rows.size(), [rows](int row) { return rows.at(row); });
    }
    /// A result whose rows are made one by one. @p source is called in the thread that reads, for
    /// the rows 0 to @p count - 1 and possibly more than once for a row.
    static StubReply generated(const QVector<Column> &columns, int count, StubRowSource source)
    {
        StubReply reply;
        for (const Column &column : columns)
            reply.columns.append(QSqlField(column.first, column.second));
        reply.isSelect = true;
        reply.rowCount = count;
        reply.size = count;
        reply.rowAt = std::move(source);
        return reply;
    }
    /// Failure at execution.
    static StubReply failure(const QSqlError &error)
    {
        StubReply reply;
        reply.error = error;
        return reply;
    }
    /// Failure at preparation; a direct execution fails with the same error.
    static StubReply prepareFailure(const QSqlError &error)
    {
        StubReply reply = failure(error);
        reply.prepareError = error;
        return reply;
    }

    /// Failure at execution of which the driver does not say why.
    static StubReply silentFailure()
    {
        StubReply reply;
        reply.failsSilently = true;
        return reply;
    }

    /// What size() answers; -1 as a driver that does not know.
    StubReply &withSize(int rows)
    {
        size = rows;
        return *this;
    }
    /// size() answers -1 while the result is forward-only, as a driver that streams does.
    StubReply &withSizeUnknownWhenForwardOnly()
    {
        sizeUnknownWhenForwardOnly = true;
        return *this;
    }
    StubReply &withAffected(int rows)
    {
        affectedRows = rows;
        return *this;
    }
    /// numRowsAffected() answers -1 until the reader has run past the last row.
    StubReply &withAffectedOnlyAfterLastRow()
    {
        affectedOnlyAfterLastRow = true;
        return *this;
    }
    StubReply &withLastInsertId(const QVariant &id)
    {
        lastInsertId = id;
        return *this;
    }
    StubReply &withSelect(bool on)
    {
        isSelect = on;
        return *this;
    }
    /// Reading row @p row (from 0) fails; the rows before it are read.
    StubReply &failingAtRow(int row, const QSqlError &rowError)
    {
        errorRow = row;
        errorAtRow = rowError;
        return *this;
    }
    /// A further result follows, and getting it fails.
    StubReply &withErrorBehind(const QSqlError &nextError)
    {
        errorBehind = nextError;
        return *this;
    }
    /// At execution the driver finds its connection broken: it is open no more, and keeps what it had
    /// of it until it is closed.
    StubReply &withConnectionLost()
    {
        losesConnection = true;
        return *this;
    }
    /// Execution lasts so long. A cancel ends it at once when the driver can cancel.
    StubReply &withDelay(int ms)
    {
        delayMs = ms;
        return *this;
    }
    /// Reading each row lasts so long; cancelled as execution is.
    StubReply &withRowDelay(int ms)
    {
        rowDelayMs = ms;
        return *this;
    }
    /// Execution stands still at the gate; cancelled as a delay is.
    StubReply &withGate(ThreadGatePtr held)
    {
        gate = std::move(held);
        return *this;
    }
    /// Reading row @p row stands still at the gate.
    StubReply &withGateAtRow(int row, ThreadGatePtr held)
    {
        gateRow = row;
        rowGate = std::move(held);
        return *this;
    }

    QVector<QSqlField> columns;
    int rowCount = 0;
    StubRowSource rowAt;
    bool isSelect = false;
    int size = -1;
    bool sizeUnknownWhenForwardOnly = false;
    int affectedRows = -1;
    bool affectedOnlyAfterLastRow = false;
    QVariant lastInsertId;
    QSqlError error;        ///< at execution, when valid
    QSqlError prepareError; ///< at preparation, when valid
    bool failsSilently = false;
    bool losesConnection = false;
    int errorRow = -1;
    QSqlError errorAtRow;
    QSqlError errorBehind; ///< of nextResult(), when valid
    int delayMs = 0;
    int rowDelayMs = 0;
    ThreadGatePtr gate;
    int gateRow = -1;
    ThreadGatePtr rowGate;
};

/// Which statements a reply is for. Texts are compared as they reach the driver; a prepared text is
/// also compared as the caller wrote it, before Qt replaced its placeholders. A predicate runs in
/// the thread of the statement and must not call the server.
struct StubMatch {
    static StubMatch exact(const QString &text)
    {
        return {[text](const QString &sql) { return sql == text; }};
    }
    static StubMatch prefix(const QString &text)
    {
        return {[text](const QString &sql) { return sql.startsWith(text); }};
    }
    static StubMatch where(std::function<bool(const QString &sql)> accepts)
    {
        return {std::move(accepts)};
    }

    std::function<bool(const QString &sql)> accepts;
};

/// What happens in a call other than a statement. A call waits for its delay, then at its gate, and
/// then fails when an error is set.
struct StubEffect {
    static StubEffect failure(const QSqlError &error)
    {
        StubEffect effect;
        effect.error = error;
        return effect;
    }
    static StubEffect delay(int ms)
    {
        StubEffect effect;
        effect.delayMs = ms;
        return effect;
    }
    static StubEffect held(ThreadGatePtr gate)
    {
        StubEffect effect;
        effect.gate = std::move(gate);
        return effect;
    }

    QSqlError error;
    int delayMs = 0;
    ThreadGatePtr gate;
};

/// Which calls an effect is for: all of its kind, unless narrowed.
struct StubWhere {
    /// Calls of the connections whose name ends so ("_thr").
    static StubWhere connection(const QString &suffix)
    {
        StubWhere where;
        where.connectionSuffix = suffix;
        return where;
    }
    /// The n-th such call from now on, counted from 1.
    static StubWhere nth(int n)
    {
        StubWhere where;
        where.number = n;
        return where;
    }
    /// Calls about this name (a notification, a table type as a number).
    static StubWhere text(const QString &text)
    {
        StubWhere where;
        where.callText = text;
        return where;
    }
    StubWhere &andNth(int n)
    {
        number = n;
        return *this;
    }

    QString connectionSuffix;
    QString callText;
    int number = 0; ///< 0: every one
};
