#include "statement_plan.h"

#include "statement_head.h"
#include "word_table.h"

#include <algorithm>

namespace
{

/// SQLite's own limit for numbered placeholders.
constexpr int LargestNumber = 32766;

/// What stands before and behind the call of a procedure.
struct CallForm {
    QLatin1String before;
    QLatin1String behind;
    bool needsParentheses; ///< without values, too
};

CallForm callForm(SqlDialect dialect)
{
    switch (dialect) {
    case SqlDialect::Firebird:
        return {QLatin1String("EXECUTE PROCEDURE "), QLatin1String(""), false};
    case SqlDialect::MariaDb:
    case SqlDialect::MariaDbPlainBackslash:
    case SqlDialect::MariaDbAnsiQuotes:
    case SqlDialect::MariaDbAnsiQuotesPlainBackslash:
        return {QLatin1String("CALL "), QLatin1String(""), true};
    case SqlDialect::OdbcPostgreSql:
    case SqlDialect::OdbcPostgreSqlBackslash:
    case SqlDialect::OdbcMariaDb:
    case SqlDialect::Odbc:
        return {QLatin1String("{call "), QLatin1String("}"), true};
    // The ODBC driver of SQLite knows no {call}.
    case SqlDialect::OdbcSqlite:
    case SqlDialect::Sqlite:
    case SqlDialect::PostgreSql:
    case SqlDialect::PostgreSqlBackslash:
        break;
    }
    return {QLatin1String("SELECT "), QLatin1String(""), true};
}

QString listOfMarks(int count)
{
    QString list;
    list.reserve(2 * count + 2);
    list += QLatin1Char('(');
    for (int i = 0; i < count; ++i)
        list += i > 0 ? QLatin1String(",?") : QLatin1String("?");
    return list + QLatin1Char(')');
}

/// Whether the placeholder at `index` may be the operator "?" of a jsonb: operands on both sides.
bool looksLikeOperator(const QVector<SqlToken> &tokens, int index, const QString &text)
{
    const auto significant = [](const SqlToken &token) { return token.isSignificant(); };
    const auto begin = tokens.cbegin();
    const auto behind = std::find_if(begin + index + 1, tokens.cend(), significant);
    const auto before =
        std::find_if(std::make_reverse_iterator(begin + index), tokens.crend(), significant);
    if (behind == tokens.cend() || before == tokens.crend())
        return false;
    if (!SqlScanner::endsOperand(*before, text))
        return false;
    switch (behind->kind) {
    case SqlToken::String:
    case SqlToken::Number:
    case SqlToken::QuotedName:
    case SqlToken::Placeholder:
    case SqlToken::NamedPlaceholder:
    case SqlToken::Word:
        return true;
    default:
        return SqlScanner::isSymbol(*behind, text, QLatin1String("(")) ||
               SqlScanner::isSymbol(*behind, text, QLatin1String("$"));
    }
}

/// Whether a literal may stand beside `neighbour`: "LIMIT?" must not become one word, "5-?" no
/// comment.
bool isApart(QChar neighbour)
{
    return neighbour.isSpace() || neighbour == QLatin1Char('(') || neighbour == QLatin1Char(')') ||
           neighbour == QLatin1Char(',') || neighbour == QLatin1Char('=') ||
           neighbour == QLatin1Char(':') || neighbour == QLatin1Char(';');
}

} // namespace

QString StatementPlan::complete(SqlDialect dialect, const QString &text, int count)
{
    const StatementHead head = StatementHead::of(SqlScanner::scan(dialect, text), text);
    if (head.kind == StatementHead::Empty)
        return text;
    QString list;
    if (count > 0 && head.takesList && !head.hasPlaceholders)
        list = listOfMarks(count);
    if (head.kind == StatementHead::Statement) {
        QString statement = text;
        return statement.insert(head.end, list);
    }

    const CallForm form = callForm(dialect);
    if (head.kind == StatementHead::ProcedureName && list.isEmpty() && form.needsParentheses)
        list = QStringLiteral("()");
    return text.leftRef(head.begin) + form.before + text.midRef(head.begin, head.end - head.begin) +
           list + form.behind + text.midRef(head.end);
}

QString StatementPlan::withoutFalseMarks(SqlDialect dialect, const QString &text)
{
    if (!text.contains(QLatin1Char('?')))
        return text;
    QString result;
    result.reserve(text.size());
    for (const SqlToken &token : SqlScanner::scan(dialect, text)) {
        const QStringRef part = SqlScanner::textOf(token, text);
        const bool holdsMark = part.contains(QLatin1Char('?'));
        if (token.kind == SqlToken::Comment && holdsMark) {
            result += QLatin1Char(' ');
        } else if (token.kind == SqlToken::QuotedName && holdsMark &&
                   part.startsWith(QLatin1Char('['))) {
            QString name = part.mid(1, part.size() - 2).toString();
            name.replace(QLatin1Char('"'), QLatin1String("\"\""));
            result += QLatin1Char('"') + name + QLatin1Char('"');
        } else {
            result += part;
        }
    }
    return result;
}

