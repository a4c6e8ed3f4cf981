#include "sql_scanner.h"

#include <algorithm>

namespace
{

/// Keywords behind which an operand begins: what stands before them is not what follows.
constexpr const char *WordsBeforeOperand[] = {
    "ALL",    "AND",       "ANY",     "AS",     "ASC",   "BETWEEN",  "BY",        "CASE",
    "CALL",   "COLLATE",   "DEFAULT", "DELETE", "DESC",  "DISTINCT", "ELSE",      "ESCAPE",
    "EXCEPT", "EXISTS",    "FETCH",   "FIRST",  "FROM",  "GROUP",    "HAVING",    "ILIKE",
    "IN",     "INTERSECT", "INTO",    "IS",     "JOIN",  "LIKE",     "LIMIT",     "NEXT",
    "NOT",    "OFFSET",    "ON",      "OR",     "OVER",  "RETURN",   "RETURNING", "SELECT",
    "SET",    "SIMILAR",   "SKIP",    "SOME",   "THEN",  "TO",       "TOP",       "UNION",
    "UPDATE", "USING",     "VALUES",  "WHEN",   "WHERE", "WITH"};

constexpr ushort LastAscii = 0x7f;

/// One walk over a text.
class Walk
{
public:
    Walk(SqlDialect dialect, const QString &text)
        : m_text(text)
        , m_dialect(systemOf(dialect))
        , m_backslashesEscape(escapesByBackslash(dialect))
        , m_doubleQuotesAreStrings(writesStringsInDoubleQuotes(dialect))
    {
        m_tokens.reserve(text.size() / 4 + 4);
    }

    QVector<SqlToken> tokens()
    {
        while (m_pos < m_text.size())
            next();
        if (SqlScanner::holdsProcedureBody(m_tokens, m_text))
            forgetNames();
        return std::move(m_tokens);
    }

private:
    QChar at(int pos) const { return pos < m_text.size() ? m_text.at(pos) : QChar(); }
    bool is(SqlDialect dialect) const { return m_dialect == dialect; }

    void take(SqlToken::Kind kind, int end)
    {
        end = std::min(end, m_text.size());
        m_tokens.append({kind, m_pos, end - m_pos});
        m_pos = end;
        if (m_tokens.constLast().isSignificant())
            m_lastSignificant = m_tokens.size() - 1;
    }

    void next();
    bool takeComment();
    bool takeQuoted();
    void takeSymbol();
    void takeColon();
    void takeQuestionMark();
    bool opensComment() const;
    int lineEnd(int pos) const;
    int wordCharacter(int pos) const;
    int wordEnd(int pos) const;
    int blockCommentEnd() const;
    int quotedEnd(int pos, bool backslashes) const;
    int escapeStringEnd(int pos) const;
    int dollarQuoteEnd() const;
    int alternativeQuoteEnd(int quote) const;
    bool isOperatorMark() const;
    bool separatesSlice() const;
    void forgetNames();

