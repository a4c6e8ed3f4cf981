// .open, .close and .drivers

#include "connection_source.h"
#include "dot_commands.h"
#include "open_connection.h"
#include "password_question.h"
#include "prompt_session.h"
#include "script_host.h"

#include <QScriptEngine>
#include <QVariant>

namespace
{

/// Whether a server wants a password and got none, by what the client libraries say.
bool wantsPassword(const QString &error)
{
    return error.contains(QLatin1String("no password supplied")) ||
           error.contains(QLatin1String("using password: NO"));
}

/// @param error what is to be said when the connection is not open
SqlConnection openOnce(PromptSession *session, const ConnectionAddress &address, QString *error)
{
    QScriptEngine *engine = session->host()->engine();
    QString reason;
    const SqlConnection opened = session->openInterruptibly(
        [&] { return SqlConnection(OpenConnection::open(engine, address, &reason)); });
    if (!opened.exists())
        *error = session->isOpeningGivenUp() ? QStringLiteral("%1 is given up").arg(address.shown())
                                             : QStringLiteral("cannot open %1").arg(reason);
    return opened;
}

SqlConnection openWithPassword(PromptSession *session, ConnectionAddress *address, QString *error)
{
    const SqlConnection opened = openOnce(session, *address, error);
    if (opened.exists() || session->isOpeningGivenUp() || !wantsPassword(*error))
        return opened;
    if (!PasswordQuestion::ask(QStringLiteral("Password: "), &address->password))
        return SqlConnection();
    return openOnce(session, *address, error);
}

} // namespace

void DotCommands::openConnection(PromptSession *session, const QString &arguments)
{
    if (arguments.isEmpty()) {
        const SqlConnection open = session->connection();
        session->say(open.isOpen() ? open.shown() : QStringLiteral("no connection is open"));
        return;
    }
    ConnectionAddress address;
    QString error;
    if (!ConnectionSource::read(arguments, &address, &error)) {
        session->complain(error);
        return;
    }
    const SqlConnection before = session->connection();
    const SqlConnection opened = openWithPassword(session, &address, &error);
    if (!opened.exists()) {
        session->complain(error);
        return;
    }
    before.close();
    opened.keepSession();
    session->connectionChanged();
    session->say(QStringLiteral("opened %1").arg(address.shown()));
}

void DotCommands::closeConnection(PromptSession *session, const QString &)
{
    const SqlConnection open = session->connection();
    if (!open.isOpen()) {
        session->complain(QStringLiteral("no connection is open"));
        return;
    }
    open.close();
    session->connectionChanged();
    session->say(QStringLiteral("closed"));
}

void DotCommands::showDrivers(PromptSession *session, const QString &)
{
    // Every connection object knows them; one that is not opened costs nothing.
    QScriptEngine *engine = session->host()->engine();
    QScriptValue constructor = engine->globalObject().property(QStringLiteral("VEXT_SQL"));
    QObject *object =
        constructor.construct(QScriptValueList() << QScriptValue(QStringLiteral("drivers")))
            .toQObject();
    if (!object) {
        session->complain(QStringLiteral("the plugin tells no drivers"));
        return;
    }
    const QStringList drivers = object->property("drivers").toStringList();
    object->deleteLater();
    session->say(drivers.join(QLatin1Char('\n')));
}
