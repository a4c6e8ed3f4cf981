/// @file
/// Values for statements that PostgreSQL prepared some time ago.
#pragma once

#include <QVariant>

/// The type of a parameter is fixed when a statement is prepared, mostly to that of a column.
/// Another session may give the column another type later: the server then reads the value by the
/// old type and converts it to the new one, in silence where there is such a conversion. "007" for
/// a column that was an integer and is a text now becomes "7", a time for what was a date is lost.
///
/// Pure, any thread.
namespace PostgresLasting
{

/// Whether a value means the same, be it read by the parameter's type and then converted to
/// whatever type a column may have now, or read by the new type at once; or is refused. What is
/// left is told in docs/drivers.md.
/// @param type object id of the parameter's type
bool isLasting(unsigned type, const QVariant &value);

} // namespace PostgresLasting
