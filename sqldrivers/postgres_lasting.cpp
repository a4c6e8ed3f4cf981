#include "postgres_lasting.h"

#include "postgres_literal.h"

#include <algorithm>
#include <limits>

namespace
{

// Object ids of PostgreSQL's own types; they never change.
constexpr unsigned Boolean = 16;
constexpr unsigned Bytes = 17;
constexpr unsigned BigInteger = 20;
constexpr unsigned SmallInteger = 21;
constexpr unsigned Integer = 23;
constexpr unsigned Text = 25;
constexpr unsigned Real = 700;
constexpr unsigned Double = 701;
constexpr unsigned Varchar = 1043;
constexpr unsigned Date = 1082;
constexpr unsigned Numeric = 1700;
constexpr unsigned Uuid = 2950;

/// Digits that a double and a real keep of any decimal number.
constexpr int DoubleDigits = 15;
constexpr int RealDigits = 6;
constexpr int AnyDigits = std::numeric_limits<int>::max();

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

/// Whether a text has a digit where `form` has "0", a hexadecimal one in lower case where it has
/// "x", and otherwise the same characters.
bool hasForm(const QString &text, QLatin1String form)
{
    const auto fits = [](QChar c, char mark) {
        const bool isLetter = c >= QLatin1Char('a') && c <= QLatin1Char('f');
        if (mark == '0' || mark == 'x')
            return isDigit(c) || (mark == 'x' && isLetter);
        return c == QLatin1Char(mark);
    };
    return text.size() == form.size() && std::equal(text.cbegin(), text.cend(), form.begin(), fits);
}

bool isNumber(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

bool isText(const QVariant &value)
{
    return value.userType() == QMetaType::QString;
}

/// A number's digits as they are sent, or a text.
QString written(const QVariant &value)
{
    QString refusal;
    return isNumber(value) ? PostgresLiteral::of(value, PostgresLiteral::Numbers::Bare, &refusal)
                           : value.toString();
}

/// As the server itself writes it: no blanks, signs, zeros or exponents to get lost.
bool isPlainInteger(const QStringRef &text)
{
    const int first = text.startsWith(QLatin1Char('-')) ? 1 : 0;
    if (text.size() == first || (text.at(first) == QLatin1Char('0') && text.size() > 1))
        return false;
    return std::all_of(text.cbegin() + first, text.cend(), isDigit);
}

bool isPlainDecimal(const QString &text)
{
    const int point = text.indexOf(QLatin1Char('.'));
    if (point < 0)
        return isPlainInteger(QStringRef(&text));
    const int sign = text.startsWith(QLatin1Char('-')) ? 1 : 0;
    const QStringRef whole = text.midRef(sign, point - sign);
    const QStringRef fraction = text.midRef(point + 1);
    return isPlainInteger(whole) && !whole.startsWith(QLatin1Char('-')) && !fraction.isEmpty() &&
           std::all_of(fraction.cbegin(), fraction.cend(), isDigit);
}

/// Whole numbers alone: fractions are rounded, refused or compared by the types, each in its way.
bool isPlainNumber(const QVariant &value, int digits)
{
    if (digits == AnyDigits && value.userType() == QMetaType::Int)
        return true;
    if (!isNumber(value) && !isText(value))
        return false;
    const QString text = written(value);
    return isPlainInteger(QStringRef(&text)) && text.size() <= digits;
}

bool isPlainDate(const QVariant &value)
{
    return value.userType() == QMetaType::QDate ||
           (isText(value) && hasForm(value.toString(), QLatin1String("0000-00-00")));
}

bool isPlainUuid(const QVariant &value)
{
    return value.userType() == QMetaType::QUuid ||
           (isText(value) &&
            hasForm(value.toString(), QLatin1String("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx")));
}

/// Texts become nothing but texts without an error; those of fixed length drop blanks at the end.
bool isPlainText(const QVariant &value)
{
    if (isNumber(value))
        return isPlainDecimal(written(value));
    if (isText(value))
        return !value.toString().endsWith(QLatin1Char(' '));
    return value.userType() != QMetaType::Bool; // "true" once, "TRUE" when it is quoted
}

} // namespace

bool PostgresLasting::isLasting(unsigned type, const QVariant &value)
{
    if (value.isNull())
        return true;
    switch (type) {
    case Text:
    case Varchar:
        return isPlainText(value);
    case SmallInteger:
    case Integer:
    case BigInteger:
    case Numeric:
        return isPlainNumber(value, AnyDigits);
    case Real:
        return isPlainNumber(value, RealDigits);
    case Double:
        return isPlainNumber(value, DoubleDigits);
    case Boolean:
        return value.userType() == QMetaType::Bool;
    case Bytes:
        return value.userType() == QMetaType::QByteArray;
    case Date:
        return isPlainDate(value);
    case Uuid:
        return isPlainUuid(value);
    default:
        return false;
    }
}
