/// @file
/// The words of an SQL text, without what is quoted or commented. Pure text, any thread.
#pragma once

#include <QLatin1String>
#include <QString>
#include <QStringView>

/// Walks over the words and the punctuation of an SQL text. Strings, quoted names and comments are
/// passed over. Positions are in UTF-16 code units; the text must outlive the walk.
class SqlWords
{
public:
    /// @param dbmsType SqlDriverKind of the database system: what quotes there, and whether
    /// comments nest.
    SqlWords(const QString &sql, int dbmsType);

    /// Goes to the next word or sign. @return false at the end of the text.
    bool next();
    /// The word, or a sign of one character.
    QStringView text() const { return QStringView(m_sql).mid(m_begin, m_end - m_begin); }
    /// Whether the current one is this word, compared without regard to case.
    bool is(QLatin1String word) const { return text().compare(word, Qt::CaseInsensitive) == 0; }
    bool isSign(char sign) const { return m_sql.at(m_begin) == QLatin1Char(sign); }
    /// Open parentheses around the current one.
    int depth() const { return m_depth; }

private:
    bool skipUnseen();
    void skipComment(bool line);
    void skipQuoted(QChar closing, bool backslash);
    bool skipDollarQuoted();
    QChar at(int position) const { return position < m_sql.size() ? m_sql.at(position) : QChar(); }

    const QString &m_sql;
    const int m_dbmsType;
    int m_begin = 0;
    int m_end = 0;
    int m_depth = 0;
};
