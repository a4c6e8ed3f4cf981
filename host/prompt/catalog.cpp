#include "catalog.h"

namespace
{

QString quoted(QString text)
{
    text.replace(QLatin1Char('\''), QLatin1String("''"));
    return QLatin1Char('\'') + text + QLatin1Char('\'');
}

/// A pattern as LIKE has it, in quotes; "!" escapes.
QString likePattern(QString pattern)
{
    pattern.replace(QLatin1Char('!'), QLatin1String("!!"));
    pattern.replace(QLatin1Char('_'), QLatin1String("!_"));
    pattern.replace(QLatin1Char('*'), QLatin1Char('%'));
    pattern.replace(QLatin1Char('?'), QLatin1Char('_'));
    return quoted(pattern.isEmpty() ? QStringLiteral("%") : pattern.toLower());
}

/// The parts of a name with a schema, without their quotes.
QString lastPart(const QString &name)
{
    QString part = name.section(QLatin1Char('.'), -1);
    return part.remove(QLatin1Char('"')).remove(QLatin1Char('`'));
}

QString schemaPart(const QString &name)
{
    QString part =
        name.contains(QLatin1Char('.')) ? name.section(QLatin1Char('.'), 0, -2) : QString();
    return part.remove(QLatin1Char('"')).remove(QLatin1Char('`'));
}

const char SqliteTables[] =
    "SELECT name FROM (SELECT name, type FROM sqlite_master UNION ALL SELECT name, type FROM "
    "sqlite_temp_master) WHERE type = '%1' AND name NOT LIKE 'sqlite!_%' ESCAPE '!' "
    "AND lower(name) LIKE %2 ESCAPE '!' ORDER BY name";
const char SqliteColumns[] =
    "SELECT name AS \"column\", type, CASE \"notnull\" WHEN 1 THEN 'NOT NULL' ELSE '' END AS "
    "\"null\", dflt_value AS \"default\", CASE WHEN pk > 0 THEN 'primary' ELSE '' END AS \"key\" "
    "FROM pragma_table_info(%1) ORDER BY cid";
const char SqliteNames[] =
    "SELECT m.name, c.name FROM (SELECT name, type FROM sqlite_master UNION ALL SELECT name, type "
    "FROM sqlite_temp_master) m, pragma_table_info(m.name) c WHERE m.type IN ('table', 'view') "
    "LIMIT 20000";

const char PostgresTables[] =
    "SELECT n.nspname AS schema, c.relname AS name FROM pg_catalog.pg_class c "
    "JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace WHERE c.relkind IN (%1) "
    "AND n.nspname NOT IN ('pg_catalog', 'information_schema') AND n.nspname NOT LIKE 'pg!_toast%' "
    "ESCAPE '!' AND lower(c.relname) LIKE %2 ESCAPE '!' ORDER BY 1, 2";
const char PostgresColumns[] =
    "SELECT a.attname AS \"column\", pg_catalog.format_type(a.atttypid, a.atttypmod) AS type, "
    "CASE WHEN a.attnotnull THEN 'NOT NULL' ELSE '' END AS \"null\", "
    "pg_catalog.pg_get_expr(d.adbin, d.adrelid) AS \"default\", "
    "CASE WHEN i.indrelid IS NULL THEN '' ELSE 'primary' END AS \"key\" "
    "FROM pg_catalog.pg_attribute a "
    "LEFT JOIN pg_catalog.pg_attrdef d ON d.adrelid = a.attrelid AND d.adnum = a.attnum "
    "LEFT JOIN pg_catalog.pg_index i ON i.indrelid = a.attrelid AND i.indisprimary "
    "AND a.attnum = ANY (i.indkey) "
    "WHERE a.attrelid = to_regclass(%1) AND a.attnum > 0 AND NOT a.attisdropped ORDER BY a.attnum";
const char PostgresNames[] =
    "SELECT c.relname, a.attname FROM pg_catalog.pg_class c "
    "JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace "
    "JOIN pg_catalog.pg_attribute a ON a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped "
    "WHERE c.relkind IN ('r', 'p', 'f', 'v', 'm') "
    "AND n.nspname NOT IN ('pg_catalog', 'information_schema') "
    "AND n.nspname NOT LIKE 'pg!_toast%' ESCAPE '!' LIMIT 20000";

const char MySqlTables[] =
    "SELECT table_name AS name FROM information_schema.tables WHERE table_schema = database() "
    "AND table_type LIKE '%1' AND lower(table_name) LIKE %2 ESCAPE '!' ORDER BY 1";
const char MySqlColumns[] =
    "SELECT column_name AS `column`, column_type AS type, CASE is_nullable WHEN 'NO' THEN "
    "'NOT NULL' ELSE '' END AS `null`, nullif(column_default, 'NULL') AS "
    "`default`, CASE column_key WHEN 'PRI' "
    "THEN 'primary' ELSE '' END AS `key` FROM information_schema.columns "
    "WHERE table_schema = %1 AND table_name = %2 ORDER BY ordinal_position";
const char MySqlNames[] = "SELECT table_name, column_name FROM information_schema.columns "
                          "WHERE table_schema = database() LIMIT 20000";

const char FirebirdTables[] =
    "SELECT trim(rdb$relation_name) AS name FROM rdb$relations WHERE rdb$system_flag = 0 "
    "AND rdb$view_blr IS %1 NULL AND lower(trim(rdb$relation_name)) LIKE %2 ESCAPE '!' ORDER BY 1";
const char FirebirdColumns[] =
    "SELECT trim(r.rdb$field_name) AS \"column\", CASE WHEN f.rdb$field_type IN (7, 8, 16, 26, 27) "
    "AND f.rdb$field_sub_type IN (1, 2) THEN CASE f.rdb$field_sub_type WHEN 1 THEN 'NUMERIC(' "
    "ELSE 'DECIMAL(' END || f.rdb$field_precision || ',' || abs(f.rdb$field_scale) || ')' "
    "ELSE CASE f.rdb$field_type WHEN 7 THEN 'SMALLINT' "
    "WHEN 8 THEN 'INTEGER' WHEN 10 THEN 'FLOAT' WHEN 12 THEN 'DATE' WHEN 13 THEN 'TIME' "
    "WHEN 14 THEN 'CHAR(' || f.rdb$character_length || ')' WHEN 16 THEN 'BIGINT' "
    "WHEN 23 THEN 'BOOLEAN' WHEN 24 THEN 'DECFLOAT(16)' WHEN 25 THEN 'DECFLOAT(34)' "
    "WHEN 26 THEN 'INT128' WHEN 27 THEN 'DOUBLE PRECISION' WHEN 28 THEN 'TIME WITH TIME ZONE' "
    "WHEN 29 THEN 'TIMESTAMP WITH TIME ZONE' WHEN 35 THEN 'TIMESTAMP' "
    "WHEN 37 THEN 'VARCHAR(' || f.rdb$character_length || ')' WHEN 261 THEN 'BLOB' "
    "ELSE 'type ' || f.rdb$field_type END END AS \"type\", "
    "CASE WHEN coalesce(r.rdb$null_flag, f.rdb$null_flag, 0) = 1 THEN 'NOT NULL' ELSE '' END AS "
    "\"null\", trim(substring(CAST(r.rdb$default_source AS VARCHAR(4000)) FROM 8)) "
    "AS \"default\", "
    "CASE WHEN EXISTS (SELECT 1 FROM rdb$relation_constraints k JOIN rdb$index_segments s ON "
    "s.rdb$index_name = k.rdb$index_name WHERE k.rdb$constraint_type = 'PRIMARY KEY' "
    "AND k.rdb$relation_name = r.rdb$relation_name AND s.rdb$field_name = r.rdb$field_name) "
    "THEN 'primary' ELSE '' END AS \"key\" "
    "FROM rdb$relation_fields r JOIN rdb$fields f ON f.rdb$field_name = r.rdb$field_source "
    "WHERE r.rdb$relation_name IN (%1, upper(%1)) ORDER BY r.rdb$field_position";
const char FirebirdNames[] =
    "SELECT trim(r.rdb$relation_name), trim(f.rdb$field_name) FROM rdb$relations r "
    "JOIN rdb$relation_fields f ON f.rdb$relation_name = r.rdb$relation_name "
    "WHERE r.rdb$system_flag = 0 ROWS 20000";

const char StandardColumns[] =
    "SELECT column_name AS \"column\", data_type AS \"type\", character_maximum_length AS "
    "\"length\", "
    "numeric_precision AS \"digits\", numeric_scale AS \"decimals\", CASE is_nullable WHEN 'NO' "
    "THEN "
    "'NOT NULL' ELSE '' END AS \"null\", column_default AS \"default\" "
    "FROM information_schema.columns WHERE lower(table_name) = lower(%1)%2 "
    "ORDER BY table_schema, ordinal_position";

} // namespace

