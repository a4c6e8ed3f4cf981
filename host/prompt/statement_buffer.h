/// @file
/// Lines that become statements.
#pragma once

#include <QString>

/// Collects lines until they make a whole piece of script. The engine's own syntax check decides
/// whether input goes on.
class StatementBuffer
{
public:
    /// Adds a line without its line break.
    /// @return true when statement() can be run, or is wrong beyond repair.
    bool add(const QString &line);

    /// Whether the first lines of a statement wait for the rest.
    bool isOpen() const { return !m_text.isEmpty(); }

    /// Takes the text out, complete or not. Empty when there was nothing but blanks.
    QString take();

    void clear() { m_text.clear(); }

private:
    QString m_text;
};
