/// @file
/// Values in SQLite's own notation.
#pragma once

#include "bound_statement.h"

#include <QString>

namespace SqliteLiteral
{

/// A literal for LiteralStatement, of the basic plane alone: SQLite's ODBC driver corrupts others.
/// @param refusal is not used: SQLite has a literal for every value
QString inText(const BoundValue &value, QString *refusal);

} // namespace SqliteLiteral
