/// @file
/// The functions of MariaDB's client library that the stock driver does not call for us.
#pragma once

#include <QByteArray>
#include <QString>

struct st_mysql;     ///< the client library's own connection
struct st_mysql_res; ///< and its result

/// What a connection needs to be opened, in the client library's terms. Empty stands for none.
struct MariaDbAddress {
    QByteArray host;
    QByteArray user;
    QByteArray password;
    QByteArray socket;
    QByteArray key;
    QByteArray certificate;
    QByteArray authority;
    QByteArray authorityPath;
    QByteArray cipher;
    unsigned int port = 0;
    bool encrypts = false;
};

/// The copy of the client library that the stock driver has loaded. Immutable once resolved; any
/// thread, though not two for one connection at a time.
class MariaDbClient
{
public:
    /// @return whether all functions were found
    bool resolve();

    unsigned int errorNumber(st_mysql *connection) const { return m_errorNumber(connection); }
    QString errorText(st_mysql *connection) const;
    QString state(st_mysql *connection) const;
    int socket(st_mysql *connection) const { return m_socket(connection); }
    unsigned long session(st_mysql *connection) const { return m_session(connection); }
    bool isInTransaction(st_mysql *connection) const;
    /// What the server has last said of the modes that change what a string is. After a procedure
    /// or a trigger with modes of its own it may be wrong.
    unsigned int quotingStatus(st_mysql *connection) const;

    bool setCharacterSet(st_mysql *connection, const char *name) const;
    /// Runs a statement without rows. @return whether that succeeded
    bool run(st_mysql *connection, const QByteArray &statement) const;
    /// Asks for the one value that a statement answers with. @return whether that succeeded
    bool ask(st_mysql *connection, const QByteArray &statement, QByteArray *value) const;

    /// Opens a connection of one's own; close() ends it. Blocks, for some seconds at most while the
    /// server is out of reach. @return null on failure
    st_mysql *open(const MariaDbAddress &address) const { return open(address, nullptr); }
    /// Whether a server answers there, were it with a refusal. Blocks like open().
    bool reaches(const MariaDbAddress &address) const;
    void close(st_mysql *connection) const { m_close(connection); }

private:
    unsigned int status(st_mysql *connection) const;
    st_mysql *open(const MariaDbAddress &address, unsigned int *error) const;

    unsigned int (*m_errorNumber)(st_mysql *) = nullptr;
    const char *(*m_errorText)(st_mysql *) = nullptr;
    const char *(*m_state)(st_mysql *) = nullptr;
    int (*m_socket)(st_mysql *) = nullptr;
    unsigned long (*m_session)(st_mysql *) = nullptr;
    int (*m_setCharacterSet)(st_mysql *, const char *) = nullptr;
    int (*m_query)(st_mysql *, const char *, unsigned long) = nullptr;
    st_mysql_res *(*m_storeResult)(st_mysql *) = nullptr;
    char **(*m_fetchRow)(st_mysql_res *) = nullptr;
    void (*m_freeResult)(st_mysql_res *) = nullptr;
    st_mysql *(*m_make)(st_mysql *) = nullptr;
    int (*m_setOption)(st_mysql *, int, const void *) = nullptr;
    char (*m_setEncryption)(st_mysql *, const char *, const char *, const char *, const char *,
                            const char *) = nullptr;
    st_mysql *(*m_connect)(st_mysql *, const char *, const char *, const char *, const char *,
                           unsigned int, const char *, unsigned long) = nullptr;
    void (*m_close)(st_mysql *) = nullptr;
    int (*m_getInfo)(st_mysql *, int, void *, ...) = nullptr; ///< null with MySQL's library
};