    const QString &m_text;
    SqlDialect m_dialect; ///< the system's
    bool m_backslashesEscape;
    bool m_doubleQuotesAreStrings;
    QVector<SqlToken> m_tokens;
    int m_pos = 0;
    int m_lastSignificant = -1;
    int m_openBrackets = 0;
    bool m_inExecutableComment = false;
};

/// Length of the character at `pos` if a name may hold it: a letter of any script, a combining
/// mark, a digit, an underscore; else 0.
int Walk::wordCharacter(int pos) const
{
    const QChar c = at(pos);
    if (c.unicode() <= LastAscii)
        return c.isLetterOrNumber() || c == QLatin1Char('_') ? 1 : 0;
    if (c.isHighSurrogate() && at(pos + 1).isLowSurrogate()) {
        const uint code = QChar::surrogateToUcs4(c, at(pos + 1));
        return QChar::isLetterOrNumber(code) || QChar::isMark(code) ? 2 : 0;
    }
    return c.isLetterOrNumber() || c.isMark() ? 1 : 0;
}

int Walk::wordEnd(int pos) const
{
    while (const int length = wordCharacter(pos))
        pos += length;
    return pos;
}

void Walk::next()
{
    const QChar c = at(m_pos);
    if (c.isSpace()) {
        int end = m_pos + 1;
        while (end < m_text.size() && m_text.at(end).isSpace())
            ++end;
        return take(SqlToken::Blank, end);
    }
    if (takeComment() || takeQuoted())
        return;
    if (c == QLatin1Char(':'))
        return takeColon();
    if (c == QLatin1Char('?'))
        return takeQuestionMark();
    if (c.isDigit()) {
        int end = wordEnd(m_pos);
        while (at(end) == QLatin1Char('.'))
            end = wordEnd(end + 1);
        return take(SqlToken::Number, end);
    }
    if (wordCharacter(m_pos)) {
        int end = wordEnd(m_pos);
        // A dollar mark in a name neither opens a quote nor stands for a value.
        while (at(end) == QLatin1Char('$'))
            end = wordEnd(end + 1);
        return take(SqlToken::Word, end);
    }
    takeSymbol();
}

bool Walk::opensComment() const
{
    if (m_text.midRef(m_pos, 2) != QLatin1String("--"))
        return is(SqlDialect::MariaDb) && at(m_pos) == QLatin1Char('#');
    if (!is(SqlDialect::MariaDb) || m_pos + 2 >= m_text.size())
        return true;
    // "5--3" is a sum there.
    const QChar behind = at(m_pos + 2);
    return behind.isSpace() || behind.category() == QChar::Other_Control;
}

/// A carriage return alone ends a line for PostgreSQL only.
int Walk::lineEnd(int pos) const
{
    const int end = m_text.indexOf(QLatin1Char('\n'), pos);
    const int other = is(SqlDialect::PostgreSql) ? m_text.indexOf(QLatin1Char('\r'), pos) : -1;
    if (end < 0 && other < 0)
        return m_text.size();
    return other < 0 || (end >= 0 && end < other) ? end : other;
}

bool Walk::takeComment()
{
    if (opensComment()) {
        take(SqlToken::Comment, lineEnd(m_pos));
        return true;
    }
    if (m_inExecutableComment && m_text.midRef(m_pos, 2) == QLatin1String("*/")) {
        m_inExecutableComment = false;
        take(SqlToken::Symbol, m_pos + 2);
        return true;
    }
    if (m_text.midRef(m_pos, 2) != QLatin1String("/*"))
        return false;
    const bool executable =
        is(SqlDialect::MariaDb) &&
        (at(m_pos + 2) == QLatin1Char('!') || m_text.midRef(m_pos + 2, 2) == QLatin1String("M!"));
    if (!executable) {
        take(SqlToken::Comment, blockCommentEnd());
        return true;
    }
    // The server runs what stands inside, from the version on that the digits tell.
    m_inExecutableComment = true;
    int end = m_text.indexOf(QLatin1Char('!'), m_pos) + 1;
    while (at(end).isDigit())
        ++end;
    take(SqlToken::Symbol, end);
    return true;
}

int Walk::blockCommentEnd() const
{
    int depth = 1;
    int pos = m_pos + 2;
    while (pos < m_text.size()) {
        const QStringRef pair = m_text.midRef(pos, 2);
        if (pair == QLatin1String("*/")) {
            pos += 2;
            if (--depth == 0)
                return pos;
        } else if (is(SqlDialect::PostgreSql) && pair == QLatin1String("/*")) {
            pos += 2;
            ++depth;
        } else {
            ++pos;
        }
    }
    return m_text.size();
}

bool Walk::takeQuoted()
{
    const QChar c = at(m_pos);
    if (c == QLatin1Char('\'')) {
        take(SqlToken::String, quotedEnd(m_pos, m_backslashesEscape));
    } else if (c == QLatin1Char('"')) {
        if (m_doubleQuotesAreStrings)
            take(SqlToken::String, quotedEnd(m_pos, m_backslashesEscape));
        else
            take(SqlToken::QuotedName, quotedEnd(m_pos, false));
    } else if (c == QLatin1Char('`')) {
        take(SqlToken::QuotedName, quotedEnd(m_pos, false));
    } else if (c == QLatin1Char('[') && is(SqlDialect::Sqlite)) {
        const int end = m_text.indexOf(QLatin1Char(']'), m_pos);
        take(SqlToken::QuotedName, end < 0 ? m_text.size() : end + 1);
    } else if (c == QLatin1Char('$') && is(SqlDialect::PostgreSql) && dollarQuoteEnd() > 0) {
        take(SqlToken::String, dollarQuoteEnd());
    } else if (c.toLower() == QLatin1Char('e') && is(SqlDialect::PostgreSql) &&
               at(m_pos + 1) == QLatin1Char('\'')) {
        take(SqlToken::String, escapeStringEnd(m_pos + 1));
    } else if (c.toLower() == QLatin1Char('q') && is(SqlDialect::Firebird) &&
               at(m_pos + 1) == QLatin1Char('\'')) {
        take(SqlToken::String, alternativeQuoteEnd(m_pos + 1));
    } else {
        return false;
    }
    return true;
}

/// End of what the quote at `pos` opens. A doubled quote stands for itself.
int Walk::quotedEnd(int pos, bool backslashes) const
{
    const QChar quote = at(pos);
    for (++pos; pos < m_text.size(); ++pos) {
        if (backslashes && at(pos) == QLatin1Char('\\')) {
            ++pos;
        } else if (at(pos) == quote) {
            if (at(pos + 1) != quote)
                return pos + 1;
            ++pos;
        }
    }
    return m_text.size();
}

/// E'...': backslashes escape, in its continuations on further lines as well, comments between.
int Walk::escapeStringEnd(int pos) const
{
    for (;;) {
        const int end = quotedEnd(pos, true);
        int behind = end;
        bool newLine = false;
        while (at(behind).isSpace() || m_text.midRef(behind, 2) == QLatin1String("--")) {
            const QChar c = at(behind);
            newLine = newLine || c == QLatin1Char('\n') || c == QLatin1Char('\r');
            behind = c.isSpace() ? behind + 1 : lineEnd(behind);
        }
        if (!newLine || at(behind) != QLatin1Char('\''))
            return end;
        pos = behind;
    }
}

/// End of the $tag$ quote that begins here; 0 when none does.
int Walk::dollarQuoteEnd() const
{
    const int tagEnd = at(m_pos + 1).isDigit() ? m_pos + 1 : wordEnd(m_pos + 1);
    if (at(tagEnd) != QLatin1Char('$'))
        return 0;
    const QString mark = m_text.mid(m_pos, tagEnd + 1 - m_pos);
    const int end = m_text.indexOf(mark, tagEnd + 1);
    return end < 0 ? m_text.size() : end + mark.size();
}

/// End of q'{...}', whose closing mark belongs to the opening one.
int Walk::alternativeQuoteEnd(int quote) const
{
    constexpr QLatin1String opening("({[<");
    constexpr QLatin1String closing(")}]>");
    const QChar mark = at(quote + 1);
    const int pair = opening.indexOf(mark);
    const QString last = QString(pair < 0 ? mark : closing.at(pair)) + QLatin1Char('\'');
    const int end = m_text.indexOf(last, quote + 2);
    return end < 0 ? m_text.size() : end + last.size();
}

void Walk::takeSymbol()
{
    const QChar c = at(m_pos);
    if (c == QLatin1Char('['))
        ++m_openBrackets;
    else if (c == QLatin1Char(']'))
        --m_openBrackets;
    if (c.isHighSurrogate() && at(m_pos + 1).isLowSurrogate())
        return take(SqlToken::Symbol, m_pos + 2);
    // "@?" is an operator of PostgreSQL, "@@?" one with a value behind it.
    const bool pair =
        c == QLatin1Char('@') &&
        (at(m_pos + 1) == c || (is(SqlDialect::PostgreSql) && at(m_pos + 1) == QLatin1Char('?')));
    take(SqlToken::Symbol, m_pos + (pair ? 2 : 1));
}

void Walk::takeColon()
{
    const QChar behind = at(m_pos + 1);
    if (behind == QLatin1Char(':') || behind == QLatin1Char('='))
        return take(SqlToken::Symbol, m_pos + 2);
    const int end = wordEnd(m_pos + 1);
    if (end == m_pos + 1 || separatesSlice())
        return take(SqlToken::Symbol, m_pos + 1);
    take(SqlToken::NamedPlaceholder, end);
}

/// Whether the colon here stands between two operands, as in "[1:n]", "'key':value" and "label:".
/// Within brackets there may be blanks before it.
bool Walk::separatesSlice() const
{
    if (m_lastSignificant < 0)
        return false;
    const SqlToken &before = m_tokens.at(m_lastSignificant);
    return (before.end() == m_pos || m_openBrackets > 0) && SqlScanner::endsOperand(before, m_text);
}

void Walk::takeQuestionMark()
{
    int end = m_pos + 1;
    if (is(SqlDialect::PostgreSql) && isOperatorMark())
        return take(SqlToken::Symbol, m_pos + 2);
    if (is(SqlDialect::Sqlite)) {
        while (at(end).unicode() <= LastAscii && at(end).isDigit())
            ++end;
    }
    take(SqlToken::Placeholder, end);
}

/// "?|" and "?&" ask for keys of a jsonb; "?||" and "?&&" are a value with an operator behind it.
bool Walk::isOperatorMark() const
{
    const QChar behind = at(m_pos + 1);
    if (behind != QLatin1Char('|') && behind != QLatin1Char('&'))
        return false;
    return at(m_pos + 2) != behind;
}

void Walk::forgetNames()
{
    for (SqlToken &token : m_tokens) {
        if (token.kind == SqlToken::NamedPlaceholder)
            token.kind = SqlToken::Symbol;
    }
}

} // namespace

