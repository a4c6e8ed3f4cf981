#include "layered_systems.h"

#include <QStringList>

LayeredSystems::LayeredSystems()
{
    add(&m_postgres);
    add(&m_mariadb);
    add(&m_firebird);
    add(&m_firebirdServer);
    add(&m_sqlite);
    add(&m_odbcPostgres);
    add(&m_odbcSqlite);
}

QStringList LayeredSystems::names()
{
    return {QStringLiteral("PostgreSQL"),         QStringLiteral("MariaDB"),
            QStringLiteral("Firebird"),           QStringLiteral("SQLite file"),
            QStringLiteral("ODBC to PostgreSQL"), QStringLiteral("ODBC to SQLite")};
}

bool LayeredSystems::started(const QString &name, QString *reason, QString *error)
{
    TestDatabase &database = get(name);
    if (!database.available(reason))
        return false;
    const auto known = m_started.find(name);
    if (known != m_started.end())
        return known->second;
    const bool overPostgres = &database == &m_odbcPostgres;
    bool done = !overPostgres || started(m_postgres.name(), reason, error);
    done = done && database.start();
    if (!done)
        *error = database.error();
    m_started[name] = done;
    return done;
}

QString LayeredSystems::selectWithoutTable(const QString &name, const QString &expression)
{
    const QString select = QStringLiteral("SELECT ") + expression;
    return name.startsWith(QLatin1String("Firebird"))
               ? select + QStringLiteral(" FROM rdb$database")
               : select;
}

QString LayeredSystems::textType(const QString &name)
{
    Q_UNUSED(name)
    return QStringLiteral("VARCHAR(200)");
}
