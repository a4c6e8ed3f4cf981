#include "script_file.h"

#include "file_access.h"

bool ScriptFile::read(const QString &path, QString *code, QString *error)
{
    QByteArray bytes;
    if (!FileAccess::read(path, &bytes, error))
        return false;
    *code = ScriptFile::code(bytes);
    return true;
}

QString ScriptFile::code(const QByteArray &bytes)
{
    QString code = QString::fromUtf8(bytes);
    if (code.startsWith(QChar(QChar::ByteOrderMark)))
        code.remove(0, 1);
    if (code.startsWith(QLatin1String("#!")))
        code.prepend(QLatin1String("//"));
    return code;
}
