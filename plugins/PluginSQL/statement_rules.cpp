#include "statement_rules.h"

#include "sql_driver_kind.h"
#include "sql_words.h"

#include <initializer_list>

namespace
{

bool isOneOf(const SqlWords &words, std::initializer_list<const char *> list)
{
    for (const char *word : list) {
        if (words.is(QLatin1String(word)))
            return true;
    }
    return false;
}

/// COPY with FROM STDIN or TO STDOUT, in any of the statements of a text.
bool copiesThroughTheClient(const QString &sql)
{
    if (!sql.contains(QLatin1String("copy"), Qt::CaseInsensitive) ||
        !sql.contains(QLatin1String("std"), Qt::CaseInsensitive))
        return false;
    SqlWords words(sql, SqlDriverKind::PostgreSql);
    bool first = true;
    bool copies = false;
    bool direction = false;
    while (words.next()) {
        // The closing parenthesis counts as a word of its own.
        if (words.depth() > 0)
            continue;
        if (words.isSign(';')) {
            first = true;
            continue;
        }
        if (first)
            copies = words.is(QLatin1String("copy"));
        first = false;
        if (copies && direction && isOneOf(words, {"stdin", "stdout"}))
            return true;
        direction = isOneOf(words, {"from", "to"});
    }
    return false;
}

/// BEGIN also opens a block of statements; only what follows tells.
bool beginsTransaction(SqlWords &words)
{
    return !words.next() || words.isSign(';') ||
           isOneOf(words, {"work", "transaction", "tran", "deferred", "immediate", "exclusive",
                           "isolation", "read", "deferrable"});
}

/// Behind SET: `autocommit = value`, with or without a scope.
StatementRules::TransactionStep autocommitStep(SqlWords &words)
{
    using Step = StatementRules::TransactionStep;
    bool named = false;
    for (int n = 0; n < 5 && words.next(); ++n) {
        if (isOneOf(words, {"autocommit", "@@autocommit"}))
            named = true;
        else if (named && isOneOf(words, {"0", "off", "false"}))
            return Step::AutocommitOff;
        else if (named && isOneOf(words, {"1", "on", "true"}))
            return Step::AutocommitOn;
    }
    return Step::None;
}

/// Whether a text that begins with a letter may begin with a word that concerns the transaction.
/// Most statements do not, and are told by three letters.
bool mayConcernTransaction(const QString &sql)
{
    if (sql.size() < 3)
        return true;
    char word[4] = {};
    for (int i = 0; i < 3; ++i)
        word[i] = char(sql.at(i).unicode() | 0x20);
    for (int i = 0; i < 3; ++i) {
        if (sql.at(i).unicode() > 0x7f || word[i] < 'a' || word[i] > 'z')
            return true; // a blank, a comment, or a letter of elsewhere
    }
    for (const char *start : {"beg", "sta", "com", "end", "rol", "abo", "set"}) {
        if (qstrcmp(word, start) == 0)
            return true;
    }
    return false;
}

} // namespace

StatementRules::Refusal StatementRules::refusal(const QString &sql, int dbmsType)
{
    if (sql.contains(QChar()))
        return Refusal::NulCharacter;
    if (dbmsType == SqlDriverKind::PostgreSql && copiesThroughTheClient(sql))
        return Refusal::CopyStream;
    return Refusal::None;
}

bool StatementRules::mayChangeColumns(const QString &sql)
{
    if (!sql.contains(QLatin1Char('*')))
        return false;
    SqlWords words(sql, SqlDriverKind::SQLite);
    do {
        if (!words.next())
            return false;
    } while (words.isSign(';'));
    if (!isOneOf(words, {"select", "with", "insert", "replace", "update", "delete"}))
        return false;
    while (words.next()) {
        if (words.isSign('*'))
            return true;
    }
    return false;
}

StatementRules::TransactionStep StatementRules::transactionStep(const QString &sql, int dbmsType)
{
    if (!mayConcernTransaction(sql))
        return TransactionStep::None;
    SqlWords words(sql, dbmsType);
    do {
        if (!words.next())
            return TransactionStep::None;
    } while (words.isSign(';'));
    if (words.is(QLatin1String("begin")))
        return beginsTransaction(words) ? TransactionStep::Begin : TransactionStep::None;
    if (words.is(QLatin1String("start"))) {
        const bool begins = words.next() && words.is(QLatin1String("transaction"));
        return begins ? TransactionStep::Begin : TransactionStep::None;
    }
    if (isOneOf(words, {"commit", "end"}))
        return TransactionStep::Commit;
    if (isOneOf(words, {"rollback", "abort"})) {
        while (words.next() && !words.isSign(';')) {
            if (words.is(QLatin1String("to")))
                return TransactionStep::None;
        }
        return TransactionStep::Rollback;
    }
    return words.is(QLatin1String("set")) ? autocommitStep(words) : TransactionStep::None;
}
