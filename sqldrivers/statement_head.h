/// @file
/// What kind of text a script gave: a statement, the name of a procedure, or a statement head that
/// waits for its list of values. Pure text, Qt Core only, any thread.
#pragma once

#include "sql_scanner.h"

/// The outline of a text, read from its tokens once.
struct StatementHead {
    enum Kind {
        Empty,         ///< nothing but blanks and comments
        Statement,     ///< begins with a verb, "(" or "{"
        ProcedureName, ///< a name and nothing else: "p", "s.p", "\"My procedure\""
        Expression,    ///< anything else: "p(1)", "f(?) + 1"
    };

    Kind kind = Empty;
    int begin = 0; ///< where the first significant token begins
    int end = 0;   ///< where the last significant token ends
    bool hasPlaceholders = false;
    bool takesList = false; ///< a list of values in parentheses may follow at `end`

    static StatementHead of(const QVector<SqlToken> &tokens, const QString &text);
};