Catalog::Catalog(const QString &driver)
{
    const QString name = driver.toUpper();
    if (name.contains(QLatin1String("SQLITE")))
        m_system = System::Sqlite;
    else if (name.contains(QLatin1String("PSQL")))
        m_system = System::Postgres;
    else if (name.contains(QLatin1String("MYSQL")) || name.contains(QLatin1String("MARIADB")))
        m_system = System::MySql;
    else if (name.contains(QLatin1String("IBASE")))
        m_system = System::Firebird;
}

QString Catalog::tables(bool views, const QString &pattern) const
{
    const auto filled = [&](const char *text, const char *table, const char *view) {
        return QString::fromLatin1(text).arg(QLatin1String(views ? view : table),
                                             likePattern(pattern));
    };
    switch (m_system) {
    case System::Sqlite:
        return filled(SqliteTables, "table", "view");
    case System::Postgres:
        return filled(PostgresTables, "'r', 'p', 'f'", "'v', 'm'");
    case System::MySql:
        return filled(MySqlTables, "BASE TABLE", "%VIEW");
    case System::Firebird:
        return filled(FirebirdTables, "", "NOT");
    case System::Unknown:
        break;
    }
    return QString();
}

QString Catalog::columns(const QString &table) const
{
    const QString name = quoted(lastPart(table));
    switch (m_system) {
    case System::Sqlite:
        return QString::fromLatin1(SqliteColumns).arg(name);
    case System::Postgres:
        return QString::fromLatin1(PostgresColumns).arg(quoted(table));
    case System::MySql: {
        const QString schema = schemaPart(table);
        return QString::fromLatin1(MySqlColumns)
            .arg(schema.isEmpty() ? QStringLiteral("database()") : quoted(schema), name);
    }
    case System::Firebird:
        return QString::fromLatin1(FirebirdColumns).arg(name);
    case System::Unknown:
        break;
    }
    return QString();
}

QStringList Catalog::guesses(const QString &table)
{
    const QString name = quoted(lastPart(table));
    const QString schema = schemaPart(table);
    const QString ofSchema =
        schema.isEmpty()
            ? QString()
            : QStringLiteral(" AND lower(table_schema) = lower(%1)").arg(quoted(schema));
    return {QString::fromLatin1(StandardColumns).arg(name, ofSchema),
            QString::fromLatin1(SqliteColumns).arg(name)};
}

QString Catalog::names() const
{
    switch (m_system) {
    case System::Sqlite:
        return QLatin1String(SqliteNames);
    case System::Postgres:
        return QLatin1String(PostgresNames);
    case System::MySql:
        return QLatin1String(MySqlNames);
    case System::Firebird:
        return QLatin1String(FirebirdNames);
    case System::Unknown:
        break;
    }
    return QString();
}

QString Catalog::emptyResult(const QString &table)
{
    return QStringLiteral("SELECT * FROM %1 WHERE 1 = 0").arg(table);
}