StatementPlan StatementPlan::of(SqlDialect dialect, const QString &given)
{
    // SQLite's ODBC driver counts the question marks in comments and [names], too.
    const QString text =
        dialect == SqlDialect::OdbcSqlite ? withoutFalseMarks(dialect, given) : given;
    StatementPlan plan;
    plan.m_rules = dialect;
    plan.m_dialect = systemOf(dialect);
    const QVector<SqlToken> tokens = SqlScanner::scan(dialect, text);
    int pieceStart = 0;
    for (int i = 0; i < tokens.size(); ++i) {
        const SqlToken &token = tokens.at(i);
        if (!token.isPlaceholder())
            continue;
        plan.add(token, text, text.midRef(pieceStart, token.start - pieceStart));
        pieceStart = token.end();
        if (plan.m_dialect == SqlDialect::PostgreSql && token.kind == SqlToken::Placeholder &&
            looksLikeOperator(tokens, i, text))
            ++plan.m_likeOperators;
    }
    plan.m_pieces.append(text.mid(pieceStart));
    plan.describe(tokens, text);
    return plan;
}

void StatementPlan::add(const SqlToken &token, const QString &text, QStringRef piece)
{
    m_pieces.append(piece.toString());
    if (token.kind == SqlToken::NamedPlaceholder) {
        const QString name = text.mid(token.start, token.length);
        const int known = m_names.indexOf(name);
        m_valueOf.append(known < 0 ? m_names.size() : known);
        if (known < 0)
            m_names.append(name);
        return;
    }
    if (token.length == 1) {
        m_valueOf.append(m_names.size());
        m_names.append(QString());
        return;
    }
    const int number =
        qBound(1, text.midRef(token.start + 1, token.length - 1).toInt(), LargestNumber);
    while (m_names.size() < number)
        m_names.append(QString());
    m_valueOf.append(number - 1);
}

void StatementPlan::describe(const QVector<SqlToken> &tokens, const QString &text)
{
    QVector<SqlToken> significant;
    std::copy_if(tokens.cbegin(), tokens.cend(), std::back_inserter(significant),
                 [](const SqlToken &token) { return token.isSignificant(); });
    bool returns = false;
    const bool body = SqlScanner::holdsProcedureBody(significant, text);
    for (int i = 0; i < significant.size(); ++i) {
        const SqlToken &token = significant.at(i);
        if (m_verb.isEmpty() && token.kind == SqlToken::Word)
            m_verb = SqlScanner::textOf(token, text).toString().toUpper();
        returns = returns || SqlScanner::isWord(token, text, QLatin1String("RETURNING"));
        if (!body && i + 1 < significant.size())
            m_hasSeveral = m_hasSeveral || SqlScanner::isSymbol(token, text, QLatin1String(";"));
        if (!SqlScanner::isSymbol(token, text, QLatin1String("*")))
            continue;
        const bool counts = i > 0 && i + 1 < significant.size() &&
                            SqlScanner::isSymbol(significant.at(i - 1), text, QLatin1String("(")) &&
                            SqlScanner::isSymbol(significant.at(i + 1), text, QLatin1String(")"));
        m_namesAllColumns = m_namesAllColumns || !counts;
    }
    static constexpr std::string_view changes[] = {"INSERT", "UPDATE", "DELETE", "REPLACE",
                                                   "MERGE"};
    m_returnsNoColumns = !returns && isAmong(m_verb, changes);
}

QString StatementPlan::refusal(int given) const
{
    if (given == valueCount() || (given == 0 && m_likeOperators == m_valueOf.size()))
        return QString();
    const QString text = tr("Wrong number of values: the statement has placeholders for %1, "
                            "but %2 were given")
                             .arg(valueCount())
                             .arg(given);
    if (m_likeOperators == 0)
        return text;
    return text + tr("; with values, write the operator ? as jsonb_exists()");
}

QString StatementPlan::withMarks() const
{
    return m_pieces.join(QLatin1Char('?'));
}

QString StatementPlan::withNumbers() const
{
    QStringList marks;
    marks.reserve(valueCount());
    for (int i = 1; i <= valueCount(); ++i)
        marks.append(QLatin1Char('$') + QString::number(i));
    return withLiterals(marks);
}

QString StatementPlan::withLiterals(const QStringList &literals) const
{
    QString text = m_pieces.constFirst();
    for (int i = 0; i < m_valueOf.size(); ++i) {
        const QString &piece = m_pieces.at(i + 1);
        // MariaDB takes two hyphens for a comment where a blank follows, and for signs elsewhere.
        const bool behindSigns = text.endsWith(QLatin1String("--"));
        if (!text.isEmpty() && !behindSigns && !isApart(text.back()))
            text += QLatin1Char(' ');
        text += literals.at(m_valueOf.at(i));
        if (!piece.isEmpty() && !isApart(piece.front()))
            text += QLatin1Char(' ');
        text += piece;
    }
    return text;
}
