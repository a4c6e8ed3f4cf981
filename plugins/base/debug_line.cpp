#include "debug_line.h"

#include <QDateTime>
#include <QLocale>
#include <QMessageLogger>
#include <QRegularExpression>
#include <QStringList>

namespace
{

const QLatin1String TimeFormat("yyyy-MM-dd-hh:mm:ss.zzz");
const QLatin1String ErrorMarker("~~~~");

QString baseName(const char *module)
{
    const QString path = QString::fromUtf8(module);
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return path.mid(qMax(slash, path.lastIndexOf(QLatin1Char('\\'))) + 1);
}

/// Streams the header without quotes and leaves the stream as a fresh one is, so that what the
/// caller adds prints in its usual form.
QDebug withHeader(QDebug stream, const QString &header)
{
    stream.noquote() << header << '\t';
    return stream.quote();
}

} // namespace

namespace DebugLine
{

QString cleanFunctionName(const QString &function, bool lastPartOnly)
{
    static const QRegularExpression signature(
        QStringLiteral("^.+\\s((?:[\\w\\d]+::)+)?([\\w\\d\\<\\>~]+)(?:\\(.*\\)).*$"));
    QString name = function;
    name.replace(signature, QStringLiteral("\\2()"));
    return lastPartOnly ? name.mid(name.lastIndexOf(QLatin1Char(':')) + 1) : name;
}

QString prefix(const char *module, int line, const char *function, Mark mark)
{
    const bool isError = mark == Mark::Error;
    // The C locale keeps the digits of the time the same on every machine.
    QStringList items{QLocale::c().toString(QDateTime::currentDateTime(), TimeFormat),
                      QStringLiteral("%1:%2").arg(baseName(module), QString::number(line))};
    if (isError)
        items.append(ErrorMarker);
    items.append(cleanFunctionName(QString::fromUtf8(function), isError));
    return items.join(QLatin1Char(' '));
}

QDebug critical(const char *module, int line, const char *function, Mark mark)
{
    return withHeader(QMessageLogger(module, line, function).critical(),
                      prefix(module, line, function, mark));
}

QDebug debug(const char *module, int line, const char *function)
{
    return withHeader(QMessageLogger(module, line, function).debug(),
                      prefix(module, line, function, Mark::None));
}

} // namespace DebugLine
