#include "bound_statement.h"

#include <QCoreApplication>

#include <cmath>
#include <limits>

QVariant withExactNumber(const QVariant &value)
{
    constexpr double LargestExact = 9007199254740991.0;
    if (value.userType() != QMetaType::Double)
        return value;
    const double number = value.toDouble();
    if (!(std::abs(number) <= LargestExact) || std::trunc(number) != number)
        return value;
    if (std::abs(number) <= std::numeric_limits<int>::max())
        return int(number);
    return qlonglong(number);
}

QString withWholePairs(const QString &text)
{
    if (text.isValidUtf16())
        return text;
    const QByteArray bytes = text.toUtf8();
    return QString::fromUtf8(bytes.constData(), bytes.size());
}

QString refusalOf(const QVariant &value, int number)
{
    switch (value.userType()) {
    case QMetaType::QVariantList:
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash:
    case QMetaType::QStringList:
    case QMetaType::QRegExp:
    case QMetaType::QRegularExpression:
        return QCoreApplication::translate("BoundStatement",
                                           "value %1 is a list or an object, and cannot be bound")
            .arg(number);
    default:
        return QString();
    }
}

bool DriverStatement::prepare()
{
    const QString text = plan().withMarks();
    result().renew(text);
    return result().prepare(text);
}

bool DriverStatement::execute(const QVector<BoundValue> &values)
{
    // A reused result keeps what was bound before, so every position is bound, every time.
    const QVector<int> &valueOf = plan().valueOf();
    for (int i = 0; i < valueOf.size(); ++i) {
        const BoundValue &bound = values.at(valueOf.at(i));
        result().bind(i, bound.value, bound.type);
    }
    return result().exec();
}

bool LiteralStatement::execute(const QVector<BoundValue> &values)
{
    QStringList literals;
    literals.reserve(values.size());
    for (const BoundValue &value : values) {
        QString refusal;
        literals.append(m_literal(value, &refusal));
        if (!refusal.isEmpty()) {
            result().fail(QSqlError(QString(), refusal, QSqlError::StatementError));
            return false;
        }
    }
    m_sent = plan().withLiterals(literals);
    result().renew(m_sent);
    return result().reset(m_sent);
}

QString LiteralStatement::sentText() const
{
    return m_sent.isEmpty() ? plan().withMarks() : m_sent;
}
