/// @file
/// Statements that ask a system what is in its database.
#pragma once

#include <QString>
#include <QStringList>

/// What a database system calls its tables, views and columns. Pure: makes texts only.
class Catalog
{
public:
    /// @param driver name of a Qt SQL driver
    explicit Catalog(const QString &driver);

    /// Tables or views whose names match a pattern with * and ? (empty: all), one a row.
    /// @return an empty text for a system that is unknown.
    QString tables(bool views, const QString &pattern) const;

    /// The columns of a table with type, NOT NULL, default and key, in their order. The name may
    /// have a schema before it where the system has schemas.
    /// @return an empty text for a system that is unknown.
    QString columns(const QString &table) const;

    /// Tables and views with their columns, a column a row.
    /// @return an empty text for a system that is unknown.
    QString names() const;

    /// What columns() would be for a system behind ODBC: what the standard says, and what SQLite does.
    /// One that fails, or gives no row, tells nothing.
    static QStringList guesses(const QString &table);

    /// A statement that gives no rows, only the columns of a table; for every system.
    static QString emptyResult(const QString &table);

private:
    enum class System { Unknown, Sqlite, Postgres, MySql, Firebird };

    System m_system = System::Unknown;
};
