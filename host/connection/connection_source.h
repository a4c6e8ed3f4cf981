/// @file
/// Where the parameters of a connection come from: an argument, a file, the environment.
#pragma once

#include "connection_address.h"

/// Reads what stands behind `--open` and `.open`. A password in an argument is seen by everybody
/// who lists processes; it belongs into a file or into the environment.
///
/// Thread: any; the environment must not be changed meanwhile.
namespace ConnectionSource
{

/// Reads an argument: the text of an address, or `@file` with the name of a file that holds one,
/// over as many lines as it likes, lines that begin with `#` left out. What the text leaves open
/// is taken from the environment.
/// @return false with `error` set to a text for the user, which never holds a password.
bool read(const QString &argument, ConnectionAddress *address, QString *error);

/// Fills in what is not given: the password from VEXT_PASSWORD, and for the systems whose client
/// library does not look there by itself from MYSQL_PWD, or user and password from ISC_USER and
/// ISC_PASSWORD. PGPASSWORD, PGPASSFILE and their relatives are read by PostgreSQL's own library.
void addEnvironment(ConnectionAddress *address);

} // namespace ConnectionSource
