#include "connection_source.h"

#include <QFile>
#include <QStringList>

namespace
{

const qint64 MaxFileSize = 65536; ///< of a file with one address

bool readFile(const QString &name, QString *text, QString *error)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read '%1': %2").arg(name, file.errorString());
        return false;
    }
    const QStringList lines = QString::fromUtf8(file.read(MaxFileSize)).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (!line.trimmed().startsWith(QLatin1Char('#')))
            *text += line + QLatin1Char(' ');
    }
    return true;
}

void fillFrom(const char *variable, QString *value)
{
    if (value->isEmpty())
        *value = qEnvironmentVariable(variable);
}

} // namespace

bool ConnectionSource::read(const QString &argument, ConnectionAddress *address, QString *error)
{
    QString text = argument;
    if (argument.startsWith(QLatin1Char('@'))) {
        text.clear();
        if (!readFile(argument.mid(1), &text, error))
            return false;
    }
    if (!ConnectionAddress::parse(text, address, error))
        return false;
    addEnvironment(address);
    return true;
}

void ConnectionSource::addEnvironment(ConnectionAddress *address)
{
    const QString driver = address->driver.toUpper();
    fillFrom("VEXT_PASSWORD", &address->password);
    if (driver.startsWith(QLatin1String("QMYSQL")) || driver == QLatin1String("QMARIADB"))
        fillFrom("MYSQL_PWD", &address->password);
    if (driver == QLatin1String("QIBASE")) {
        fillFrom("ISC_USER", &address->user);
        fillFrom("ISC_PASSWORD", &address->password);
    }
}
