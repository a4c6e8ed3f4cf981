#include "sql_words.h"

#include <QScriptEngine>
#include <QSet>

namespace
{

const QSet<QString> &starters()
{
    static const QSet<QString> words = [] {
        const char text[] =
            "ABORT ALTER ANALYZE ATTACH BEGIN CALL CHECKPOINT CLUSTER COMMENT COMMIT COPY CREATE "
            "DEALLOCATE DECLARE DELETE DESC DESCRIBE DETACH DISCARD DO DROP END EXEC EXECUTE "
            "EXPLAIN FETCH GRANT HANDLER INSERT KILL LISTEN LOAD LOCK MERGE NOTIFY OPTIMIZE "
            "PRAGMA PREPARE REASSIGN RECREATE REFRESH REINDEX RELEASE RENAME REPLACE RESET REVOKE "
            "ROLLBACK SAVEPOINT SELECT SET SHOW START TABLE TRUNCATE UNLISTEN UNLOCK UPDATE UPSERT "
            "USE VACUUM VALUES WITH";
        const QStringList list = QString::fromLatin1(text).split(QLatin1Char(' '));
        return QSet<QString>(list.begin(), list.end());
    }();
    return words;
}

QString firstWord(const QString &text)
{
    int end = 0;
    while (end < text.size() &&
           (text.at(end).isLetterOrNumber() || text.at(end) == QLatin1Char('_') ||
            text.at(end) == QLatin1Char('$')))
        ++end;
    return text.left(end);
}

/// Without blanks, comments and opening parentheses at the beginning.
QString withoutLead(const QString &line)
{
    QString text = line.trimmed();
    for (;;) {
        if (text.startsWith(QLatin1String("/*")) && text.contains(QLatin1String("*/")))
            text = text.mid(text.indexOf(QLatin1String("*/")) + 2).trimmed();
        else if (text.startsWith(QLatin1Char('(')))
            text = text.mid(1).trimmed();
        else
            return text;
    }
}

/// "-- remark" is a decrement in script, but hardly ever meant as one.
bool isDashComment(const QString &line)
{
    const QString text = line.trimmed();
    return text.startsWith(QLatin1String("-- ")) &&
           QScriptEngine::checkSyntax(text).state() != QScriptSyntaxCheckResult::Valid;
}

/// What follows the words that script has as well.
bool followsKeyword(const QString &word, const QString &rest)
{
    const QString next = firstWord(rest).toUpper();
    if (word == QLatin1String("DELETE"))
        return rest.isEmpty() || next == QLatin1String("FROM");
    if (word == QLatin1String("WITH"))
        return !rest.startsWith(QLatin1Char('('));
    return rest.startsWith(QLatin1Char('$')) || rest.startsWith(QLatin1Char('\'')) ||
           next == QLatin1String("LANGUAGE"); // DO
}

bool isScriptOperator(const QString &rest)
{
    const QString first = rest.left(1);
    const QString two = rest.left(2);
    return QStringLiteral("=.[,?&|^%<>!)}").contains(first) || two == QLatin1String("++") ||
           rest == QLatin1String(":") || two == QLatin1String(": ") ||
           (two.size() == 2 && two.at(1) == QLatin1Char('=') && !two.at(0).isLetterOrNumber());
}

/// What a variable can be followed by, and an SQL word too.
bool mayFollowVariable(const QString &rest)
{
    const QString next = firstWord(rest);
    return rest.isEmpty() || QStringLiteral(";(-+*/").contains(rest.at(0)) ||
           next == QLatin1String("in") || next == QLatin1String("instanceof");
}

} // namespace

bool SqlWords::beginsSql(const QString &line, const IsVariable &isVariable)
{
    if (isDashComment(line))
        return true;
    const QString text = withoutLead(line);
    const QString first = firstWord(text);
    const QString word = first.toUpper();
    if (!starters().contains(word))
        return false;
    const QString rest = text.mid(first.size()).trimmed();
    if (first == QLatin1String("delete") || first == QLatin1String("with") ||
        first == QLatin1String("do"))
        return followsKeyword(word, rest);
    if (!rest.isEmpty() && isScriptOperator(rest))
        return false;
    return !(mayFollowVariable(rest) && isVariable(first));
}

bool SqlWords::changesRows(const QString &statement)
{
    static const QSet<QString> words = {
        QStringLiteral("INSERT"), QStringLiteral("UPDATE"),  QStringLiteral("DELETE"),
        QStringLiteral("MERGE"),  QStringLiteral("REPLACE"), QStringLiteral("UPSERT"),
        QStringLiteral("WITH"),   QStringLiteral("COPY"),    QStringLiteral("LOAD")};
    return words.contains(firstWord(withoutLead(statement)).toUpper());
}

bool SqlWords::changesSchema(const QString &statement)
{
    static const QSet<QString> words = {
        QStringLiteral("CREATE"), QStringLiteral("ALTER"),  QStringLiteral("DROP"),
        QStringLiteral("RENAME"), QStringLiteral("ATTACH"), QStringLiteral("DETACH"),
        QStringLiteral("USE"),    QStringLiteral("SET"),    QStringLiteral("RECREATE")};
    return words.contains(firstWord(withoutLead(statement)).toUpper());
}

const QStringList &SqlWords::keywords()
{
    static const QStringList words =
        QString::fromLatin1(
            "ADD ALL ALTER ANALYZE AND AS ASC BEGIN BETWEEN BIGINT BOOLEAN BY CALL CASCADE CASE "
            "CAST CHAR CHECK COALESCE COLUMN COMMIT CONSTRAINT COUNT CREATE CROSS CURRENT_DATE "
            "CURRENT_TIMESTAMP DATE DECIMAL DEFAULT DELETE DESC DISTINCT DOUBLE DROP ELSE END "
            "ESCAPE EXCEPT EXECUTE EXISTS EXPLAIN FALSE FETCH FIRST FOREIGN FROM FULL FUNCTION "
            "GRANT GROUP HAVING IN INDEX INNER INSERT INTEGER INTERSECT INTO IS JOIN KEY LEFT LIKE "
            "LIMIT MERGE NATURAL NOT NULL NUMERIC OFFSET ON OR ORDER OUTER OVER PARTITION PRAGMA "
            "PRIMARY PROCEDURE RECURSIVE REFERENCES REPLACE RETURNING REVOKE RIGHT ROLLBACK ROW "
            "ROWS SAVEPOINT SCHEMA SELECT SEQUENCE SET SHOW SMALLINT SUM TABLE TEMPORARY TEXT THEN "
            "TIME TIMESTAMP TRANSACTION TRIGGER TRUE TRUNCATE UNION UNIQUE UPDATE USING VACUUM "
            "VALUES VARCHAR VIEW WHEN WHERE WINDOW WITH")
            .split(QLatin1Char(' '));
    return words;
}
