#include "terminal.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace
{

const char ClearToEnd[] = "\x1b[K";

} // namespace

void Terminal::write(Stream stream, const QString &text)
{
    if (m_sharer)
        m_sharer->hide();
    endProgress();
    put(stream, text.toUtf8());
    if (m_sharer)
        m_sharer->show();
}

void Terminal::writeProgress(const QString &text)
{
    if (!::isatty(STDOUT_FILENO))
        return;
    m_hasProgress = false; // this line takes the place of the one before
    write(Stream::Output, text + QLatin1String(ClearToEnd));
    m_hasProgress = !text.endsWith(QLatin1Char('\n'));
}

void Terminal::endProgress()
{
    if (!m_hasProgress)
        return;
    m_hasProgress = false;
    put(Stream::Output, QByteArrayLiteral("\n"));
}

void Terminal::put(Stream stream, const QByteArray &bytes)
{
    std::FILE *file = stream == Stream::Output ? stdout : stderr;
    if (stream == Stream::Output && m_failed)
        return;
    const size_t size = static_cast<size_t>(bytes.size());
    const bool written = std::fwrite(bytes.constData(), 1, size, file) == size;
    // Flushed, so that the two streams keep their common order.
    if (std::fflush(file) == 0 && written)
        return;
    const int error = errno;
    if (stream == Stream::Error || m_failed)
        return;
    m_failed = true;
    if (m_onFailure)
        m_onFailure(error);
}

void Terminal::writeLine(Stream stream, const QString &text)
{
    write(stream, text + QLatin1Char('\n'));
}
