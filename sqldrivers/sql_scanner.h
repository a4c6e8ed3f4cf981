/// @file
/// Splits the text of a statement into the pieces that a server's own parser would see. Pure text,
/// Qt Core only, any thread.
#pragma once

#include "sql_dialect.h"

#include <QString>
#include <QVector>

/// One piece of a text. The tokens of a text lie one behind the other and cover all of it.
struct SqlToken {
    enum Kind {
        Blank,            ///< white space
        Comment,          ///< of any form, its marks included
        String,           ///< a literal in quotes or between dollar marks, its quotes included
        QuotedName,       ///< "name", `name` or [name]
        Word,             ///< keyword or name
        Number,           ///< digits and what is glued to them
        Symbol,           ///< one operator or mark: "::", ":=", "?|", "(", ...
        Placeholder,      ///< "?" ("?7" on SQLite)
        NamedPlaceholder, ///< ":name", its colon included
    };

    Kind kind = Blank;
    int start = 0;
    int length = 0;

    int end() const { return start + length; }
    /// Blanks and comments mean nothing to a server.
    bool isSignificant() const { return kind != Blank && kind != Comment; }
    bool isPlaceholder() const { return kind == Placeholder || kind == NamedPlaceholder; }
};

namespace SqlScanner
{

/// The tokens of `text`, from left to right. A string or comment that never ends reaches to the end
/// of the text. The colons of casts, slices, assignments, labels and of variables in procedure
/// bodies are symbols, not placeholders.
QVector<SqlToken> scan(SqlDialect dialect, const QString &text);

/// The text of a token, without a copy; valid as long as `text` is.
QStringRef textOf(const SqlToken &token, const QString &text);

/// Whether `token` is the keyword `word`, which is given in upper case, in any case.
bool isWord(const SqlToken &token, const QString &text, QLatin1String word);

/// Whether `token` is the symbol `symbol`.
bool isSymbol(const SqlToken &token, const QString &text, QLatin1String symbol);

/// Whether an operand ends with `token`, so that what follows can only be an operator or a keyword.
bool endsOperand(const SqlToken &token, const QString &text);

/// Whether the text is code that runs in the server: EXECUTE BLOCK, or CREATE or ALTER of something
/// with a body of its own. Names with colons are variables there, and semicolons end no statement.
bool holdsProcedureBody(const QVector<SqlToken> &tokens, const QString &text);

} // namespace SqlScanner
