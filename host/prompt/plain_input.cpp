#include "plain_input.h"

#include "script_file.h"

#include <QSocketNotifier>

#include <cerrno>
#include <unistd.h>

PlainInput::PlainInput(int descriptor, QObject *parent)
    : StatementSource(parent)
    , m_descriptor(descriptor)
{
}

PlainInput::~PlainInput() = default;

void PlainInput::start()
{
    m_notifier.reset(new QSocketNotifier(m_descriptor, QSocketNotifier::Read));
    connect(m_notifier.data(), &QSocketNotifier::activated, this, &PlainInput::read);
}

void PlainInput::stop()
{
    m_stopped = true;
    if (m_notifier)
        m_notifier->setEnabled(false);
}

void PlainInput::read()
{
    char chunk[65536];
    const ssize_t count = ::read(m_descriptor, chunk, sizeof chunk);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count <= 0) {
        finish();
        return;
    }
    m_bytes.append(chunk, static_cast<int>(count));
    takeLines();
    if (m_bytes.size() <= ScriptFile::maxLineSize)
        return;
    ++m_line; // the one that has begun
    fail(ScriptFile::lineTooLong());
}

void PlainInput::takeLines()
{
    int begin = 0;
    for (int end = m_bytes.indexOf('\n', m_searched); end >= 0;
         end = m_bytes.indexOf('\n', begin)) {
        const QByteArray line = m_bytes.mid(begin, end - begin);
        begin = end + 1;
        takeLine(line);
    }
    m_bytes.remove(0, begin);
    m_searched = m_bytes.size();
}

void PlainInput::takeLine(const QByteArray &line)
{
    ++m_line;
    if (m_stopped)
        return;
    const int zero = line.indexOf('\0');
    if (zero >= 0)
        fail(QStringLiteral("it is not text: byte %1 is zero").arg(zero));
    else if (m_buffer.add(QString::fromUtf8(line)))
        emit statement(m_buffer.take());
}

void PlainInput::fail(const QString &reason)
{
    stop();
    m_bytes.clear();
    emit failed(m_line, reason);
}

void PlainInput::finish()
{
    m_notifier->setEnabled(false);
    if (!m_bytes.isEmpty())
        takeLine(m_bytes);
    m_bytes.clear();
    const QString rest = m_buffer.take();
    if (m_stopped)
        return;
    if (!rest.isEmpty())
        emit statement(rest);
    if (!m_stopped)
        emit finished();
}
