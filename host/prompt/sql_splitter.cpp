#include "sql_splitter.h"

namespace
{

const QLatin1Char NewLine('\n');

bool isWordStart(QChar c)
{
    return c.isLetter() || c == QLatin1Char('_');
}

bool isWordPart(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('$');
}

} // namespace

SqlSplitter::SqlSplitter(const SqlDialect &dialect)
    : m_dialect(dialect)
{
}

void SqlSplitter::add(const QString &text)
{
    m_text += text;
}

bool SqlSplitter::next(SqlStatement *statement)
{
    while (m_position < m_text.size()) {
        step();
        if (!m_atSemicolon)
            continue;
        m_atSemicolon = false;
        if (m_begin < 0)
            continue;
        endStatement(statement);
        return true;
    }
    dropPast();
    return false;
}

bool SqlSplitter::takeRest(SqlStatement *statement)
{
    const bool found = m_begin >= 0;
    if (found) {
        m_position = m_text.size() + 1;
        endStatement(statement);
    }
    clear();
    return found;
}

void SqlSplitter::clear()
{
    *this = SqlSplitter(m_dialect);
}

void SqlSplitter::step()
{
    switch (m_state) {
    case State::Plain:
        stepPlain();
        break;
    case State::String:
    case State::Name:
        stepQuoted(m_state == State::String && m_dialect.backslashEscapes);
        break;
    case State::EscapedString:
        stepQuoted(true);
        break;
    case State::LineComment: {
        const int end = m_text.indexOf(NewLine, m_position);
        m_position = end < 0 ? m_text.size() : end + 1;
        m_state = end < 0 ? State::LineComment : State::Plain;
        break;
    }
    case State::BlockComment:
        stepBlockComment();
        break;
    case State::Dollar: {
        const int end = m_text.indexOf(m_tag, m_position);
        m_position = end < 0 ? m_text.size() : end + m_tag.size();
        m_state = end < 0 ? State::Dollar : State::Plain;
        break;
    }
    }
}

void SqlSplitter::stepPlain()
{
    const QChar c = m_text.at(m_position);
    if (c.isSpace()) {
        ++m_position;
        return;
    }
    if (c == QLatin1Char(';')) {
        m_atSemicolon = !m_body.takesSemicolon();
        ++m_position;
        return;
    }
    if (stepComment())
        return;
    begin();
    if (isWordStart(c)) {
        stepWord();
        return;
    }
    m_body.addOther();
    if (c == QLatin1Char('\''))
        open(State::String, c, 1);
    else if (c == QLatin1Char('"') || c == QLatin1Char('`'))
        open(State::Name, c, 1);
    else if (!stepDollar())
        ++m_position;
}

void SqlSplitter::stepWord()
{
    const int start = m_position;
    while (m_position < m_text.size() && isWordPart(m_text.at(m_position)))
        ++m_position;
    const QString word = m_text.mid(start, qMin(m_position - start, 32)).toUpper();
    if (word == QLatin1String("E") && at(m_position) == QLatin1Char('\''))
        open(State::EscapedString, QLatin1Char('\''), 1);
    else
        m_body.addWord(word);
}

/// @return false when no comment begins here.
bool SqlSplitter::stepComment()
{
    const QChar first = m_text.at(m_position);
    const QChar second = at(m_position + 1);
    if (first == QLatin1Char('-') && second == first) {
        const QChar third = at(m_position + 2);
        if (m_dialect.dashesNeedBlank && !third.isNull() && !third.isSpace())
            return false;
        open(State::LineComment, QChar(), 2);
        return true;
    }
    if (first == QLatin1Char('#') && m_dialect.hashComments) {
        open(State::LineComment, QChar(), 1);
        return true;
    }
    if (first != QLatin1Char('/') || second != QLatin1Char('*'))
        return false;
    if (m_dialect.codeInComments && at(m_position + 2) == QLatin1Char('!'))
        begin();
    m_comments = 1;
    open(State::BlockComment, QChar(), 2);
    return true;
}

/// @return false when no dollar quote begins here.
bool SqlSplitter::stepDollar()
{
    if (!m_dialect.dollarQuotes || m_text.at(m_position) != QLatin1Char('$'))
        return false;
    int end = m_position + 1;
    while (end < m_text.size() && isWordPart(m_text.at(end)) && m_text.at(end) != QLatin1Char('$'))
        ++end;
    const bool isTag = !at(m_position + 1).isDigit() && at(end) == QLatin1Char('$');
    if (!isTag)
        return false;
    m_tag = m_text.mid(m_position, end + 1 - m_position);
    open(State::Dollar, QChar(), m_tag.size());
    return true;
}

/// A doubled quote needs no care: it reads as the end and a new beginning.
void SqlSplitter::stepQuoted(bool backslashEscapes)
{
    while (m_position < m_text.size()) {
        const QChar c = m_text.at(m_position++);
        if (backslashEscapes && c == QLatin1Char('\\')) {
            ++m_position;
        } else if (c == m_quote) {
            m_state = State::Plain;
            return;
        }
    }
}

void SqlSplitter::stepBlockComment()
{
    while (m_position < m_text.size() && m_comments > 0) {
        const QChar c = m_text.at(m_position);
        const QChar next = at(m_position + 1);
        const bool ends = c == QLatin1Char('*') && next == QLatin1Char('/');
        const bool begins = c == QLatin1Char('/') && next == QLatin1Char('*');
        if (ends)
            --m_comments;
        else if (begins && m_dialect.nestedComments)
            ++m_comments;
        m_position += ends || begins ? 2 : 1;
    }
    if (m_comments == 0)
        m_state = State::Plain;
}

void SqlSplitter::open(State state, QChar quote, int length)
{
    m_state = state;
    m_quote = quote;
    m_position += length;
}

void SqlSplitter::begin()
{
    if (m_begin >= 0)
        return;
    m_begin = m_position;
    m_line += m_text.midRef(m_counted, m_begin - m_counted).count(NewLine);
    m_counted = m_begin;
}

/// The semicolon, if there is one, stands right before m_position.
void SqlSplitter::endStatement(SqlStatement *statement)
{
    statement->text = m_text.mid(m_begin, m_position - 1 - m_begin).trimmed();
    statement->line = m_line;
    m_begin = -1;
    m_body = SqlBody();
}

void SqlSplitter::dropPast()
{
    const int past = m_begin >= 0 ? m_begin : m_position;
    if (past == 0)
        return;
    m_line += m_text.midRef(m_counted, past - m_counted).count(NewLine);
    m_text.remove(0, past);
    m_position -= past;
    m_counted = 0;
    m_begin = m_begin >= 0 ? 0 : -1;
}

QChar SqlSplitter::at(int position) const
{
    return position < m_text.size() ? m_text.at(position) : QChar();
}
