/// @file
/// Texts with placeholders, and what they give.
#pragma once

#include <vector>

/// One text with its values. The table `words` has the rows (1, 'one'), (2, 'two'), (3, 'it''s'),
/// (4, 'why?').
struct PlaceholderCase {
    const char *systems; ///< names with blanks around, "*" for all
    const char *what;
    const char *sql;
    const char *values; ///< a JavaScript array
    /// Rows as the script function `rows` tells them, "changed: N", "error: PART OF THE TEXT", or
    /// "*" for anything but an error.
    const char *seen;
};

const std::vector<PlaceholderCase> &placeholderCases();
