#include "line_reader.h"

#include "text_decoding.h"

#include <QFile>

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace
{

const int ChunkSize = 65536;
const int MaxLine = 1 << 30; ///< in bytes; texts take twice as much

void waitForInput(int descriptor)
{
    struct pollfd wanted = {descriptor, POLLIN, 0};
    ::poll(&wanted, 1, -1);
}

} // namespace

LineReader::LineReader(int descriptor)
    : m_descriptor(descriptor)
{
}

LineReader::Outcome LineReader::next(QString *text)
{
    QByteArray line;
    while (!takeLine(&line)) {
        if (m_atEnd)
            return Outcome::End;
        if (m_bytes.size() - m_begin > MaxLine) {
            *text = QStringLiteral("line %1 is longer than a gigabyte").arg(m_number + 1);
            return Outcome::Failed;
        }
        if (!fill(text))
            return Outcome::Failed;
    }
    ++m_number;
    QString reason;
    if (TextDecoding::decode(line, text, &reason))
        return Outcome::Line;
    *text = QStringLiteral("line %1: %2").arg(QString::number(m_number), reason);
    return Outcome::Failed;
}

bool LineReader::takeLine(QByteArray *line)
{
    int end = m_bytes.indexOf('\n', m_searched);
    if (end < 0) {
        m_searched = m_bytes.size();
        if (!m_atEnd || m_begin == m_bytes.size())
            return false;
        end = m_bytes.size(); // the last line has no line break
    }
    const bool hasReturn = end > m_begin && m_bytes.at(end - 1) == '\r';
    *line = m_bytes.mid(m_begin, end - m_begin - (hasReturn ? 1 : 0));
    m_begin = qMin(end + 1, m_bytes.size());
    m_searched = m_begin;
    return true;
}

bool LineReader::fill(QString *error)
{
    if (m_begin > 0) {
        m_bytes.remove(0, m_begin);
        m_searched -= m_begin;
        m_begin = 0;
    }
    char chunk[ChunkSize];
    ssize_t count = -1;
    do {
        count = ::read(m_descriptor, chunk, sizeof chunk);
        if (count < 0 && errno == EAGAIN)
            waitForInput(m_descriptor);
    } while (count < 0 && (errno == EINTR || errno == EAGAIN));
    if (count < 0) {
        *error = qt_error_string(errno);
        return false;
    }
    m_bytes.append(chunk, static_cast<int>(count));
    m_atEnd = count == 0;
    return true;
}

bool LineReader::readRest(QByteArray *bytes, QString *error)
{
    while (!m_atEnd) {
        if (!fill(error))
            return false;
        if (m_bytes.size() > MaxLine) {
            *error = QStringLiteral("it is larger than a gigabyte; read it line by line");
            return false;
        }
    }
    *bytes = m_bytes.mid(m_begin);
    m_bytes.clear();
    m_begin = 0;
    m_searched = 0;
    return true;
}
