#include "languages.h"

#include <QCoreApplication>
#include <QDir>
#include <QTranslator>

namespace
{

/// The language that the plugin's sources are written in.
const char SourceLanguage[] = "ru";

/// In a build tree as well as installed.
QString folder()
{
    const QDir program(QCoreApplication::applicationDirPath());
    return QDir::cleanPath(program.absoluteFilePath(QStringLiteral("../share/vext/translations")));
}

} // namespace

QString Languages::ofUser()
{
    for (const char *name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const QByteArray value = qgetenv(name);
        if (!value.isEmpty())
            return QLatin1String(value.startsWith("ru") ? "ru" : "en");
    }
    return QStringLiteral("en");
}

void Languages::use(const QString &language)
{
    if (language == QLatin1String(SourceLanguage))
        return;
    QTranslator *translator = new QTranslator(QCoreApplication::instance());
    if (translator->load(QStringLiteral("vext_%1").arg(language), folder()))
        QCoreApplication::installTranslator(translator);
    else
        delete translator;
}
