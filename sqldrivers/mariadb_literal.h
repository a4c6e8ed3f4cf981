/// @file
/// Values as MariaDB reads them in a statement's text. Pure, any thread.
#pragma once

#include "bound_statement.h"

namespace MariaDbLiteral
{

/// Why MariaDB has no such value; empty when it has. Bound, NaN would become some number.
QString refusal(const QVariant &value);

/// The value as a literal that means the same whether backslashes escape or not. Numbers keep all
/// their digits.
/// @param refusal set to the reason when there is no literal for the value
QString of(const BoundValue &bound, QString *refusal);

/// The value as the stock driver has to be given it: it drops fractions of seconds.
QVariant bindable(const QVariant &value);

} // namespace MariaDbLiteral
