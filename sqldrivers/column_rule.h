/// @file
/// How the values of a column are changed on their way from the stock driver to the reader.
#pragma once

#include <QSqlField>
#include <QVariant>

/// One column's rule, found once a statement and applied to each of its values. Pure.
struct ColumnRule {
    enum Kind {
        AsIs,
        ExactInteger, ///< beyond ±(2^53-1), where script numbers leave digits out, a text
        Real,         ///< a number, where the driver gives all numbers with fractions as texts
        Padded,       ///< a text of `length` characters, where the driver gives blanks behind it
    };

    Kind kind = AsIs;
    int length = 0; ///< characters

    /// The rule that keeps every digit of a column of this type.
    static ColumnRule exact(const QSqlField &field);
    QVariant applied(const QVariant &value) const;
};
