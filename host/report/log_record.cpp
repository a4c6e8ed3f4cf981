#include "log_record.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace
{

QString levelWord(int level)
{
    switch (level) {
    case LogRecord::Error:
        return QStringLiteral("error");
    case LogRecord::Notice:
        return QStringLiteral("notice");
    case LogRecord::StateChange:
        return QStringLiteral("trace");
    case LogRecord::Statement:
        return QStringLiteral("statement");
    default:
        return QStringLiteral("level%1").arg(level);
    }
}

/// A text may hold line breaks, as statements do; a record is one line.
QString onOneLine(const QString &text)
{
    return text.simplified();
}

void insert(QJsonObject *object, const char *name, const QString &text)
{
    if (!text.isEmpty())
        object->insert(QLatin1String(name), text);
}

} // namespace

QByteArray LogRecord::asText() const
{
    QString text = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    text += QLatin1Char(' ') + levelWord(level);
    if (!connection.isEmpty())
        text += QStringLiteral(" [%1]").arg(connection);
    if (!file.isEmpty())
        text += QStringLiteral(" %1:%2").arg(file, QString::number(line));
    if (!source.isEmpty() && level >= StateChange)
        text += QLatin1Char(' ') + source;
    if (!operation.isEmpty())
        text += QLatin1Char(' ') + operation;
    text += QLatin1String(": ") + onOneLine(this->text);
    if (!statement.isEmpty())
        text += QStringLiteral(" (%1)").arg(onOneLine(statement));
    return text.toUtf8();
}

QByteArray LogRecord::asJson() const
{
    QJsonObject object;
    insert(&object, "time", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    insert(&object, "level", levelWord(level));
    insert(&object, "connection", connection);
    insert(&object, "file", file);
    if (line > 0)
        object.insert(QLatin1String("line"), line);
    insert(&object, "operation", operation);
    insert(&object, "source", source);
    insert(&object, "text", text);
    insert(&object, "statement", statement);
    if (!backtrace.isEmpty())
        object.insert(QLatin1String("backtrace"), QJsonArray::fromStringList(backtrace));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}
