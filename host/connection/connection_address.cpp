#include "connection_address.h"

#include "address_words.h"

#include <QObject>
#include <QUrl>
#include <QUrlQuery>
#include <QVariant>

namespace
{

const int MaxPort = 65535;

struct Scheme {
    const char *name;
    const char *driver;
};

const Scheme Schemes[] = {
    {"postgresql", "QPSQL"}, {"postgres", "QPSQL"}, {"mysql", "QMYSQL"}, {"mariadb", "QMYSQL"},
    {"firebird", "QIBASE"},  {"sqlite", "QSQLITE"}, {"odbc", "QODBC"},
};

/// The driver for the kind of database that an address begins with; empty for an unknown one.
QString driverOf(const QString &scheme)
{
    for (const Scheme &known : Schemes) {
        if (scheme.compare(QLatin1String(known.name), Qt::CaseInsensitive) == 0)
            return QLatin1String(known.driver);
    }
    return QString();
}

/// What stands before the first colon, when it can be the scheme of an address.
QString schemeOf(const QString &text)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    for (int i = 0; i < colon; ++i) {
        if (!text.at(i).isLetterOrNumber())
            return QString();
    }
    return text.left(qMax(colon, 0));
}

void addOption(QString *options, const QString &option)
{
    if (!options->isEmpty() && !option.isEmpty())
        *options += QLatin1Char(';');
    *options += option;
}

bool isOneOf(const QString &name, std::initializer_list<const char *> names)
{
    for (const char *known : names) {
        if (name.compare(QLatin1String(known), Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

bool setPort(const QString &text, int *port, QString *error)
{
    bool isNumber = false;
    *port = text.toInt(&isNumber);
    if (isNumber && *port >= 0 && *port <= MaxPort)
        return true;
    *error = QStringLiteral("'%1' is not a port").arg(text);
    return false;
}

bool parseServer(const QString &text, ConnectionAddress *address, QString *error)
{
    const QUrl url(text, QUrl::TolerantMode);
    if (!url.isValid()) {
        *error =
            QStringLiteral("the address cannot be read; special characters in names and passwords"
                           " are written as %XX");
        return false;
    }
    address->host = url.host(QUrl::FullyDecoded);
    address->port = url.port(0);
    address->user = url.userName(QUrl::FullyDecoded);
    address->password = url.password(QUrl::FullyDecoded);
    address->database = url.path(QUrl::FullyDecoded).mid(1);
    const auto items = QUrlQuery(url).queryItems(QUrl::FullyDecoded);
    for (const auto &item : items) {
        if (!address->setKeyword(item.first, item.second, error))
            return false;
    }
    return true;
}

/// sqlite://name and sqlite:///path: there is no server, all of it is the file.
bool isFile(const QString &driver)
{
    return driver == QLatin1String("QSQLITE");
}

bool parseAddress(const QString &scheme, const QString &text, ConnectionAddress *address,
                  QString *error)
{
    address->driver = driverOf(scheme);
    QString rest = text.mid(scheme.size() + 1);
    const bool hasSlashes = rest.startsWith(QLatin1String("//"));
    if (hasSlashes && !isFile(address->driver))
        return parseServer(text, address, error);
    address->database = hasSlashes ? QUrl::fromPercentEncoding(rest.mid(2).toUtf8()) : rest;
    if (!address->database.isEmpty())
        return true;
    *error = QStringLiteral("nothing follows '%1:'").arg(scheme);
    return false;
}

bool parseKeywords(const QString &text, ConnectionAddress *address, QString *error)
{
    QVector<AddressWord> words;
    if (!AddressWords::split(text, &words, error))
        return false;
    for (const AddressWord &word : qAsConst(words)) {
        if (!word.name.isEmpty()) {
            if (!address->setKeyword(word.name, word.value, error))
                return false;
        } else if (address->driver.isEmpty()) {
            const QString driver = driverOf(word.value);
            address->driver = driver.isEmpty() ? word.value : driver;
        } else if (address->database.isEmpty()) {
            address->database = word.value;
        } else {
            *error = QStringLiteral("a keyword is missing before '%1'").arg(word.value);
            return false;
        }
    }
    if (address->driver.isEmpty())
        *error = QStringLiteral("no driver is named");
    return !address->driver.isEmpty();
}

} // namespace

bool ConnectionAddress::parse(const QString &text, ConnectionAddress *address, QString *error)
{
    *address = ConnectionAddress();
    const QString line = text.trimmed();
    if (line.isEmpty()) {
        *error = QStringLiteral("the address of the database is empty");
        return false;
    }
    const QString scheme = schemeOf(line);
    if (scheme.isEmpty())
        return parseKeywords(line, address, error);
    if (!driverOf(scheme).isEmpty())
        return parseAddress(scheme, line, address, error);
    *error = QStringLiteral("unknown kind of database '%1'; known are postgresql, mysql, mariadb,"
                            " firebird, sqlite and odbc")
                 .arg(scheme);
    return false;
}

bool ConnectionAddress::setKeyword(const QString &name, const QString &value, QString *error)
{
    if (isOneOf(name, {"port"}))
        return setPort(value, &port, error);
    if (isOneOf(name, {"driver", "driverName"}))
        driver = value;
    else if (isOneOf(name, {"host", "hostName", "hostaddr"}))
        host = value;
    else if (isOneOf(name, {"dbname", "database", "databaseName", "file"}))
        database = value;
    else if (isOneOf(name, {"user", "userName"}))
        user = value;
    else if (isOneOf(name, {"password"}))
        password = value;
    else if (isOneOf(name, {"application_name", "app_name"}))
        applicationName = value;
    else if (isOneOf(name, {"options", "connectOptions"}))
        addOption(&options, value);
    else
        addOption(&options, value.isNull() ? name : name + QLatin1Char('=') + value);
    return true;
}

QString ConnectionAddress::shown() const
{
    QString server = user.isEmpty() ? QString() : user + QLatin1Char('@');
    server += host;
    if (port > 0)
        server += QLatin1Char(':') + QString::number(port);
    if (!server.isEmpty())
        server += QLatin1Char('/');
    return QStringLiteral("%1 %2").arg(driver, server + database).trimmed();
}

void ConnectionAddress::setOn(QObject *connection) const
{
    connection->setProperty("driverName", driver);
    connection->setProperty("hostName", host);
    connection->setProperty("port", port);
    connection->setProperty("databaseName", database);
    connection->setProperty("userName", user);
    connection->setProperty("password", password);
    connection->setProperty("connectOptions", options);
    connection->setProperty("app_name", applicationName);
}
