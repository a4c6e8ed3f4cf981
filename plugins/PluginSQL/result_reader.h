/// @file
/// How what an executed query answered becomes a record.
#pragma once

#include "sql_driver_kind.h"
#include "sql_records.h"

#include <functional>

class QSqlQuery;
class QSqlRecord;
class ResultStream;

/// Reads one executed query into a record, with what some drivers leave out.
///
/// Lives on the stack of the thread that executed the query. It knows the query and the kind of
/// its connection, and neither the engine nor a script value.
class ResultReader
{
public:
    using Stop = std::function<bool()>;

    /// What a thread brings that reads one query after the other.
    struct Thread {
        ResultStream &stream; ///< takes the rows of a large result while they are read
        /// Of the last result of one row at most, without values: the next one often shares them.
        QList<structSqlFieldResult> columns = {};
    };

    /// @param query outlives the object.
    ResultReader(QSqlQuery &query, const SqlDriverKind::ConnectionKind &kind);

    /// Chooses, before the query is executed, whether the driver keeps the rows.
    void prepare();

    /// Goes through the whole answer: columns, rows, figures, and the results behind the first one.
    /// The record gets the error that the driver reports on the way.
    /// @param stop asked before each row, and when the rows end in an error; where it says yes, the
    /// record is marked as cancelled, without an error.
    /// @param thread null keeps all rows in the record, in its columns.
    void read(structSqlResult &result, const Stop &stop, Thread *thread = nullptr);

    /// The affected rows as records keep them: a driver's -1 is 0.
    int affectedRows() const;

private:
    void describeColumns(structSqlResult &result, const Thread *thread) const;
    void readShort(structSqlResult &result, const Stop &stop, Thread &thread);
    void readRows(structSqlResult &result, const Stop &stop, ResultStream *stream, int row);
    void readFigures(structSqlResult &result);
    bool toFirstRow();
    bool mayReadLastInsertId() const;
    QSqlError silentLoss();
    QSqlError errorBehind();

    QSqlQuery &m_query;
    const SqlDriverKind::ConnectionKind m_kind;
    bool m_endedByError = false; ///< the rows, not what is behind them
};
