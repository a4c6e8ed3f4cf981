#include "sql_secrets.h"

#include <QRegularExpression>

QString SqlSecrets::maskedConnection(const QString &text)
{
    // Quoted values may hold the separator, and their own quote escaped.
    static const QRegularExpression secret(
        QStringLiteral(R"((password|passwd|pwd)(\s*=\s*))"
                       R"((?:'(?:\\.|''|[^'\\])*'|"(?:""|[^"])*"|\{(?:\}\}|[^}])*\}|[^;])*)"),
        QRegularExpression::CaseInsensitiveOption);
    return QString(text).replace(secret, QStringLiteral("\\1\\2****"));
}

QString SqlSecrets::maskedStatement(const QString &sql)
{
    if (!sql.contains(QLatin1String("passw"), Qt::CaseInsensitive) &&
        !sql.contains(QLatin1String("identified"), Qt::CaseInsensitive) &&
        !sql.contains(QLatin1String("pwd"), Qt::CaseInsensitive))
        return sql;
    // A string without its end, as in an error text that quotes one line, is masked to its end.
    static const QRegularExpression secret(
        QStringLiteral(R"(\b((?:password|identified\s+(?:with\s+\S+\s+)?(?:by|using|as)))"
                       R"((?:\s+password)?\s*(?:=\s*)?(?:password\s*)?\(?\s*))"
                       R"((?:[a-z]?'(?:\\.|''|[^'\\])*(?:'|$)|"(?:\\.|""|[^"\\])*(?:"|$)|)"
                       R"(\$(\w*)\$.*?(?:\$\2\$|$)))"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression setting(
        QStringLiteral(R"(\b((?:passwd|pwd|password)\s*=\s*)[^;'"\s]+)"),
        QRegularExpression::CaseInsensitiveOption);
    return QString(sql)
        .replace(secret, QStringLiteral("\\1'****'"))
        .replace(setting, QStringLiteral("\\1****"));
}
