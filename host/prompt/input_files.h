/// @file
/// What waits to be run at the prompt.
#pragma once

#include "prompt_input.h"

#include <QFile>
#include <QSharedPointer>
#include <QString>
#include <QVector>

/// The entries that were typed, and the files that are being read, the innermost last: a file may
/// name others. Files are read line by line, so that their size does not matter. What ends in
/// ".sql" is all SQL, anything else is what could be typed.
///
/// Thread: the engine's.
class InputFiles
{
public:
    /// Adds what was typed.
    void add(const QVector<PromptEntry> &entries);

    /// Opens a file, which is read before everything that waits.
    /// @param empty an input of the kind that takes what is typed
    /// @return false with `error` set to a text for the user.
    bool open(const QString &name, const PromptInput &empty, QString *error);

    /// Takes the next entry, and "file:line: " of an entry of a file.
    /// @return false when nothing waits.
    bool take(PromptEntry *entry, QString *place);

    /// The connection is another one.
    void setDialect(const SqlDialect &dialect);

    bool isEmpty() const { return m_levels.isEmpty(); }
    void clear() { m_levels.clear(); }

private:
    struct Level {
        explicit Level(const PromptInput &empty)
            : input(empty)
        {
        }

        QScopedPointer<QFile> file; ///< null for what was typed
        PromptInput input;
        QVector<PromptEntry> waiting;
    };

    static void read(Level *level);

    QVector<QSharedPointer<Level>> m_levels;
};
