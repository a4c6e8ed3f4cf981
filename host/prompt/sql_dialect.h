/// @file
/// In what the systems differ when their SQL is cut into statements.
#pragma once

#include <QString>

/// How strings, names and comments are written. The defaults are those of PostgreSQL, which do no
/// harm on systems that lack the one or the other.
struct SqlDialect {
    bool backslashEscapes = false; ///< in every string, not only in E'...'
    bool dollarQuotes = true;      ///< $tag$...$tag$
    bool nestedComments = true;
    bool hashComments = false;    ///< # to the end of the line
    bool dashesNeedBlank = false; ///< "--" begins a comment only before a blank
    bool codeInComments = false;  ///< a comment that begins with an exclamation mark is executed

    /// @param driver name of a Qt SQL driver; an unknown one gets the defaults.
    static SqlDialect ofDriver(const QString &driver);
};
