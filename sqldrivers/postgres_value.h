/// @file
/// Values that Qt's PostgreSQL driver reads wrongly.
#pragma once

#include <QByteArray>
#include <QVariant>

/// Reads what Qt's driver (5.15) does not: dates before Christ and after the year 9999, and the
/// upper half of the unsigned types (xid, oid). Pure, any thread.
namespace PostgresValue
{

/// Whether values of a column type, given by its object id, may need another look.
bool needsLook(unsigned type);

/// @param raw the value as the server sent it, in ISO style
/// @param value what Qt's driver has made of it
/// @return the right value, most often `value`
QVariant read(unsigned type, const QByteArray &raw, const QVariant &value);

} // namespace PostgresValue
