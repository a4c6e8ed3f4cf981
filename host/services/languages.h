/// @file
/// The language of the plugin's messages.
#pragma once

#include <QString>

/// The plugin's own texts are Russian; a translation makes them English. Which one a program shows
/// is its host's business: this one follows its user.
///
/// Thread: the application's.
namespace Languages
{

/// "ru" for a user whose environment asks for Russian, "en" for everybody else. Looks at LANGUAGE,
/// LC_ALL, LC_MESSAGES and LANG, in this order; call it before any of them is changed.
QString ofUser();

/// Installs the translation into the application. Without an application, or where the translation
/// is not installed, texts stay as they are in the plugin.
void use(const QString &language);

} // namespace Languages