QVector<SqlToken> SqlScanner::scan(SqlDialect dialect, const QString &text)
{
    return Walk(dialect, text).tokens();
}

QStringRef SqlScanner::textOf(const SqlToken &token, const QString &text)
{
    return text.midRef(token.start, token.length);
}

bool SqlScanner::isWord(const SqlToken &token, const QString &text, QLatin1String word)
{
    if (token.kind != SqlToken::Word || token.length != word.size())
        return false;
    // Not Qt's comparison without case: letters from beyond ASCII (the long s) fold to Latin ones.
    return std::equal(word.begin(), word.end(), text.constData() + token.start,
                      [](char expected, QChar c) {
                          return c.unicode() <= LastAscii && c.toUpper() == QLatin1Char(expected);
                      });
}

bool SqlScanner::isSymbol(const SqlToken &token, const QString &text, QLatin1String symbol)
{
    return token.kind == SqlToken::Symbol && textOf(token, text) == symbol;
}

bool SqlScanner::endsOperand(const SqlToken &token, const QString &text)
{
    switch (token.kind) {
    case SqlToken::String:
    case SqlToken::QuotedName:
    case SqlToken::Number:
    case SqlToken::Placeholder:
    case SqlToken::NamedPlaceholder:
        return true;
    case SqlToken::Symbol:
        return isSymbol(token, text, QLatin1String(")")) ||
               isSymbol(token, text, QLatin1String("]"));
    case SqlToken::Word:
        return std::none_of(
            std::begin(WordsBeforeOperand), std::end(WordsBeforeOperand),
            [&](const char *word) { return isWord(token, text, QLatin1String(word)); });
    case SqlToken::Blank:
    case SqlToken::Comment:
        break;
    }
    return false;
}

bool SqlScanner::holdsProcedureBody(const QVector<SqlToken> &tokens, const QString &text)
{
    constexpr int HeadWords = 8;
    int words = 0;
    bool creates = false;
    bool executes = false;
    for (const SqlToken &token : tokens) {
        if (token.kind != SqlToken::Word)
            continue;
        const auto word = [&](const char *keyword) {
            return isWord(token, text, QLatin1String(keyword));
        };
        if (words == 0) {
            creates = word("CREATE") || word("ALTER") || word("RECREATE");
            executes = word("EXECUTE");
        } else if (executes) {
            return word("BLOCK");
        } else if (word("PROCEDURE") || word("FUNCTION") || word("TRIGGER") || word("PACKAGE") ||
                   word("EVENT")) {
            return true;
        }
        if (++words > HeadWords || !(creates || executes))
            return false;
    }
    return false;
}
