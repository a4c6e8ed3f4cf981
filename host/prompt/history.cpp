#include "history.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

#include <cstdio>

#include <readline/history.h>

namespace
{

const int MaxEntries = 1000;
const int MaxEntrySize = 100000; ///< characters; nobody looks for more than that by arrow keys

/// Stands for a line break in the file, where an entry is a line. No keyboard has it.
const char LineBreakInFile = '\x1f';

QByteArray entryBytes(const HIST_ENTRY *entry)
{
    QByteArray bytes(entry->line);
    bytes.replace('\n', LineBreakInFile);
    return bytes + '\n';
}

void addBytes(QByteArray line)
{
    line.replace(LineBreakInFile, '\n');
    if (!line.isEmpty())
        add_history(line.constData());
}

} // namespace

History::History()
{
    using_history();
    stifle_history(MaxEntries);
    QFile old(file());
    if (!old.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> lines = old.readAll().split('\n');
    for (const QByteArray &line : lines)
        addBytes(line);
}

History::~History()
{
    save();
    clear_history();
}

void History::save() const
{
    HIST_ENTRY **const entries = history_list();
    // No history is no reason to fail.
    if (entries && QDir().mkpath(QFileInfo(file()).path())) {
        QSaveFile made(file());
        if (made.open(QIODevice::WriteOnly)) {
            made.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
            for (int i = 0; entries[i]; ++i)
                made.write(entryBytes(entries[i]));
            made.commit();
        }
    }
}

void History::add(const QString &entry)
{
    QString text = entry;
    while (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    if (!text.trimmed().isEmpty() && text.size() <= MaxEntrySize && !holdsPassword(text))
        add_history(text.toUtf8().constData());
}

bool History::holdsPassword(const QString &text)
{
    // A word for a password that is followed, at whatever distance, by something that gives it a
    // value; the words with which SQL introduces one; a user with a password in an address.
    static const QRegularExpression held(
        QStringLiteral("(passw(or)?d|passwort|passphrase|\\bpwd\\b|secret|пароль).*[=:'\"(,]"
                       "|\\bidentified\\b"
                       "|//[^/\\s'\"@]*:[^/\\s'\"]*@"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    return held.match(text).hasMatch();
}

QString History::file()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return folder + QStringLiteral("/vext/vext-run-history");
}
