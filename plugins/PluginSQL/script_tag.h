/// @file
/// Keeping a script's value beyond the life of the engine and of the objects it names.
#pragma once

#include <QObject>
#include <QPointer>
#include <QVariant>
#include <QVector>

class QScriptEngine;
class QThread;

/// The objects in a value that scripts of any engine share, held weakly: whoever reads the value
/// later may find them gone. A plain value without a lock.
class ScriptTag
{
public:
    ScriptTag() = default;
    explicit ScriptTag(const QVariant &value);

    /// The value as scripts of `engine` may use it, in its thread: objects that are gone, that
    /// belong to another thread, or that are not known here read as null, and so do connections of
    /// other engines, whose methods make values of their own one.
    QVariant resolved(const QVariant &value, const QScriptEngine *engine) const;

private:
    void findObjects(const QVariant &value);

    struct Held {
        QPointer<QObject> object;
        QThread *thread; ///< only there may the object be looked at
    };
    QVector<Held> m_objects;
};
