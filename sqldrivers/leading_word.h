/// @file
/// The verb of a statement, found without reading all of it.
#pragma once

#include <QString>

/// The first word behind blanks and comments, in upper case; empty when the text begins otherwise.
/// Pure, any thread.
QString leadingWord(const QString &text);
