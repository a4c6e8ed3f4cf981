#include "languages.h"

#include "program_files.h"

#include <QCoreApplication>
#include <QTranslator>

namespace
{

/// The language that the plugin's sources are written in.
const char SourceLanguage[] = "ru";

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
    if (translator->load(QStringLiteral("vext_%1").arg(language),
                         ProgramFiles::folder(QStringLiteral("translations"))))
        QCoreApplication::installTranslator(translator);
    else
        delete translator;
}
