/// @file
/// The host's per-script context object.
#pragma once

#include "plugin_message.h"

#include <QDir>
#include <QList>
#include <QObject>
#include <QPointer>

/// What plugins find above a script engine and scripts as the global `post`: it is told of every
/// object that a script makes, receives the messages of those objects and knows the script's
/// directory.
///
/// Plugins know it by the beginning of its class name and by the names of its members, which are
/// looked up at run time.
///
/// Thread: the script engine's. Owner: the script host; the engine is its child.
class VextPost : public QObject
{
    Q_OBJECT

public:
    explicit VextPost(QObject *parent = nullptr);

    /// The objects made by the script that are still alive, in order of creation. Not owned.
    QList<QObject *> objects() const;

    void setDirectory(const QDir &directory) { m_directory = directory; }

    /// Called by plugins for each new object of a script. The post keeps no ownership of it.
    Q_INVOKABLE void insertObject(QObject *object, const QString &name);

    /// The directory of the running script.
    Q_INVOKABLE QDir getPostDir() const { return m_directory; }

signals:
    void objectInserted(QObject *object);
    /// A message of one of the script's objects, always emitted in the post's thread.
    void message(const PluginMessage &message);

public slots:
    /// Receives the messages of the script's objects; those of worker threads arrive queued.
    void plugin_msg(const char *source, int line, const char *operation, const QString &text,
                    int level);

private:
    /// The name of the script's object that an object is or belongs to; empty for others.
    QString nameOf(const QObject *object) const;

    QList<QPointer<QObject>> m_objects;
    QDir m_directory;
};

Q_DECLARE_METATYPE(QDir)
