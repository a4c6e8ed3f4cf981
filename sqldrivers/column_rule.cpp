#include "column_rule.h"

#include <limits>

namespace
{

/// The largest integer up to which script numbers hold every one.
constexpr qlonglong LargestExact = (1LL << 53) - 1;

QVariant exactInteger(const QVariant &value)
{
    if (value.isNull())
        return value;
    if (value.userType() == QMetaType::ULongLong) {
        const qulonglong number = value.toULongLong();
        return number > qulonglong(LargestExact) ? QVariant(QString::number(number)) : value;
    }
    if (value.userType() != QMetaType::LongLong)
        return value;
    const qlonglong number = value.toLongLong();
    const bool exact = number <= LargestExact && number >= -LargestExact;
    return exact ? value : QVariant(QString::number(number));
}

QVariant real(const QVariant &value)
{
    if (value.isNull() || value.userType() != QMetaType::QString)
        return value;
    bool isNumber = false;
    const QString text = value.toString();
    const double number = text.toDouble(&isNumber);
    if (isNumber)
        return number;
    if (text.endsWith(QLatin1String("Infinity"))) {
        const double infinity = std::numeric_limits<double>::infinity();
        return text.startsWith(QLatin1Char('-')) ? -infinity : infinity;
    }
    return value;
}

QVariant unpadded(const QVariant &value, int length)
{
    if (value.userType() != QMetaType::QString)
        return value;
    QString text = value.toString();
    if (text.size() <= length)
        return value;
    // A character beyond the basic plane takes two of Qt's; what is cut is blank in any case.
    int end = text.size();
    int characters = text.toUcs4().size();
    while (characters > length && end > 0 && text.at(end - 1) == QLatin1Char(' ')) {
        --end;
        --characters;
    }
    if (end == text.size())
        return value;
    text.truncate(end);
    return text;
}

} // namespace

ColumnRule ColumnRule::exact(const QSqlField &field)
{
    const int type = int(field.type());
    const bool wide = type == QMetaType::LongLong || type == QMetaType::ULongLong;
    return {wide ? ExactInteger : AsIs, 0};
}

QVariant ColumnRule::applied(const QVariant &value) const
{
    switch (kind) {
    case ExactInteger:
        return exactInteger(value);
    case Real:
        return real(value);
    case Padded:
        return unpadded(value, length);
    case AsIs:
        break;
    }
    return value;
}
