/// @file
/// How the results of a statement that comes again and again get their properties. Engine's thread
/// only.
#pragma once

#include "result_shape.h"

#include <QScriptValue>

/// Gives a result all its properties with one call.
///
/// A property that is set through Qt costs several hundred instructions, in a compiled function
/// some ten. So when the same names have come a few times, a function is made of them: it looks
/// whether any of the names is on a prototype, where a script may have put an accessor, and only
/// then sets them. It has no loop and calls nothing, so neither script code nor the event loop runs
/// in it.
class ResultFiller
{
public:
    /// What the properties hold, beside what the shape tells.
    struct Values {
        QScriptValue index; ///< array of the columns' arrays
        QScriptValue nulls; ///< invalid: empty arrays
        QScriptValue lastInsertId;
        QScriptValue executedQuery;
        int fields = 0;
        int rows = 0;
        int numRowsAffected = 0;
    };

    /// @param function the engine's own Function. @return whether the properties are set; otherwise
    /// none is
    bool fill(QScriptValue function, const QScriptValue &target, const ResultShape &shape,
              const Values &values);
    /// The same of one row, once fill() has made the function. @param row ShortColumns::row()
    bool fillRow(const QScriptValue &target, const ResultShape &shape, const QScriptValue &row);
    /// Whether fillRow() may be called.
    bool fillsRows(const ResultShape &shape) const
    {
        return m_function.isValid() && m_nameChanges == shape.nameChanges();
    }

private:
    static constexpr int FillsBefore = 8; ///< results of the same names before a function is made
    static constexpr int MostColumns = 64;

    bool isReady(QScriptValue &function, const ResultShape &shape);
    bool call(const QScriptValueList &args);

    QScriptValue m_function;
    int m_nameChanges = 0;      ///< of the shape that the function is for
    std::vector<int> m_typeIds; ///< that it sets when it is not given others
    int m_fills = 0;
};
