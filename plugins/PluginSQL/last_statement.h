/// @file
/// What a connection remembers of its last statement.
#pragma once

#include <QMutex>
#include <QSqlError>
#include <QString>
#include <QVariantMap>

/// The text, the error and the affected rows of what ran last on a connection, in whichever thread.
/// Any thread.
class LastStatement
{
public:
    void setLastError(const QSqlError &error);
    /// Text of the last error, empty when there is none.
    QString lastError();
    /// The last error as a map with the keys that scripts read.
    QVariantMap lastErrors();
    QString lastQueryText();
    int lastAffectedRows();
    void setLastStatement(const QString &text, const QSqlError &error);
    void setAffectedRows(int rows);

    QMutex m_mutexLast;    ///< guards what follows
    QString lastQuery;     ///< m_mutexLast
    QSqlError m_lastError; ///< m_mutexLast
    int affectedRows = 0;  ///< m_mutexLast
};
