#include "sql_secrets.h"

#include <QRegularExpression>

namespace
{

/// What stands for a text that cannot be looked through.
constexpr QLatin1String Hidden("****");

/// `text` with `shown` for each match, behind what its first group holds. A match that ends in an
/// error, as one that needs more memory than it may take, hides what is left: QString::replace()
/// would show it.
QString replaced(const QString &text, const QRegularExpression &secret, QLatin1String shown)
{
    QString result;
    int done = 0;
    for (;;) {
        const QRegularExpressionMatch match = secret.match(text, done);
        if (!match.isValid())
            return result + Hidden;
        if (!match.hasMatch())
            return done == 0 ? text : result + text.midRef(done);
        result += text.midRef(done, match.capturedStart() - done);
        result += match.capturedRef(1);
        result += shown;
        done = match.capturedEnd();
    }
}

} // namespace

QString SqlSecrets::maskedConnection(const QString &text)
{
    // Quoted values may hold the separator, and their own quote escaped. One without its end goes
    // to that of the text.
    static const QRegularExpression secret(
        QStringLiteral(R"(((?:password|passwd|pwd)\s*=\s*))"
                       R"((?:'(?:\\.?|''|[^'\\]++)*+(?:'|$)|"(?:""|[^"]++)*+(?:"|$)|)"
                       R"(\{(?:\}\}|[^}]++)*+(?:\}|$)|[^;])*+)"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    return replaced(text, secret, Hidden);
}

QString SqlSecrets::maskedStatement(const QString &sql)
{
    if (!sql.contains(QLatin1String("passw"), Qt::CaseInsensitive) &&
        !sql.contains(QLatin1String("identified"), Qt::CaseInsensitive) &&
        !sql.contains(QLatin1String("pwd"), Qt::CaseInsensitive))
        return sql;
    // A string without its end, as in an error text that quotes one line, is masked to its end.
    static const QRegularExpression secret(
        QStringLiteral(R"(\b((?:password|identified\s++(?:with\s++\S++\s++)?(?:by|using|as)))"
                       R"((?:\s++password)?\s*+(?:=\s*+)?(?:password\s*+)?\(?\s*+))"
                       R"((?:[a-z]?'(?:\\.?|''|[^'\\]++)*+(?:'|$)|)"
                       R"("(?:\\.?|""|[^"\\]++)*+(?:"|$)|\$(\w*)\$.*?(?:\$\2\$|$)))"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression setting(
        QStringLiteral(R"(\b((?:passwd|pwd|password)\s*=\s*)[^;'"\s]+)"),
        QRegularExpression::CaseInsensitiveOption);
    return replaced(replaced(sql, secret, QLatin1String("'****'")), setting, Hidden);
}
