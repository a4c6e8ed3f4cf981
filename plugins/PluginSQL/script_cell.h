/// @file
/// How one value becomes what a script sees of it. Engine's thread only.
#pragma once

#include <QScriptValue>

class LocalClock;
class QScriptEngine;
class QVariant;

namespace ScriptCell
{

/// @param enableNull NULL becomes null; otherwise it is converted like its type's zero. @return an
/// invalid value where there is nothing to show.
/// @param clock converts dates and times, of which there may be many; may be null.
QScriptValue toScript(QScriptEngine *engine, const QVariant &value, bool enableNull,
                      LocalClock *clock = nullptr);

} // namespace ScriptCell
