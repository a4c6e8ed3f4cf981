/// @file
/// How what an executed query answered becomes a record.
#pragma once

#include "sql_driver_kind.h"
#include "sql_records.h"

#include <functional>

class QSqlQuery;
class ResultStream;

/// Reads one executed query into a record, with what some drivers leave out.
///
/// Lives on the stack of the thread that executed the query. It knows the query and the kind of
/// its connection, and neither the engine nor a script value.
class ResultReader
{
public:
    using Stop = std::function<bool()>;

    /// @param query outlives the object.
    ResultReader(QSqlQuery &query, const SqlDriverKind::ConnectionKind &kind);

    /// Chooses, before the query is executed, whether the driver keeps the rows.
    void prepare();

    /// Goes through the whole answer: columns, rows, figures, and the results behind the first one.
    /// The record gets the error that the driver reports on the way.
    /// @param stop asked before each row; where it says yes, the record is marked as cancelled.
    /// @param stream takes the rows of a large result while they are read; null keeps all of them
    /// in the record.
    void read(structSqlResult &result, const Stop &stop, ResultStream *stream = nullptr);

    /// The affected rows as records keep them: a driver's -1 is 0.
    int affectedRows() const;

private:
    void describeColumns(structSqlResult &result) const;
    void readRows(structSqlResult &result, const Stop &stop, ResultStream *stream);
    void readFigures(structSqlResult &result);
    bool toFirstRow();
    bool mayReadLastInsertId() const;
    QSqlError silentLoss();
    QSqlError errorBehind();

    QSqlQuery &m_query;
    const SqlDriverKind::ConnectionKind m_kind;
};
