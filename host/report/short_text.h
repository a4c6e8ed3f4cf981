/// @file
/// Texts that a reader can take in.
#pragma once

#include <QString>

/// An error may quote a statement or a value of any size, and nobody reads a message of many
/// megabytes. Pure: any thread.
namespace ShortText
{

/// The text, or its begin and its end with what is left out between them told.
QString of(const QString &text);

} // namespace ShortText
