/// @file
/// Arrays of objects as tables.
#pragma once

#include <QScriptValue>
#include <QString>

/// Prints an array whose elements are objects with one row an element and one column a member, in
/// the order in which members first appear. Elements that are no objects stand in a column
/// "value" of their own. It runs no script code.
///
/// Thread: the engine's.
class ObjectTable
{
public:
    /// A table of more rows is cut, with a line that says so.
    static constexpr int maxRows = 100000;

    /// Whether the value is an array that holds an object or an array first.
    static bool isList(const QScriptValue &value);

    static QString print(const QScriptValue &list);
};
