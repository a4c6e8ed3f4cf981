/// @file
/// How one value becomes what a script sees of it. Engine's thread only.
#pragma once

#include <QScriptValue>

class QScriptEngine;
class QVariant;

namespace ScriptCell
{

/// @param enableNull NULL becomes null; otherwise it is converted like its type's zero. @return an
/// invalid value where there is nothing to show.
QScriptValue toScript(QScriptEngine *engine, const QVariant &value, bool enableNull);

} // namespace ScriptCell
