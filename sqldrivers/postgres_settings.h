/// @file
/// Settings of a PostgreSQL session that the stock driver relies on. Pure, any thread.
#pragma once

#include <QString>

namespace PostgresSettings
{

/// What a statement would do to the session.
enum class Effect {
    None,         ///< nothing that matters
    OtherStyle,   ///< SET DateStyle to another style than ISO
    OtherEncoding ///< SET NAMES or client_encoding to another one than UTF-8
};

/// What the first statement of a text does. The order of day and month may change: dates in ISO
/// style do not follow it.
Effect effectOf(const QString &text);

} // namespace PostgresSettings
