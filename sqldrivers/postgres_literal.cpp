#include "postgres_literal.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLocale>
#include <QUuid>

#include <cmath>

namespace
{

/// Backslashes mean the same whatever standard_conforming_strings is in the form with an E.
QString quoted(QString text)
{
    if (text.contains(QLatin1Char('\''))) // many times quicker than to replace nothing
        text.replace(QLatin1Char('\''), QLatin1String("''"));
    if (!text.contains(QLatin1Char('\\')))
        return QLatin1Char('\'') + text + QLatin1Char('\'');
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    return QLatin1String("E'") + text + QLatin1Char('\'');
}

QString quotedText(const QString &text, QString *refusal)
{
    if (text.contains(QChar(QChar::Null))) {
        *refusal = QCoreApplication::translate("PostgresLiteral",
                                               "a text for PostgreSQL cannot hold U+0000");
        return QString();
    }
    return quoted(text);
}

QString number(const QString &digits, PostgresLiteral::Numbers numbers)
{
    return numbers == PostgresLiteral::Numbers::Bare
               ? digits
               : QLatin1Char('\'') + digits + QLatin1Char('\'');
}

QString real(double value, PostgresLiteral::Numbers numbers)
{
    if (std::isnan(value))
        return QStringLiteral("'NaN'");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("'Infinity'") : QStringLiteral("'-Infinity'");
    const QVariant exact = withExactNumber(value); // "1000000", not "1e+06"
    if (exact.userType() != QMetaType::Double)
        return number(QString::number(exact.toLongLong()), numbers);
    return number(QString::number(value, 'g', QLocale::FloatingPointShortest), numbers);
}

/// A text is read by the type of its place, which takes no notice of the zone where it has none.
QString instant(const QDateTime &value)
{
    const QDateTime utc = value.toUTC();
    const QDate date = utc.date();
    const int year = date.year();
    return QStringLiteral("'%1-%2 %3+00%4'")
        .arg(year > 0 ? year : -year, 4, 10, QLatin1Char('0'))
        .arg(date.toString(QStringLiteral("MM-dd")),
             utc.time().toString(QStringLiteral("hh:mm:ss.zzz")),
             year > 0 ? QString() : QStringLiteral(" BC"));
}

} // namespace

QString PostgresLiteral::of(const QVariant &value, Numbers numbers, QString *refusal)
{
    if (value.isNull())
        return QStringLiteral("NULL");
    switch (value.userType()) {
    case QMetaType::Bool:
        return number(value.toBool() ? QStringLiteral("TRUE") : QStringLiteral("FALSE"), numbers);
    case QMetaType::Int:
    case QMetaType::LongLong:
        return number(QString::number(value.toLongLong()), numbers);
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return number(QString::number(value.toULongLong()), numbers);
    case QMetaType::Float:
    case QMetaType::Double:
        return real(value.toDouble(), numbers);
    case QMetaType::QByteArray:
        return QLatin1String("E'\\\\x") + QString::fromLatin1(value.toByteArray().toHex()) +
               QLatin1Char('\'');
    case QMetaType::QDateTime:
        // The type makes the server turn it into the session's clock where a place has no zone.
        return QLatin1String("TIMESTAMP WITH TIME ZONE ") + instant(value.toDateTime());
    case QMetaType::QDate:
        return quoted(value.toDate().toString(Qt::ISODate));
    case QMetaType::QTime:
        return quoted(value.toTime().toString(QStringLiteral("hh:mm:ss.zzz")));
    case QMetaType::QUuid:
        return quoted(value.toUuid().toString(QUuid::WithoutBraces));
    default:
        return quotedText(value.toString(), refusal);
    }
}

QString PostgresLiteral::inText(const BoundValue &value, QString *refusal)
{
    if (value.value.userType() == QMetaType::QDateTime && !value.value.isNull())
        return instant(value.value.toDateTime()); // routines are found by the types given
    const QString literal = of(value.value, Numbers::Bare, refusal);
    return literal.startsWith(QLatin1Char('-')) ? QLatin1Char('(') + literal + QLatin1Char(')')
                                                : literal;
}
