/// @file
/// SQL text cut into statements at its semicolons.
#pragma once

#include "sql_dialect.h"

#include <QString>

/// One statement of a longer text.
struct SqlStatement {
    QString text; ///< without the semicolon, and without blanks and comments before it
    int line = 1; ///< where it begins, counted from 1 over all that was added
};

/// Follows the words of one statement and tells whether a semicolon belongs to its body: to a
/// trigger, a procedure, a function or an anonymous block that is written with BEGIN and END.
class SqlBody
{
public:
    /// @param word in upper case
    void addWord(const QString &word);
    /// Anything that is neither a word nor a semicolon.
    void addOther();
    /// Asked at a semicolon.
    bool takesSemicolon();

private:
    enum class Kind { Unknown, Plain, Created, Routine };

    void decideKind(const QString &word);
    void follow(const QString &word);
    void leaveBlock();

    Kind m_kind = Kind::Unknown;
    int m_blocks = 0;         ///< BEGIN and CASE without their END
    bool m_declares = false;  ///< between AS DECLARE and its BEGIN
    bool m_endsBlock = false; ///< the word before was END
    QString m_first;
    QString m_before; ///< the word before
};

/// Cuts text into statements: a semicolon ends one unless it stands in a string, a quoted name, a
/// comment, a dollar quote or the body of a routine. Takes the text in pieces and looks at each
/// character once, however long a line or a statement is. Pure: knows no database.
///
/// Thread: any, one at a time.
class SqlSplitter
{
public:
    explicit SqlSplitter(const SqlDialect &dialect = SqlDialect());

    /// Adds whole lines with their line breaks; only the last piece may lack one.
    void add(const QString &text);

    /// Takes the next statement that a semicolon has ended. Empty ones are passed over.
    /// @return false when more text is needed.
    bool next(SqlStatement *statement);

    /// Whether a statement has begun and is not at its end. Call it when next() gave false.
    bool isOpen() const { return m_begin >= 0 || m_state != State::Plain; }

    /// Takes what is left at the end of the text, which may lack its semicolon.
    /// @return false when there are only blanks and comments.
    bool takeRest(SqlStatement *statement);

    /// Forgets all text. Lines are counted from 1 again.
    void clear();

private:
    enum class State { Plain, String, EscapedString, Name, LineComment, BlockComment, Dollar };

    void step();
    void stepPlain();
    void stepWord();
    bool stepComment();
    bool stepDollar();
    void stepQuoted(bool backslashEscapes);
    void stepBlockComment();
    void open(State state, QChar quote, int length);
    void begin();
    void endStatement(SqlStatement *statement);
    void dropPast();
    QChar at(int position) const;

    SqlDialect m_dialect;
    QString m_text;
    int m_position = 0; ///< everything before it is looked at
    int m_begin = -1;   ///< of the current statement, -1 before its first word
    int m_line = 1;     ///< of m_begin, or of the last statement's end
    int m_counted = 0;  ///< line breaks before it are in m_line
    State m_state = State::Plain;
    QChar m_quote;
    QString m_tag; ///< of a dollar quote, with both dollars
    int m_comments = 0;
    bool m_atSemicolon = false;
    SqlBody m_body;
};
