/// @file
/// The functions of ODBC's driver manager that the stock driver does not call for us.
#pragma once

#include <QByteArray>
#include <QString>

/// The copy of the driver manager that the stock driver has loaded. Immutable; any thread.
class OdbcClient
{
public:
    using Handle = void *;

    OdbcClient();
    bool isComplete() const { return m_isComplete; }

    /// Name of the system behind a connection ("PostgreSQL"), as its ODBC driver tells it.
    QString systemName(Handle connection) const;
    /// A number among the settings of a source: those written behind its name ("name;Timeout=5"),
    /// or those of the system's configuration; `otherwise` where it is in neither.
    int sourceSetting(const QString &source, const QString &setting, int otherwise) const;

    /// State of the last call on a statement or connection ("42P01"); empty when it has none or
    /// only a general one.
    QString statementState(Handle statement) const;
    QString connectionState(Handle connection) const;
    /// Whether the ODBC driver has noticed that the connection is gone. Sends nothing.
    bool isDead(Handle connection) const;

    /// A statement's handle of its own, null on failure; freeStatement() before the connection
    /// ends.
    Handle makeStatement(Handle connection) const;
    void freeStatement(Handle statement) const;
    /// SQLCancel. Any thread.
    void cancel(Handle statement) const;

    /// Opens a connection, runs one statement there and closes it; blocks. Any thread.
    void runElsewhere(const QByteArray &connectionText, const QByteArray &statement) const;

private:
    using Return = short;
    QString stateOf(short kind, Handle handle) const;

    bool m_isComplete = false;
    Return (*m_allocate)(short, Handle, Handle *) = nullptr;
    Return (*m_free)(short, Handle) = nullptr;
    Return (*m_cancel)(Handle) = nullptr;
    Return (*m_diagnostics)(short, Handle, short, unsigned char *, int *, unsigned char *, short,
                            short *) = nullptr;
    Return (*m_info)(Handle, unsigned short, void *, short, short *) = nullptr;
    Return (*m_attribute)(Handle, int, void *, int, int *) = nullptr;
    Return (*m_setEnvironment)(Handle, int, void *, int) = nullptr;
    Return (*m_setConnection)(Handle, int, void *, int) = nullptr;
    Return (*m_connect)(Handle, void *, unsigned char *, short, unsigned char *, short, short *,
                        unsigned short) = nullptr;
    Return (*m_execute)(Handle, unsigned char *, int) = nullptr;
    Return (*m_disconnect)(Handle) = nullptr;
};
