/// @file
/// How the arguments of query_thread and exec_thread become one task. No thread, no database.
///
/// Runs in the engine's thread. Reading an array may run script code (getters): nothing is locked,
/// and an exception that the script raises there ends the sorting.
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
    QString text;    ///< text of the TypeError
    int logLine = 0; ///< fixed source line of the critical log line, 0 for none
    QString logText; ///< its text, the items separated by single blanks
    bool scriptException = false; ///< a getter of an argument threw; nothing more to raise
};

/// "использовать как …" (use as …) with the call forms of `function`.
QString usageText(Function function);

/// Sorts the arguments of the call by type into a new task.
/// @return the task, owned by the caller; null and `refusal` filled when the call is refused.
structThrSql *makeTask(Function function, QScriptContext *context, QScriptEngine *engine,
                       Refusal &refusal);

} // namespace SqlCall
