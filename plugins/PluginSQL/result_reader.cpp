#include "result_reader.h"

#include "result_stream.h"

#include <QSqlDriver>
#include <QSqlQuery>
#include <QSqlRecord>

#include <algorithm>
#include <limits>
#include <optional>
#include <vector>

namespace
{

bool haveNames(const QList<structSqlFieldResult> &columns, const QSqlRecord &record)
{
    if (columns.size() != record.count())
        return false;
    for (int c = 0; c < columns.size(); ++c) {
        if (columns.at(c).name != record.fieldName(c))
            return false;
    }
    return true;
}

/// Gives the columns the types of the only row's cells, where they do not have them already.
void takeTypes(structSqlResult &result)
{
    for (int c = 0; c < result.fields.size(); ++c) {
        int type = QMetaType::UnknownType;
        if (!result.onlyRow.empty() && !result.onlyRow[size_t(c)].isNull())
            type = result.onlyRow[size_t(c)].userType();
        if (type != result.fields.at(c).type)
            result.fields[c].type = type;
    }
}

} // namespace

ResultReader::ResultReader(QSqlQuery &query, const SqlDriverKind::ConnectionKind &kind)
    : m_query(query)
    , m_kind(kind)
{
}

/// For the drivers below nothing that a script sees depends on it. The others may choose another
/// kind of cursor on the server; QMYSQL (5.15) ends a streamed result silently when the connection
/// breaks, so a part of the rows would pass for all of them; QIBASE (5.15) repeats the one row of a
/// procedure for ever.
void ResultReader::prepare()
{
    m_query.setForwardOnly(m_kind.driverType == SqlDriverKind::PostgreSql ||
                           m_kind.driverType == SqlDriverKind::SQLite);
}

void ResultReader::read(structSqlResult &result, const Stop &stop, Thread *thread)
{
    // Columns that the driver describes by a row are described anew.
    Thread *const sharing = m_query.isValid() ? nullptr : thread;
    describeColumns(result, sharing);
    // A procedure without output crashes some drivers when rows are asked for.
    if (!result.fields.isEmpty()) {
        if (sharing)
            readShort(result, stop, *sharing);
        else if (toFirstRow())
            readRows(result, stop, thread ? &thread->stream : nullptr, 0);
    }
    readFigures(result);
    // Whether the driver's interrupt or the look at the stop request ends a read is chance. A lost
    // connection is told as such all the same.
    if (m_endedByError && result.error.type() != QSqlError::ConnectionError && stop()) {
        result.canceled = true;
        result.error = QSqlError();
    }
}

int ResultReader::affectedRows() const
{
    return std::max(0, m_query.numRowsAffected());
}

void ResultReader::describeColumns(structSqlResult &result, const Thread *thread) const
{
    const QSqlRecord record = m_query.record();
    if (thread && haveNames(thread->columns, record)) {
        result.fields = thread->columns;
        return;
    }
    const bool onRow = m_query.isValid();
    const int columns = record.count();
    result.fields.reserve(columns);
    for (int c = 0; c < columns; ++c) {
        result.fields.append(structSqlFieldResult());
        structSqlFieldResult &field = result.fields.last();
        field.name = record.fieldName(c);
        field.type = onRow ? record.value(c).userType() : 0;
    }
}

/// Keeps the first row as it comes until there is a second: a row by itself needs no columns of
/// its own.
void ResultReader::readShort(structSqlResult &result, const Stop &stop, Thread &thread)
{
    const bool onRow = toFirstRow();
    if (onRow && stop()) {
        result.canceled = true;
        return;
    }
    if (onRow) {
        const int columns = result.fields.size();
        result.onlyRow.reserve(size_t(columns));
        for (int c = 0; c < columns; ++c)
            result.onlyRow.push_back(m_query.value(c));
    }
    const bool hasMore = onRow && m_query.next();
    takeTypes(result);
    if (!hasMore) {
        thread.columns = result.fields;
        return;
    }
    result.spreadOnlyRow();
    readRows(result, stop, &thread.stream, 1);
}

