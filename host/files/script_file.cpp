#include "script_file.h"

#include "file_access.h"

namespace
{

/// The number of the first line over the limit, 0 for none.
int longLine(const QByteArray &bytes)
{
    int begin = 0;
    for (int line = 1; bytes.size() - begin > ScriptFile::maxLineSize; ++line) {
        const int end = bytes.indexOf('\n', begin);
        if (end < 0 || end - begin > ScriptFile::maxLineSize)
            return line;
        begin = end + 1;
    }
    return 0;
}

} // namespace

bool ScriptFile::read(const QString &path, QString *code, QString *error)
{
    QByteArray bytes;
    if (!FileAccess::read(path, &bytes, error))
        return false;
    return decode(bytes, code, error);
}

QString ScriptFile::lineTooLong()
{
    return QStringLiteral("the line is longer than %1 bytes, too long for a script; readFile() and "
                          "readLines() read data")
        .arg(maxLineSize);
}

bool ScriptFile::decode(const QByteArray &bytes, QString *code, QString *error)
{
    const int zero = bytes.indexOf('\0');
    if (zero >= 0) {
        *error = QStringLiteral("it is not text: byte %1 is zero").arg(zero);
        return false;
    }
    const int line = longLine(bytes);
    if (line > 0) {
        *error = QStringLiteral("line %1: %2").arg(QString::number(line), lineTooLong());
        return false;
    }
    *code = QString::fromUtf8(bytes);
    if (code->startsWith(QChar(QChar::ByteOrderMark)))
        code->remove(0, 1);
    if (code->startsWith(QLatin1String("#!")))
        code->prepend(QLatin1String("//"));
    return true;
}
