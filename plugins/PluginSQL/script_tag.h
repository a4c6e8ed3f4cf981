/// @file
/// Keeping a script's value beyond the life of the engine and of the objects it names.
#pragma once

#include <QObject>
#include <QPointer>
#include <QVariant>
#include <QVector>

/// A value that scripts of any engine share. Objects in it are held weakly: whoever reads it later
/// may find them gone. A plain value without a lock.
class ScriptTag
{
public:
    ScriptTag() = default;
    explicit ScriptTag(const QVariant &value);

    /// The value as the calling thread may use it: objects that are gone, or that belong to another
    /// thread, read as null.
    QVariant value() const;

private:
    QVariant resolved(const QVariant &value) const;
    void findObjects(const QVariant &value);

    QVariant m_value;
    QVector<QPointer<QObject>> m_objects;
};
