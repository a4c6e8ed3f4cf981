#include "sql_text.h"

#include "sql_driver_kind.h"

#include <QStringList>

namespace
{

constexpr ushort LastLatin1 = 0xff;

/// The keyword a plain statement must begin with, given its first character; empty for none.
QLatin1String keywordFor(QChar first)
{
    // Characters that fold to a Latin letter from beyond Latin-1 (the long s) must not match.
    if (first.unicode() > LastLatin1)
        return QLatin1String();
    switch (first.toLower().unicode()) {
    case 'd':
        return QLatin1String("DELETE");
    case 'i':
        return QLatin1String("INSERT");
    case 's':
        return QLatin1String("SELECT");
    case 'u':
        return QLatin1String("UPDATE");
    case 'v':
        return QLatin1String("VALUES");
    default:
        return QLatin1String();
    }
}

QString namedPlaceholders(int count)
{
    if (count <= 0)
        return QString();
    QStringList names;
    names.reserve(count);
    for (int i = 0; i < count; ++i)
        names.append(QStringLiteral(":a%1").arg(i));
    return QLatin1Char('(') + names.join(QLatin1Char(',')) + QLatin1Char(')');
}

QString positionalPlaceholders(int count)
{
    if (count == 0)
        return QString();
    QString marks;
    marks.reserve(2 * qMax(count, 0) + 2);
    marks += QLatin1Char('(');
    for (int i = 0; i < count; ++i) {
        if (i > 0)
            marks += QLatin1Char(',');
        marks += QLatin1Char('?');
    }
    return marks + QLatin1Char(')');
}

} // namespace

bool SqlText::isPlainStatement(const QString &text, FirstCharacter first)
{
    const QString trimmed = text.trimmed();
    const QString &source = first == FirstCharacter::AsGiven ? text : trimmed;
    if (source.isEmpty())
        return false;
    const QLatin1String keyword = keywordFor(source.at(0));
    return !keyword.isEmpty() && trimmed.startsWith(keyword, Qt::CaseInsensitive);
}

QString SqlText::execStatement(const QString &text, int count, int driverType)
{
    QLatin1String prefix("SELECT");
    if (driverType != SqlDriverKind::PostgreSql)
        prefix = QLatin1String("EXECUTE PROCEDURE");
    else if (isPlainStatement(text, FirstCharacter::AsGiven))
        prefix = QLatin1String("");
    return prefix + QLatin1Char(' ') + text + namedPlaceholders(count);
}

QString SqlText::procedureStatement(const QString &text, int count, int dbmsType)
{
    QLatin1String prefix("SELECT ");
    if (dbmsType != SqlDriverKind::PostgreSql)
        prefix = QLatin1String("EXECUTE PROCEDURE ");
    else if (isPlainStatement(text, FirstCharacter::Trimmed))
        prefix = QLatin1String("");
    return prefix + text + positionalPlaceholders(count);
}

SqlText::TransactionWord SqlText::transactionWord(const QString &statement)
{
    if (statement.startsWith(QLatin1String("commit"), Qt::CaseInsensitive))
        return TransactionWord::Commit;
    if (statement.startsWith(QLatin1String("rollback"), Qt::CaseInsensitive))
        return TransactionWord::Rollback;
    return TransactionWord::None;
}

bool SqlText::asksForTiming(const QString &statement)
{
    return statement.endsWith(QLatin1String("--"), Qt::CaseSensitive);
}

QString type2str(QSqlError::ErrorType type)
{
    switch (type) {
    case QSqlError::NoError:
        return QStringLiteral("NoError");
    case QSqlError::ConnectionError:
        return QStringLiteral("ConnectionError");
    case QSqlError::StatementError:
        return QStringLiteral("StatementError");
    case QSqlError::TransactionError:
        return QStringLiteral("TransactionError");
    case QSqlError::UnknownError:
        break;
    }
    return QStringLiteral("UnknownError");
}
