#include "mariadb_literal.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLocale>

#include <algorithm>
#include <cmath>

namespace
{

QString hex(const QByteArray &bytes)
{
    return QStringLiteral("x'%1'").arg(QString::fromLatin1(bytes.toHex()));
}

QString textLiteral(const QString &text)
{
    const bool isPlain = std::none_of(text.cbegin(), text.cend(),
                                      [](QChar c) { return c.isNull() || c == QLatin1Char('\\'); });
    // Whether a backslash escapes is up to the session's mode.
    if (!isPlain)
        return QLatin1String("_utf8mb4 ") + hex(text.toUtf8());
    QString escaped = text;
    return QLatin1Char('\'') + escaped.replace(QLatin1Char('\''), QLatin1String("''")) +
           QLatin1Char('\'');
}

QString numberLiteral(double number)
{
    const QString text = QString::number(number, 'g', QLocale::FloatingPointShortest);
    // Without an exponent the server would calculate with a decimal.
    return text.contains(QLatin1Char('e')) ? text : text + QLatin1String("e0");
}

} // namespace

QVariant MariaDbLiteral::bindable(const QVariant &value)
{
    if (value.isNull())
        return value;
    switch (value.userType()) {
    case QMetaType::QDateTime:
        return value.toDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
    case QMetaType::QTime:
        return value.toTime().toString(QStringLiteral("hh:mm:ss.zzz"));
    case QMetaType::Bool:
        return int(value.toBool());
    default:
        return withExactNumber(value);
    }
}

QString MariaDbLiteral::refusal(const QVariant &value)
{
    const bool isReal =
        value.userType() == QMetaType::Double || value.userType() == QMetaType::Float;
    if (!isReal || std::isfinite(value.toDouble()))
        return QString();
    return QCoreApplication::translate("MariaDbLiteral", "MariaDB knows neither infinity nor NaN");
}

QString MariaDbLiteral::of(const BoundValue &bound, QString *refusal)
{
    if (bound.value.isNull())
        return QStringLiteral("NULL");
    *refusal = MariaDbLiteral::refusal(bound.value);
    const QVariant value = bindable(bound.value);
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toString();
    case QMetaType::Float:
    case QMetaType::Double:
        return numberLiteral(value.toDouble());
    case QMetaType::QByteArray:
        return hex(value.toByteArray());
    case QMetaType::QDate:
        return textLiteral(value.toDate().toString(Qt::ISODate));
    default:
        return textLiteral(value.toString());
    }
}
