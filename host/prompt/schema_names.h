/// @file
/// The tables and columns of a connection, for completion.
#pragma once

#include "sql_run.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QStringList>

/// Reads the names in the background and keeps them. Where the system is unknown there are none.
///
/// Thread: the engine's.
class SchemaNames : public QObject
{
    Q_OBJECT

public:
    explicit SchemaNames(QScriptEngine *engine, QObject *parent = nullptr);

    /// Forgets the names and reads those of the connection, which may be none.
    void read(const SqlConnection &connection);

    QStringList tables() const;
    /// All columns, or those of a table, whatever the case of its name.
    QStringList columns(const QString &table = QString()) const;

private:
    void take(const SqlOutcome &outcome);

    QScriptEngine *m_engine;
    QPointer<SqlRun> m_run;
    QHash<QString, QStringList> m_columns; ///< by table
};
