#include "terminal.h"

#include <cstdio>

void Terminal::write(Stream stream, const QString &text)
{
    std::FILE *file = stream == Stream::Output ? stdout : stderr;
    const QByteArray bytes = text.toUtf8();
    if (m_sharer)
        m_sharer->hide();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), file);
    std::fflush(file); // so that the two streams keep their common order
    if (m_sharer)
        m_sharer->show();
}

void Terminal::writeLine(Stream stream, const QString &text)
{
    write(stream, text + QLatin1Char('\n'));
}
