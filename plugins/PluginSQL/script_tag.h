/// @file
/// Keeping a script's value beyond the life of the engine and of the objects it names.
#pragma once

#include <QVariant>

namespace ScriptTag
{

/// The value with every object in it held weakly: whoever reads it later may find the object gone.
QVariant guarded(const QVariant &value);

/// The value with the objects that are still there; the others are null.
QVariant resolved(const QVariant &value);

} // namespace ScriptTag
