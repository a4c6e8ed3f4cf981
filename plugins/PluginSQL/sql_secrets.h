/// @file
/// Passwords in texts that leave the connection. Pure text, any thread.
#pragma once

#include <QString>

namespace SqlSecrets
{

/// Connect options and ODBC connection strings, with "****" for each password in them.
QString maskedConnection(const QString &text);

/// A statement, or an error text that quotes one, with "****" for what stands behind PASSWORD and
/// IDENTIFIED BY. Connection strings inside it are masked too.
QString maskedStatement(const QString &sql);

} // namespace SqlSecrets
