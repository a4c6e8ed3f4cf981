#include "postgres_lasting.h"

#include "postgres_literal.h"

#include <QRegularExpression>

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

bool matches(const QRegularExpression &form, const QString &text)
{
    return form.match(text).hasMatch();
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
    return isNumber(value)
               ? PostgresLiteral::of(value, PostgresLiteral::Numbers::Bare, &refusal)
               : value.toString();
}

/// As the server itself writes it: no blanks, signs, zeros or exponents to get lost.
bool isPlainInteger(const QString &text)
{
    const int first = text.startsWith(QLatin1Char('-')) ? 1 : 0;
    if (text.size() == first || (text.at(first) == QLatin1Char('0') && text.size() > 1))
        return false;
    return std::all_of(text.cbegin() + first, text.cend(), [](QChar c) {
        return c >= QLatin1Char('0') && c <= QLatin1Char('9');
    });
}

bool isPlainDecimal(const QString &text)
{
    static const QRegularExpression form(QStringLiteral(R"(\A-?(0|[1-9][0-9]*)(\.[0-9]+)?\z)"));
    return matches(form, text) && text != QLatin1String("-0");
}

/// Whole numbers alone: fractions are rounded, refused or compared by the types, each in its way.
bool isPlainNumber(const QVariant &value, int digits)
{
    if (digits == AnyDigits && value.userType() == QMetaType::Int)
        return true;
    if (!isNumber(value) && !isText(value))
        return false;
    const QString text = written(value);
    return isPlainInteger(text) && text.size() <= digits;
}

bool isPlainDate(const QVariant &value)
{
    static const QRegularExpression form(QStringLiteral(R"(\A[0-9]{4}-[0-9]{2}-[0-9]{2}\z)"));
    return value.userType() == QMetaType::QDate || (isText(value) && matches(form, value.toString()));
}

bool isPlainUuid(const QVariant &value)
{
    static const QRegularExpression form(QStringLiteral(
        R"(\A[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\z)"));
    return value.userType() == QMetaType::QUuid || (isText(value) && matches(form, value.toString()));
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
