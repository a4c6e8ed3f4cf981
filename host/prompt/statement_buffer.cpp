#include "statement_buffer.h"

#include <QScriptEngine>

bool StatementBuffer::add(const QString &line)
{
    // The line break stays in: without it the check takes input that goes on for an error.
    m_text += line + QLatin1Char('\n');
    if (m_text.trimmed().isEmpty()) {
        m_text.clear();
        return false;
    }
    const QScriptSyntaxCheckResult check = QScriptEngine::checkSyntax(m_text);
    return check.state() != QScriptSyntaxCheckResult::Intermediate;
}

QString StatementBuffer::take()
{
    QString text;
    text.swap(m_text);
    text.chop(1); // the last line break: the engine would place errors after it
    return text.trimmed().isEmpty() ? QString() : text;
}
