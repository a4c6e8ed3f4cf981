#include "page.h"

#include <QFile>
#include <QRegularExpression>

namespace
{

const QLatin1String Fence("```");

int headingLevel(const QString &line)
{
    int level = 0;
    while (level < line.size() && line.at(level) == QLatin1Char('#'))
        ++level;
    return level < line.size() && line.at(level) == QLatin1Char(' ') ? level : 0;
}

} // namespace

Page::Page(const QString &file)
    : m_file(file)
{
    QFile page(QStringLiteral(VEXT_SOURCE_DIR "/") + file);
    m_isRead = page.open(QIODevice::ReadOnly);
    m_lines = QString::fromUtf8(page.readAll()).split(QLatin1Char('\n'));
    findBlocks();
}

void Page::findBlocks()
{
    bool inside = false;
    PageBlock block;
    for (int i = 0; i < m_lines.size(); ++i) {
        const QString &line = m_lines.at(i);
        if (!line.startsWith(Fence)) {
            if (inside)
                block.text += line + QLatin1Char('\n');
        } else if (inside) {
            m_blocks.append(block);
            inside = false;
        } else {
            const QString words = line.mid(Fence.size()).trimmed();
            block = PageBlock();
            block.language = words.section(QLatin1Char(' '), 0, 0);
            block.remark = words.section(QLatin1Char(' '), 1);
            block.line = i + 2;
            inside = true;
        }
    }
}

QString Page::opening() const
{
    for (const PageBlock &block : m_blocks) {
        if (block.remark == QLatin1String("opening"))
            return block.text;
    }
    return QString();
}

QStringList Page::section(const QString &heading) const
{
    const int first = m_lines.indexOf(heading);
    if (first < 0)
        return QStringList();
    const int level = headingLevel(heading);
    int end = first + 1;
    for (; end < m_lines.size(); ++end) {
        const int other = headingLevel(m_lines.at(end));
        if (other > 0 && other <= level)
            break;
    }
    return m_lines.mid(first, end - first);
}

QStringList Page::anchors() const
{
    static const QRegularExpression dropped(QStringLiteral(R"([^\w\- ])"));
    QStringList names;
    for (const QString &line : m_lines) {
        const int level = headingLevel(line);
        if (level == 0)
            continue;
        QString name = line.mid(level + 1).toLower().remove(dropped);
        names.append(name.replace(QLatin1Char(' '), QLatin1Char('-')));
    }
    return names;
}
