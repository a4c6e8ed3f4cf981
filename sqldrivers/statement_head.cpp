#include "statement_head.h"

#include "word_table.h"

#include <algorithm>

namespace
{

using Tokens = QVector<SqlToken>;

/// The keyword in upper case. No keyword has letters beyond ASCII, some of which fold to Latin
/// ones.
QString upper(const SqlToken &token, const QString &text)
{
    QString word = SqlScanner::textOf(token, text).toString();
    for (QChar &c : word) {
        if (c >= QLatin1Char('a') && c <= QLatin1Char('z'))
            c = c.toUpper();
    }
    return word;
}

/// Verbs that no procedure can be named by, whatever follows.
bool isReservedVerb(const QString &word)
{
    static constexpr std::string_view verbs[] = {
        "SELECT", "INSERT", "UPDATE", "DELETE", "VALUES",  "WITH", "MERGE",  "CALL",   "CREATE",
        "ALTER",  "DROP",   "GRANT",  "REVOKE", "EXPLAIN", "COPY", "VACUUM", "ANALYZE"};
    return isAmong(word, verbs);
}

/// Verbs that are names of procedures as well: they begin a statement when an operand follows.
bool isVerb(const QString &word)
{
    static constexpr std::string_view verbs[] = {
        "ABORT",      "ATTACH",   "BACKUP",    "BEGIN",    "CACHE",    "CHANGE",    "CHECK",
        "CHECKPOINT", "CHECKSUM", "CLOSE",     "CLUSTER",  "COMMENT",  "COMMIT",    "DEALLOCATE",
        "DECLARE",    "DESC",     "DESCRIBE",  "DETACH",   "DISCARD",  "DO",        "END",
        "EXEC",       "EXECUTE",  "FETCH",     "FLUSH",    "GET",      "HANDLER",   "HELP",
        "IMPORT",     "INSTALL",  "KILL",      "LISTEN",   "LOAD",     "LOCK",      "MOVE",
        "NOTIFY",     "OPTIMIZE", "PRAGMA",    "PREPARE",  "PURGE",    "REASSIGN",  "RECREATE",
        "REFRESH",    "REINDEX",  "RELEASE",   "RENAME",   "REPAIR",   "REPLACE",   "RESET",
        "RESIGNAL",   "ROLLBACK", "SAVEPOINT", "SECURITY", "SET",      "SHOW",      "SHUTDOWN",
        "SIGNAL",     "START",    "STOP",      "TABLE",    "TRUNCATE", "UNINSTALL", "UNLISTEN",
        "UNLOCK",     "UPSERT",   "USE",       "XA"};
    return isAmong(word, verbs);
}

/// Statements of one word.
bool isWholeStatement(const QString &word)
{
    static constexpr std::string_view verbs[] = {"ABORT", "BEGIN",   "CHECKPOINT", "COMMIT",
                                                 "END",   "REINDEX", "ROLLBACK"};
    return isAmong(word, verbs);
}

/// Names that stand for a value and take no parentheses.
bool isNiladic(const QString &word)
{
    static constexpr std::string_view names[] = {
        "CURRENT_CATALOG", "CURRENT_DATE",      "CURRENT_ROLE",   "CURRENT_SCHEMA",
        "CURRENT_TIME",    "CURRENT_TIMESTAMP", "CURRENT_USER",   "DEFAULT",
        "FALSE",           "LOCALTIME",         "LOCALTIMESTAMP", "NULL",
        "SESSION_USER",    "SYSTEM_USER",       "TRUE",           "USER"};
    return isAmong(word, names);
}

/// Last words of statements that are complete: no list of values can follow.
bool endsStatement(const QString &word)
{
    static constexpr std::string_view names[] = {
        "ASC",     "DEFAULT", "DESC", "END",  "FALSE", "FIRST", "LAST", "LOCKED",
        "NOTHING", "NOWAIT",  "NULL", "ONLY", "SHARE", "TIES",  "TRUE", "UNKNOWN"};
    return isAmong(word, names);
}

bool isName(const SqlToken &token)
{
    return token.kind == SqlToken::Word || token.kind == SqlToken::QuotedName;
}

/// Whether `tokens` are one name, qualified or not.
bool isQualifiedName(const Tokens &tokens, const QString &text)
{
    for (int i = 0; i < tokens.size(); ++i) {
        const bool fits = i % 2 == 0 ? isName(tokens.at(i))
                                     : SqlScanner::isSymbol(tokens.at(i), text, QLatin1String("."));
        if (!fits)
            return false;
    }
    return tokens.size() % 2 == 1;
}

bool isOpening(const SqlToken &token, const QString &text)
{
    return SqlScanner::isSymbol(token, text, QLatin1String("("));
}

/// Whether the significant tokens from `first` on begin with a verb.
bool beginsWithVerb(const Tokens &tokens, int first, const QString &text)
{
    if (first >= tokens.size() || tokens.at(first).kind != SqlToken::Word)
        return false;
    const QString word = upper(tokens.at(first), text);
    if (isReservedVerb(word))
        return true;
    if (first + 1 == tokens.size())
        return isWholeStatement(word);
    const SqlToken &next = tokens.at(first + 1);
    return isVerb(word) && !isOpening(next, text) &&
           !SqlScanner::isSymbol(next, text, QLatin1String("."));
}

StatementHead::Kind kindOf(const Tokens &tokens, const QString &text)
{
    if (tokens.isEmpty())
        return StatementHead::Empty;
    int first = 0;
    while (first < tokens.size() && isOpening(tokens.at(first), text))
        ++first;
    const SqlToken &head = tokens.constFirst();
    const bool marked = head.kind == SqlToken::Symbol && first == 0; // "{call", "/*!", "@a"
    if (marked || head.isPlaceholder() || beginsWithVerb(tokens, first, text))
        return StatementHead::Statement;
    const bool niladic = tokens.size() == 1 && isNiladic(upper(head, text));
    if (!niladic && isQualifiedName(tokens, text))
        return StatementHead::ProcedureName;
    return StatementHead::Expression;
}

/// Whether the last name of the statement is the table that it changes, as in "DELETE FROM t": a
/// list of values behind it would be none.
bool endsWithItsTable(const Tokens &tokens, const QString &text)
{
    int i = tokens.size() - 1;
    while (i >= 2 && SqlScanner::isSymbol(tokens.at(i - 1), text, QLatin1String(".")))
        i -= 2;
    if (i < 1 || i > 2)
        return false;
    const QString before = upper(tokens.at(i - 1), text);
    return before == QLatin1String("INTO") || before == QLatin1String("UPDATE") ||
           (before == QLatin1String("FROM") && i == 2 &&
            SqlScanner::isWord(tokens.constFirst(), text, QLatin1String("DELETE")));
}

bool listMayFollow(const Tokens &tokens, const QString &text)
{
    const SqlToken &last = tokens.constLast();
    if (last.kind == SqlToken::Word) {
        return !endsStatement(upper(last, text)) && !endsWithItsTable(tokens, text) &&
               !(SqlScanner::isWord(last, text, QLatin1String("UPDATE")) && tokens.size() > 1);
    }
    if (last.kind == SqlToken::QuotedName)
        return !endsWithItsTable(tokens, text);
    constexpr QLatin1String beforeOperand("=<>!~+-/%|&^#,");
    return last.kind == SqlToken::Symbol && last.length == 1 &&
           beforeOperand.contains(text.at(last.start));
}

} // namespace

StatementHead StatementHead::of(const Tokens &tokens, const QString &text)
{
    Tokens significant;
    significant.reserve(tokens.size());
    std::copy_if(tokens.cbegin(), tokens.cend(), std::back_inserter(significant),
                 [](const SqlToken &token) { return token.isSignificant(); });

    StatementHead head;
    head.kind = kindOf(significant, text);
    if (head.kind == Empty)
        return head;
    head.begin = significant.constFirst().start;
    head.end = significant.constLast().end();
    head.hasPlaceholders = std::any_of(significant.cbegin(), significant.cend(),
                                       [](const SqlToken &token) { return token.isPlaceholder(); });
    head.takesList = listMayFollow(significant, text);
    return head;
}
