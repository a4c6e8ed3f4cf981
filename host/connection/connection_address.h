/// @file
/// A database connection as its user names it in one line.
#pragma once

#include <QString>

class QObject;

/// The parameters of a connection, from a text in one of two forms:
///
/// - an address: `postgresql://user@host:port/database?sslmode=require`, `mysql://`, `mariadb://`,
///   `firebird://user@host/path`, and without a server `firebird:file`, `sqlite:file`,
///   `sqlite::memory:`, `odbc:source`. Behind `//` special characters are percent-encoded; the
///   name of a file behind a single colon stands as it is.
/// - a driver and keywords: `QPSQL host=localhost dbname=shop user=me`, in any order, values with
///   blanks in quotes. A word without `=` is the database.
///
/// A keyword that is none of host, port, dbname, user, password, application_name and options (nor
/// a usual synonym) becomes one of the driver's connect options.
///
/// It is plain data: any thread.
struct ConnectionAddress {
    QString driver;
    QString host;
    int port = 0; ///< 0: the driver's own
    QString database;
    QString user;
    QString password;
    QString applicationName;
    QString options; ///< connect options, separated by semicolons

    /// @return false with `error` set to a text for the user, which never holds a password.
    static bool parse(const QString &text, ConnectionAddress *address, QString *error);

    /// One line for the user, without password and options: "QPSQL me@host:5432/shop".
    QString shown() const;

    /// Writes the parameters to the properties of a connection object.
    void setOn(QObject *connection) const;

    /// Takes one `name=value`.
    /// @return false with `error` set when the value is not one that the name can have.
    bool setKeyword(const QString &name, const QString &value, QString *error);
};
