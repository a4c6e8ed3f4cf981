/// @file
/// How a script value becomes a variant that a statement can bind. Engine's thread only.
#pragma once

#include <QScriptValue>

class QScriptEngine;
class QVariant;

namespace ScriptVariant
{

/// Whether toVariant takes the value as a whole, without looking at its properties.
bool isLeaf(const QScriptValue &value);

/// Values that one bound argument may hold, nested ones included, and how deep they may lie.
constexpr int MaxConvertedValues = 1 << 20;
constexpr int MaxConvertedDepth = 512;

/// What QScriptValue::toVariant makes of `value`, within bounds. That function never returns for a
/// sparse array of length 4294967295 or for objects that name each other in many ways, and runs out
/// of stack on deep ones.
/// @return false when the value is too large, or when a getter of it threw an exception, which
/// stays with the engine.
bool convert(const QScriptValue &value, QScriptEngine *engine, QVariant &variant);

} // namespace ScriptVariant
