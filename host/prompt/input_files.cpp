#include "input_files.h"

#include <QFileInfo>

namespace
{

const int MaxDepth = 16; ///< a file that names itself goes no deeper
const int HeadSize = 4096;

QString lineText(QByteArray line)
{
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.endsWith('\r'))
        line.chop(1);
    QString text = QString::fromUtf8(line);
    if (text.startsWith(QChar(QChar::ByteOrderMark)))
        text.remove(0, 1);
    return text;
}

} // namespace

void InputFiles::add(const QVector<PromptEntry> &entries)
{
    if (entries.isEmpty())
        return;
    const QSharedPointer<Level> level(
        new Level(PromptInput([](const QString &) { return false; })));
    level->waiting = entries;
    m_levels.append(level);
}

bool InputFiles::open(const QString &name, const PromptInput &empty, QString *error)
{
    if (m_levels.size() >= MaxDepth) {
        *error = QStringLiteral("%1: files name one another too deeply").arg(name);
        return false;
    }
    const QSharedPointer<Level> level(new Level(empty));
    level->file.reset(new QFile(name));
    if (QFileInfo(name).isDir()) {
        *error = QStringLiteral("%1: is a folder").arg(name);
        return false;
    }
    if (!level->file->open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(name, level->file->errorString());
        return false;
    }
    if (level->file->peek(HeadSize).contains('\0')) {
        *error = QStringLiteral("%1: is no text in UTF-8").arg(name);
        return false;
    }
    level->input.setSqlOnly(name.endsWith(QLatin1String(".sql"), Qt::CaseInsensitive));
    m_levels.append(level);
    return true;
}

bool InputFiles::take(PromptEntry *entry, QString *place)
{
    while (!m_levels.isEmpty()) {
        Level &level = *m_levels.last();
        if (level.waiting.isEmpty() && level.file)
            read(&level);
        if (level.waiting.isEmpty()) {
            m_levels.removeLast();
            continue;
        }
        *entry = level.waiting.takeFirst();
        *place = level.file ? QStringLiteral("%1:%2: ").arg(level.file->fileName(),
                                                            QString::number(entry->line))
                            : QString();
        return true;
    }
    return false;
}

void InputFiles::setDialect(const SqlDialect &dialect)
{
    for (const QSharedPointer<Level> &level : qAsConst(m_levels))
        level->input.setDialect(dialect);
}

/// Reads up to the next whole entry, or to the end.
void InputFiles::read(Level *level)
{
    while (level->waiting.isEmpty() && !level->file->atEnd())
        level->waiting = level->input.add(lineText(level->file->readLine()));
    if (level->waiting.isEmpty())
        level->waiting = level->input.takeRest();
}
