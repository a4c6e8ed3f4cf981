#include "plugin_message.h"

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