/// Reads from the present row on, which is number `row`.
void ResultReader::readRows(structSqlResult &result, const Stop &stop, ResultStream *stream,
                            int row)
{
    const int columns = result.fields.size();
    // One detach here instead of one a cell.
    std::vector<structSqlFieldResult *> fields;
    fields.reserve(size_t(columns));
    for (structSqlFieldResult &field : result.fields)
        fields.push_back(&field);
    std::optional<ResultSlicer> slicer;
    if (stream)
        slicer.emplace(*stream, result);
    int nextCut = slicer ? slicer->nextCut() : std::numeric_limits<int>::max();
    for (bool onRow = true; onRow; onRow = m_query.next(), ++row) {
        if (stop()) {
            result.canceled = true;
            return;
        }
        if (row == nextCut) {
            slicer->cut(row);
            nextCut = slicer->nextCut();
        }
        for (int c = 0; c < columns; ++c) {
            structSqlFieldResult &field = *fields[size_t(c)];
            const int type = field.values.appendCell(m_query.value(c));
            if (type == QMetaType::UnknownType)
                field.nulls.append(uint(row));
            else if (type != field.type)
                field.type = type;
        }
    }
    if (slicer)
        slicer->finish();
}

/// What is known only behind the last row: affected rows, the inserted id, and the errors that
/// drivers report while they read.
void ResultReader::readFigures(structSqlResult &result)
{
    result.error = m_query.lastError();
    m_endedByError = !result.canceled && result.error.type() != QSqlError::NoError;
    if (m_kind.driverType == SqlDriverKind::MySql && !result.error.isValid() &&
        result.fields.isEmpty())
        result.error = silentLoss();
    if (mayReadLastInsertId()) {
        result.lastInsertId = m_query.lastInsertId();
        result.hasLastInsertId = true;
    }
    result.numRowsAffected = affectedRows();
    if (!result.canceled && result.error.type() == QSqlError::NoError)
        result.error = errorBehind();
}

/// Goes to the row from which a query is read: its first one, or the current one where the driver
/// cannot go back. @return whether there is one.
bool ResultReader::toFirstRow()
{
    if (m_query.at() == QSql::BeforeFirstRow)
        return m_query.next();
    return m_query.isForwardOnly() ? m_query.isValid() : m_query.first();
}

/// PostgreSQL answers with an error where a statement made no id, and would spoil the query.
bool ResultReader::mayReadLastInsertId() const
{
    const QSqlDriver::DbmsType dbms = m_query.driver()->dbmsType();
    if (m_kind.driverType != SqlDriverKind::Odbc)
        return dbms != QSqlDriver::PostgreSQL;
    switch (dbms) {
    case QSqlDriver::MSSqlServer:
    case QSqlDriver::MySqlServer:
    case QSqlDriver::PostgreSQL:
    case QSqlDriver::Sybase:
        return true;
    default:
        return false;
    }
}

/// QMYSQL (5.15) reports success and no columns when the connection breaks while it takes a result
/// over; only the affected rows are unknown then, which they are for no statement that worked.
/// @return the error that the connection gives when it is asked again.
QSqlError ResultReader::silentLoss()
{
    if (m_query.isSelect() || m_query.numRowsAffected() != -1)
        return QSqlError();
    QSqlQuery probe(m_query.driver()->createResult());
    if (!probe.exec(QStringLiteral("DO 0")))
        return probe.lastError();
    return QSqlError(QStringLiteral("QMYSQL"), QStringLiteral("the result was lost"),
                     QSqlError::StatementError);
}

/// The first error among the results behind the delivered one: those of the further statements of a
/// text, or of a procedure.
QSqlError ResultReader::errorBehind()
{
    if (!m_query.driver()->hasFeature(QSqlDriver::MultipleResultSets))
        return QSqlError();
    while (m_query.nextResult()) {
    }
    return m_query.lastError();
}
