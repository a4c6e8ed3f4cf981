#include "last_statement.h"

#include "sql_text.h"

#include <QMutexLocker>

namespace
{

/// The name that scripts read. They compare with it, the parenthesis behind one of them included.
QString errorTypeName(QSqlError::ErrorType type)
{
    if (type == QSqlError::ConnectionError)
        return type2str(type) + QLatin1Char(')');
    if (type < QSqlError::NoError || type > QSqlError::UnknownError)
        return QStringLiteral("%1 (%2)").arg(type2str(QSqlError::UnknownError)).arg(int(type));
    return type2str(type);
}

/// The native code as a number: -1 where the driver gives none, 0 where it is no number.
int nativeNumber(const QSqlError &error)
{
    const QString code = error.nativeErrorCode();
    return code.isEmpty() ? -1 : code.toInt();
}

} // namespace

void LastStatement::setLastError(const QSqlError &error)
{
    QMutexLocker locker(&m_mutexLast);
    m_lastError = error;
}

QString LastStatement::lastError()
{
    QMutexLocker locker(&m_mutexLast);
    return m_lastError.isValid() ? m_lastError.text() : QString();
}

QVariantMap LastStatement::lastErrors()
{
    QSqlError error;
    {
        QMutexLocker locker(&m_mutexLast);
        error = m_lastError;
    }
    return {
        {QStringLiteral("driverText"), error.driverText()},
        {QStringLiteral("databaseText"), error.databaseText()},
        {QStringLiteral("type"), int(error.type())},
        {QStringLiteral("typeStr"), errorTypeName(error.type())},
        {QStringLiteral("number"), nativeNumber(error)},
        {QStringLiteral("text"), error.text()},
        {QStringLiteral("isValid"), error.isValid() ? 1 : 0},
    };
}

QString LastStatement::lastQueryText()
{
    QMutexLocker locker(&m_mutexLast);
    return lastQuery;
}

int LastStatement::lastAffectedRows()
{
    QMutexLocker locker(&m_mutexLast);
    return affectedRows;
}

void LastStatement::setLastStatement(const QString &text, const QSqlError &error)
{
    QMutexLocker locker(&m_mutexLast);
    lastQuery = text;
    m_lastError = error;
}

void LastStatement::setAffectedRows(int rows)
{
    QMutexLocker locker(&m_mutexLast);
    affectedRows = rows;
}
