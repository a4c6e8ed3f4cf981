/// @file
/// Which form a Firebird statement's columns arrive in.
#pragma once

#include "firebird_client.h"
#include "stock_result.h"

namespace FirebirdColumns
{

/// Has the database give the decimals among a statement's columns as texts that hold every digit.
/// Qt's driver (5.15) takes them as integers with a scale and makes doubles of them, which hold no
/// more than 15 digits; but it describes to the client library which form it wants, between
/// preparing and executing, and that is changed here. To be called then, in the connection's
/// thread. Where the driver is built otherwise than the one that Debian ships, nothing is changed.
/// @param connection the one that the statement was prepared on
void askForDecimalsAsTexts(StockResult &rows, FirebirdClient::Handle connection);

} // namespace FirebirdColumns
