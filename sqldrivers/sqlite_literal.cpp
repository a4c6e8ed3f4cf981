#include "sqlite_literal.h"

#include <QDateTime>
#include <QLocale>

#include <algorithm>
#include <cmath>

namespace
{

constexpr double LargestExact = 9007199254740991.0;

QString sqliteNumber(double number)
{
    if (std::isnan(number))
        return QStringLiteral("NULL");
    if (std::isinf(number))
        return number > 0 ? QStringLiteral("9e999") : QStringLiteral("-9e999");
    const QString text = QString::number(number, 'g', QLocale::FloatingPointShortest);
    const bool looksReal = text.contains(QLatin1Char('.')) || text.contains(QLatin1Char('e'));
    // What a script calls 5 is a double here and an integer there.
    return looksReal || std::abs(number) <= LargestExact ? text : text + QLatin1String(".0");
}

/// A text with nothing in it that a literal cannot hold, and that SQLite's ODBC driver does not
/// corrupt: it takes statements of the basic plane alone.
bool isPlainText(const QString &text)
{
    return std::none_of(text.cbegin(), text.cend(),
                        [](QChar c) { return c.isNull() || c.isSurrogate(); });
}

QString sqliteText(const QString &text)
{
    if (!isPlainText(text))
        return QStringLiteral("CAST(x'%1' AS TEXT)")
            .arg(QString::fromLatin1(text.toUtf8().toHex()));
    QString escaped = text;
    return QLatin1Char('\'') + escaped.replace(QLatin1Char('\''), QLatin1String("''")) +
           QLatin1Char('\'');
}

} // namespace

QString SqliteLiteral::inText(const BoundValue &bound, QString *refusal)
{
    Q_UNUSED(refusal)
    const QVariant &value = bound.value;
    if (value.isNull())
        return QStringLiteral("NULL");
    switch (value.userType()) {
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toString();
    case QMetaType::Float:
    case QMetaType::Double:
        return sqliteNumber(value.toDouble());
    case QMetaType::QByteArray:
        return QStringLiteral("x'%1'").arg(QString::fromLatin1(value.toByteArray().toHex()));
    case QMetaType::QDateTime:
        return sqliteText(value.toDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")));
    case QMetaType::QDate:
        return sqliteText(value.toDate().toString(Qt::ISODate));
    case QMetaType::QTime:
        return sqliteText(value.toTime().toString(QStringLiteral("hh:mm:ss.zzz")));
    default:
        return sqliteText(value.toString());
    }
}
