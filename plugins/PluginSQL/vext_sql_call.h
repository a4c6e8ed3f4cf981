/// @file
/// How the arguments of query_thread and exec_thread become one task. No thread, no database.
///
/// Runs in the engine's thread. Reading an array may run script code (getters): nothing is locked,
/// and an exception that the script raises there ends the sorting. That code may do anything a
/// script may, so a caller looks again at what it holds (the connection, its state) afterwards.
#pragma once

#include "sql_records.h"

#include <QScriptContext>
#include <QScriptEngine>
#include <QString>

namespace SqlCall
{

/// Which of the two script functions is called.
enum class Function { Query, Exec };

/// Why a call is refused: the text of the TypeError and, where one is due, the message log's line.
struct Refusal {
    QString text;                 ///< text of the TypeError
    int logLine = 0;              ///< fixed source line of the critical log line, 0 for none
    QString logText;              ///< its text, the items separated by single blanks
    bool scriptException = false; ///< a getter of an argument threw; nothing more to raise
};

/// "использовать как …" (use as …) with the call forms of `function`.
QString usageText(Function function);

/// "слишком большой аргумент" (argument too large): of a value that ScriptVariant::convert()
/// refuses.
QString tooLargeText();

/// Sorts the arguments of the call by type into a new task.
/// @return the task, owned by the caller; null and `refusal` filled when the call is refused.
structThrSql *makeTask(Function function, QScriptContext *context, QScriptEngine *engine,
                       Refusal &refusal);

/// The values of the integer-named properties of `array`, in iteration order; other names are
/// skipped. Only properties that exist are visited, however long a sparse array is.
/// An exception thrown by a getter ends the walk and stays with the engine.
QScriptValueList numberedValues(const QScriptValue &array, QScriptEngine *engine);

} // namespace SqlCall
