/// @file
/// Values in PostgreSQL's own notation.
#pragma once

#include "bound_statement.h"

#include <QString>

namespace PostgresLiteral
{

/// Whether numbers and booleans are written as such, or as texts that the server reads by the type
/// of the place where they stand.
enum class Numbers { Bare, Quoted };

/// A literal that means the value whatever the session's settings are.
/// @param refusal set when there is none: PostgreSQL's texts hold no U+0000
QString of(const QVariant &value, Numbers numbers, QString *refusal);

/// The same for LiteralStatement; negative numbers are in parentheses.
QString inText(const BoundValue &value, QString *refusal);

} // namespace PostgresLiteral
