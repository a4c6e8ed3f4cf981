#include "sql_words.h"

#include "sql_driver_kind.h"

namespace
{

bool isWordCharacter(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('$') ||
           c == QLatin1Char('@');
}

} // namespace

SqlWords::SqlWords(const QString &sql, int dbmsType)
    : m_sql(sql)
    , m_dbmsType(dbmsType)
{
}

bool SqlWords::next()
{
    while (skipUnseen()) {
    }
    m_begin = m_end;
    if (m_begin >= m_sql.size())
        return false;
    const QChar first = m_sql.at(m_end++);
    if (isWordCharacter(first)) {
        while (isWordCharacter(at(m_end)))
            ++m_end;
        return true;
    }
    if (first == QLatin1Char('('))
        ++m_depth;
    else if (first == QLatin1Char(')') && m_depth > 0)
        --m_depth;
    return true;
}

/// One blank, comment or quoted text at the current end. @return whether there was any.
bool SqlWords::skipUnseen()
{
    const QChar c = at(m_end);
    const QChar after = at(m_end + 1);
    if (m_end >= m_sql.size())
        return false;
    if (c.isSpace()) {
        ++m_end;
        return true;
    }
    const bool hash = c == QLatin1Char('#') && m_dbmsType == SqlDriverKind::MySql;
    if (hash || (c == QLatin1Char('-') && after == QLatin1Char('-'))) {
        skipComment(true);
        return true;
    }
    if (c == QLatin1Char('/') && after == QLatin1Char('*')) {
        skipComment(false);
        return true;
    }
    const bool postgres = m_dbmsType == SqlDriverKind::PostgreSql;
    if (postgres && after == QLatin1Char('\'') && c.toLower() == QLatin1Char('e') &&
        (m_end == 0 || !isWordCharacter(m_sql.at(m_end - 1)))) {
        ++m_end;
        skipQuoted(after, true);
        return true;
    }
    switch (c.unicode()) {
    case '\'':
    case '"':
        skipQuoted(c, m_dbmsType == SqlDriverKind::MySql);
        return true;
    case '`':
        if (postgres)
            return false;
        skipQuoted(c, false);
        return true;
    case '[':
        if (m_dbmsType != SqlDriverKind::SQLite && m_dbmsType != SqlDriverKind::Tds)
            return false;
        skipQuoted(QLatin1Char(']'), false);
        return true;
    case '$':
        return postgres && skipDollarQuoted();
    default:
        return false;
    }
}

void SqlWords::skipComment(bool line)
{
    if (line) {
        while (m_end < m_sql.size() && m_sql.at(m_end) != QLatin1Char('\n'))
            ++m_end;
        return;
    }
    const bool nests = m_dbmsType == SqlDriverKind::PostgreSql;
    int open = 0;
    do {
        const bool pair = at(m_end + 1) == QLatin1Char(at(m_end) == QLatin1Char('/') ? '*' : '/');
        if (pair && at(m_end) == QLatin1Char('/') && (open == 0 || nests))
            ++open;
        else if (pair && at(m_end) == QLatin1Char('*'))
            --open;
        else {
            ++m_end;
            continue;
        }
        m_end += 2;
    } while (open > 0 && m_end < m_sql.size());
}

/// A doubled quotation mark stands for itself, except the bracket's.
void SqlWords::skipQuoted(QChar closing, bool backslash)
{
    for (++m_end; m_end < m_sql.size(); ++m_end) {
        const QChar c = m_sql.at(m_end);
        if (backslash && c == QLatin1Char('\\')) {
            ++m_end;
        } else if (c == closing) {
            ++m_end;
            if (at(m_end) != closing || closing == QLatin1Char(']'))
                return;
        }
    }
    m_end = m_sql.size();
}

bool SqlWords::skipDollarQuoted()
{
    int tagEnd = m_end + 1;
    while (at(tagEnd).isLetterOrNumber() || at(tagEnd) == QLatin1Char('_'))
        ++tagEnd;
    if (at(tagEnd) != QLatin1Char('$') || at(m_end + 1).isDigit())
        return false;
    const QString tag = m_sql.mid(m_end, tagEnd + 1 - m_end);
    const int closing = m_sql.indexOf(tag, tagEnd + 1);
    m_end = closing < 0 ? m_sql.size() : closing + tag.size();
    return true;
}
