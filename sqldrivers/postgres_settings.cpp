#include "postgres_settings.h"

#include "leading_word.h"
#include "sql_scanner.h"
#include "word_table.h"

#include <QStringList>

namespace
{

using Effect = PostgresSettings::Effect;

/// A token without its quotes, in upper case.
QString plain(const SqlToken &token, const QString &text)
{
    const bool isQuoted = token.kind == SqlToken::String || token.kind == SqlToken::QuotedName;
    const QStringRef whole = SqlScanner::textOf(token, text);
    return (isQuoted ? whole.mid(1, whole.size() - 2) : whole).trimmed().toString().toUpper();
}

/// The words behind SET, without SESSION and LOCAL, up to the end of the statement.
QStringList wordsOf(const QString &text)
{
    static constexpr std::string_view scopes[] = {"SET", "SESSION", "LOCAL"};
    QStringList words;
    const QVector<SqlToken> tokens = SqlScanner::scan(SqlDialect::PostgreSql, text);
    for (const SqlToken &token : tokens) {
        if (!token.isSignificant())
            continue;
        if (SqlScanner::isSymbol(token, text, QLatin1String(";")))
            break;
        const QString word = plain(token, text);
        if (!words.isEmpty() || !isAmong(word, scopes))
            words.append(word);
    }
    return words;
}

/// In one string, as in 'Postgres, DMY', or in tokens of their own.
bool holdsOtherStyle(const QString &values)
{
    const auto holds = [&values](const char *style) {
        return values.contains(QLatin1String(style));
    };
    return holds("GERMAN") || holds("POSTGRES") || holds("SQL");
}

/// The server compares names of encodings by their letters and digits.
bool isUtf8(const QString &values)
{
    static constexpr std::string_view names[] = {"UTF8", "UNICODE", "DEFAULT"};
    QString name;
    for (const QChar c : values) {
        if (c.isLetterOrNumber())
            name += c;
    }
    return name.isEmpty() || isAmong(name, names); // nothing is the default
}

} // namespace

Effect PostgresSettings::effectOf(const QString &text)
{
    if (leadingWord(text) != QLatin1String("SET"))
        return Effect::None;
    QStringList words = wordsOf(text);
    const QString name = words.isEmpty() ? QString() : words.takeFirst();
    if (!words.isEmpty() &&
        (words.constFirst() == QLatin1String("TO") || words.constFirst() == QLatin1String("=")))
        words.removeFirst();
    const QString values = words.join(QLatin1Char(' '));
    if (name == QLatin1String("DATESTYLE"))
        return holdsOtherStyle(values) ? Effect::OtherStyle : Effect::None;
    if (name == QLatin1String("NAMES") || name == QLatin1String("CLIENT_ENCODING"))
        return isUtf8(values) ? Effect::None : Effect::OtherEncoding;
    return Effect::None;
}
