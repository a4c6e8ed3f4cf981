/// @file
/// A line of words and keywords, cut apart.
#pragma once

#include <QString>
#include <QVector>

/// One word of a line: `value`, or `name=value`.
struct AddressWord {
    QString name; ///< empty for a word by itself
    QString value;
};

/// Cuts lines at blanks. A value may stand in single or double quotes, in which a backslash takes
/// the next character as it is; outside of quotes a backslash is a character like any other.
///
/// It is a pure function of its argument: any thread.
namespace AddressWords
{

/// @return false with `error` set to a text for the user when a quote is not closed.
bool split(const QString &line, QVector<AddressWord> *words, QString *error);

} // namespace AddressWords
