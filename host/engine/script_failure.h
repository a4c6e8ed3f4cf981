/// @file
/// An uncaught script exception, as the operator is told of it.
#pragma once

#include <QString>
#include <QStringList>

class QScriptEngine;

/// What is left of an exception that no script caught.
struct ScriptFailure {
    QString text;               ///< the thrown value
    QString file;               ///< empty when unknown
    int line = -1;              ///< -1 when unknown
    int column = 0;             ///< of a mistake in the syntax; 0 when unknown
    QString hint;               ///< of a mistake in the syntax; empty when there is none
    QStringList backtrace;      ///< innermost call first
    bool isSyntaxError = false; ///< the code could not be compiled, nothing of it has run

    /// Takes the uncaught exception out of the engine. Call it only when there is one.
    static ScriptFailure take(QScriptEngine *engine);

    /// For a mistake in the syntax of code that is no file: finds the column and the hint.
    void explainSyntax(const QString &code);

    /// The thrown value with the hint.
    QString described() const;

    /// The text for the operator, one or more lines, each with its line break.
    /// @param connection the connection whose callback threw; empty when it is about none
    QString formatted(const QString &connection = QString()) const;
};
