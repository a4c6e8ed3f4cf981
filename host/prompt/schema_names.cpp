#include "schema_names.h"

#include "catalog.h"
#include "result_reader.h"

#include <QScriptEngine>

SchemaNames::SchemaNames(QScriptEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
}

void SchemaNames::read(const SqlConnection &connection)
{
    m_columns.clear();
    if (m_run)
        m_run->deleteLater();
    const QString sql = Catalog(connection.driver()).names();
    if (!connection.isOpen() || sql.isEmpty())
        return;
    m_run = new SqlRun(m_engine, this);
    connect(m_run.data(), &SqlRun::finished, this, [this, run = m_run.data()] {
        if (run == m_run)
            take(run->outcome());
        run->deleteLater();
    });
    m_run->start(connection, sql);
}

/// Without names there is only less to complete: a failure is not told.
void SchemaNames::take(const SqlOutcome &outcome)
{
    if (outcome.kind != SqlOutcome::Kind::Done || !ResultReader::isResult(outcome.result))
        return;
    const ResultReader reader(outcome.result);
    if (reader.columnCount() < 2)
        return;
    for (int row = 0; row < reader.rowCount(); ++row)
        m_columns[reader.text(0, row)].append(reader.text(1, row));
}

QStringList SchemaNames::tables() const
{
    return m_columns.keys();
}

QStringList SchemaNames::columns(const QString &table) const
{
    QStringList names;
    for (auto it = m_columns.begin(); it != m_columns.end(); ++it) {
        if (table.isEmpty() || it.key().compare(table, Qt::CaseInsensitive) == 0)
            names += it.value();
    }
    return names;
}
