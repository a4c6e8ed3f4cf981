#include "json_rows.h"

#include "result_reader.h"

#include <QSet>

#include <cmath>

JsonRows::JsonRows(const ResultReader *reader, bool asArray)
    : RowWriter(reader)
    , m_asArray(asArray)
{
    QSet<QString> taken;
    for (int i = 0; i < reader->columnCount(); ++i) {
        const QString name = reader->columnName(i);
        QString key = name;
        for (int number = 2; taken.contains(key); ++number)
            key = QStringLiteral("%1_%2").arg(name, QString::number(number));
        taken.insert(key);
        m_keys.append(quoted(key));
    }
}

QString JsonRows::head()
{
    return m_asArray ? QStringLiteral("[") : QString();
}

void JsonRows::addRow(int row, QString *text)
{
    if (m_asArray)
        *text += m_isFirst ? QStringLiteral("\n") : QStringLiteral(",\n");
    m_isFirst = false;
    *text += QLatin1Char('{');
    for (int i = 0; i < m_keys.size(); ++i) {
        if (i > 0)
            *text += QLatin1Char(',');
        *text += m_keys.at(i) + QLatin1Char(':') + value(i, row);
    }
    *text += QLatin1Char('}');
    if (!m_asArray)
        *text += QLatin1Char('\n');
}

QString JsonRows::tail()
{
    if (!m_asArray)
        return QString();
    return m_isFirst ? QStringLiteral("]\n") : QStringLiteral("\n]\n");
}

QString JsonRows::value(int column, int row) const
{
    if (m_reader->isNull(column, row))
        return QStringLiteral("null");
    const QScriptValue value = m_reader->value(column, row);
    if (value.isBool())
        return value.toString();
    if (value.isNumber())
        return std::isfinite(value.toNumber()) ? value.toString() : QStringLiteral("null");
    return quoted(m_reader->text(column, row));
}

QString JsonRows::quoted(const QString &text)
{
    QString result;
    result.reserve(text.size() + 2);
    result += QLatin1Char('"');
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        const bool isPaired =
            (c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) ||
            (c.isLowSurrogate() && i > 0 && text.at(i - 1).isHighSurrogate());
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            result += QLatin1Char('\\') + QString(c);
        else if (c == QLatin1Char('\n'))
            result += QLatin1String("\\n");
        else if (c == QLatin1Char('\r'))
            result += QLatin1String("\\r");
        else if (c == QLatin1Char('\t'))
            result += QLatin1String("\\t");
        else if (c.unicode() < 0x20 || (c.isSurrogate() && !isPaired))
            result += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result + QLatin1Char('"');
}
