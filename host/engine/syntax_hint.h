/// @file
/// What is wrong with a script that the engine cannot compile.
#pragma once

#include <QString>

/// The engine tells the line of a syntax error and nothing else. This finds the column, and names
/// what is newer than the engine: authors know the language of today's browsers.
///
/// It is a pure function of the code: any thread.
struct SyntaxHint {
    int column = 0; ///< from 1 on; 0 when unknown
    QString text;   ///< empty when the mistake is an ordinary one

    /// @param line where the engine found the mistake, from 1 on
    static SyntaxHint find(const QString &code, int line);
};
