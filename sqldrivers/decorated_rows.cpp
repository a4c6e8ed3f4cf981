/// @file
/// What a DecoratedResult does with the rows of an executed statement.
#include "decorated_driver.h"
#include "decorated_result.h"

#include <QSqlField>
#include <QSqlRecord>
#include <QtSql/private/qsqlresult_p.h>

// --- Moving ---

bool DecoratedResult::stopAtCancel()
{
    m_run.fetching();
    if (!m_run.isCancelled())
        return false;
    setAt(QSql::AfterLastRow);
    fail(QSqlError());
    return true;
}

/// After each step through the rows: behind the last one the statement is over.
bool DecoratedResult::moved(bool onRow)
{
    setAt(m_rows->at());
    if (onRow)
        return true;
    DecoratedDriver *driver = owner();
    const QSqlError error =
        driver ? driver->policy()->errorOf(*m_rows, Policy::Step::Fetch) : m_rows->lastError();
    endStatement(); // first: what fail() looks at on the connection is not to be cancelled
    if (error.isValid())
        fail(error);
    return false;
}

/// Reading the rows has failed with the stock driver's error, or was cancelled between two of them.
void DecoratedResult::fail(const QSqlError &error)
{
    m_worthKeeping = false;
    DecoratedDriver *driver = owner();
    if (!driver)
        return;
    tellPolicy(*driver, false);
    setLastError(explained(*driver, error, m_run.reason(), Policy::Step::Fetch));
}

bool DecoratedResult::fetchNext()
{
    if (!m_rows || stopAtCancel())
        return false;
    if (!m_rows->fetchNext())
        return moved(false);
    ++d_ptr->idx; // as every stock driver does; this is the step that is taken most often
    return true;
}

bool DecoratedResult::fetchFirst()
{
    return m_rows && !stopAtCancel() && moved(m_rows->fetchFirst());
}

bool DecoratedResult::fetchPrevious()
{
    return m_rows && !stopAtCancel() && moved(m_rows->fetchPrevious());
}

bool DecoratedResult::fetchLast()
{
    return m_rows && !stopAtCancel() && moved(m_rows->fetchLast());
}

bool DecoratedResult::fetch(int row)
{
    return m_rows && !stopAtCancel() && moved(m_rows->fetch(row));
}

bool DecoratedResult::nextResult()
{
    DecoratedDriver *driver = owner();
    if (!m_rows || !driver)
        return false;
    beginStatement(*driver);
    const bool more = m_rows->nextResult();
    if (more || driver->policy()->errorOf(*m_rows, Policy::Step::Fetch).isValid())
        return conclude(*driver, more, Policy::Step::Fetch);
    // The last result was the last one, which is no error.
    endStatement();
    setAt(m_rows->at());
    setActive(m_rows->isActive());
    return false;
}

// --- Values ---

QVariant DecoratedResult::data(int column)
{
    if (!m_rows)
        return QVariant();
    if (!m_adjusts)
        return m_rows->data(column);
    if (!m_knowsColumns)
        readColumns();
    const QVariant value = m_rereads
                               ? owner()->policy()->reread(*m_rows, column, m_rows->data(column))
                               : m_rows->data(column);
    return column >= 0 && column < m_rules.size() ? m_rules.at(column).applied(value) : value;
}

/// What the columns of this execution need, found with its first value.
void DecoratedResult::readColumns()
{
    DecoratedDriver *driver = owner();
    m_rereads = driver && driver->policy()->rereads(*m_rows);
    if (driver && driver->policy()->adjustsValues(driver->options()))
        m_rules = driver->policy()->columnRules(m_rows->record(), driver->options());
    m_knowsColumns = true;
    m_adjusts = m_rereads || !m_rules.isEmpty();
}

bool DecoratedResult::isNull(int column)
{
    return !m_rows || m_rows->isNull(column);
}

int DecoratedResult::size()
{
    return m_rows ? m_rows->size() : -1;
}

int DecoratedResult::numRowsAffected()
{
    return m_rows ? m_rows->numRowsAffected() : -1;
}

/// Values that a procedure has given back.
void DecoratedResult::readBack()
{
    const QVector<int> &valueOf = m_bound->plan().valueOf();
    const QVector<QVariant> &values = m_rows->boundValues();
    for (int i = 0; i < valueOf.size() && i < values.size(); ++i) {
        if (d_ptr->types.value(valueOf.at(i)) & QSql::Out)
            d_ptr->values[valueOf.at(i)] = values.at(i);
    }
}

QVariant DecoratedResult::lastInsertId() const
{
    if (!m_rows)
        return QVariant();
    const DecoratedDriver *driver = owner();
    const std::unique_ptr<LineWatch> watch = driver ? driver->policy()->watchLastId() : nullptr;
    return m_rows->lastInsertId();
}

QSqlRecord DecoratedResult::record() const
{
    QSqlRecord columns = m_rows ? m_rows->record() : QSqlRecord();
    const DecoratedDriver *driver = owner();
    for (int i = 0; driver && i < columns.count(); ++i) {
        const QString given = columns.fieldName(i);
        const QString name = driver->policy()->columnName(given);
        if (name == given)
            continue;
        QSqlField column = columns.field(i);
        column.setName(name);
        columns.replace(i, column);
    }
    return columns;
}

QVariant DecoratedResult::handle() const
{
    return m_rows ? m_rows->handle() : QVariant();
}
