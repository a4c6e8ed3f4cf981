// .tables, .views and .schema

#include "catalog.h"
#include "dot_commands.h"
#include "prompt_session.h"
#include "result_reader.h"
#include "table_printer.h"

#include <QRegularExpression>

namespace
{

const int Tables = 1;
const int Views = 4;

/// By way of the driver, for systems whose catalog is unknown.
void listByDriver(PromptSession *session, int type, const QString &pattern)
{
    const QScriptValue names = session->connection().tables(type);
    if (!ResultReader::isResult(names)) {
        session->complain(QStringLiteral("error: ") + session->connection().lastError());
        return;
    }
    const QRegularExpression wanted(QRegularExpression::wildcardToRegularExpression(
                                        pattern.isEmpty() ? QStringLiteral("*") : pattern),
                                    QRegularExpression::CaseInsensitiveOption);
    const ResultReader reader(names);
    for (int row = 0; row < reader.rowCount(); ++row) {
        if (wanted.match(reader.text(0, row)).hasMatch())
            session->say(reader.text(0, row));
    }
}

void list(PromptSession *session, int type, const QString &pattern)
{
    const SqlConnection open = session->connection();
    const QString sql = Catalog(open.driver()).tables(type == Views, pattern);
    if (open.isOpen() && sql.isEmpty())
        listByDriver(session, type, pattern);
    else
        session->runSql(sql);
}

/// Names and types as the driver tells them.
void describeByDriver(PromptSession *session, const QString &table)
{
    session->runSql(Catalog::emptyResult(table), [session](const SqlOutcome &outcome) {
        const ResultReader reader(outcome.result);
        const QScriptValue types = outcome.result.property(QStringLiteral("fields_typeN"));
        TableColumn names{QStringLiteral("column"), {}, false};
        TableColumn kinds{QStringLiteral("type"), {}, false};
        for (int i = 0; i < reader.columnCount(); ++i) {
            names.cells.append({reader.columnName(i), false});
            kinds.cells.append({types.property(static_cast<quint32>(i)).toString(), false});
        }
        session->output()->showText(TablePrinter::print({names, kinds}));
    });
}

/// Tries one statement after the other, until one knows the table.
void describeByGuess(PromptSession *session, const QString &table, QStringList guesses)
{
    if (guesses.isEmpty()) {
        describeByDriver(session, table);
        return;
    }
    const QString sql = guesses.takeFirst();
    const auto next = [session, table, guesses](const SqlOutcome &) {
        describeByGuess(session, table, guesses);
    };
    const auto show = [session, next](const SqlOutcome &outcome) {
        if (ResultReader(outcome.result).rowCount() == 0)
            next(outcome);
        else
            session->output()->show(outcome.result, outcome.milliseconds);
    };
    session->runSql(sql, show, next);
}

} // namespace

void DotCommands::showTables(PromptSession *session, const QString &arguments)
{
    list(session, Tables, arguments);
}

void DotCommands::showViews(PromptSession *session, const QString &arguments)
{
    list(session, Views, arguments);
}

void DotCommands::showSchema(PromptSession *session, const QString &arguments)
{
    if (arguments.isEmpty()) {
        session->complain(QStringLiteral(".schema needs the name of a table; .tables lists them"));
        return;
    }
    const SqlConnection open = session->connection();
    const QString sql = Catalog(open.driver()).columns(arguments);
    if (open.isOpen() && sql.isEmpty()) {
        describeByGuess(session, arguments, Catalog::guesses(arguments));
        return;
    }
    session->runSql(sql, [session, arguments](const SqlOutcome &outcome) {
        if (ResultReader(outcome.result).rowCount() == 0)
            session->complain(QStringLiteral("no table %1").arg(arguments));
        else
            session->output()->show(outcome.result, outcome.milliseconds);
    });
}
