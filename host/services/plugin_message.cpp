#include "plugin_message.h"

namespace
{

QString levelWord(int level)
{
    switch (level) {
    case -1:
        return QStringLiteral(" error");
    case 0:
        return QStringLiteral(" notice");
    case 1:
        return QStringLiteral(" trace");
    case 2:
        return QStringLiteral(" statement");
    default:
        return QString();
    }
}

} // namespace

PluginMessage PluginMessage::from(const char *source, int line, const char *operation,
                                  const QString &text, int level)
{
    PluginMessage message;
    message.source = QString::fromUtf8(source);
    message.line = line;
    message.operation = QString::fromUtf8(operation);
    message.text = text;
    message.level = level;
    return message;
}

QString PluginMessage::formatted() const
{
    // One call of arg() for all of them: a text may hold "%1" itself.
    return QStringLiteral("[%1%2] %3:%4 %5: %6")
        .arg(QString::number(level), levelWord(level), source, QString::number(line), operation,
             text);
}
