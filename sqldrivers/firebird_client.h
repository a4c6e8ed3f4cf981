/// @file
/// The functions of Firebird's client library that the stock driver does not call for us.
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <cstdint>

/// What a connection needs to be opened, in the client library's terms. Empty stands for none.
struct FirebirdAddress {
    QByteArray database; ///< with its server in front of it
    QByteArray user;
    QByteArray password;
};

/// The copy of the client library that the stock driver has loaded. Immutable once resolved; any
/// thread.
class FirebirdClient
{
public:
    using Handle = unsigned int; ///< of a connection; 0 is none

    enum CancelOption : unsigned short {
        Disable = 1,
        Enable = 2,
        Raise = 3, ///< what runs on the connection ends at its next look; in this process only
        Abort = 4, ///< the line to the server is cut, and whoever waits for it gets an error
    };

    void resolve();
    bool canCancel() const { return m_cancel != nullptr; }

    /// Waits for no answer, so it returns at once. Over the network only Abort comes from another
    /// thread than the one that uses the connection: there a second connection cancels.
    void cancel(Handle connection, CancelOption option) const;
    /// Whether the connection is still there: asks the server, or the engine in this process.
    bool answers(Handle connection) const;
    /// The number of a connection at its server; 0 when it cannot be had.
    qint64 number(Handle connection) const;

    /// Opens a connection of one's own; close() ends it. Blocks, for three seconds at most while
    /// the server does not answer, and some minutes where the network swallows all. @return 0 on
    /// failure
    Handle open(const FirebirdAddress &address) const;
    void close(Handle connection) const;
    /// Runs a statement without rows in a transaction of its own. @return whether that succeeded
    bool run(Handle connection, const QByteArray &statement) const;

    /// Whether a server answers a new connection, if only by refusing it. Blocks for
    /// three seconds while it is silent, and some minutes at most where the network swallows all.
    /// @param address that lets in: a server delays refusals to who has failed to log in before
    bool reaches(const FirebirdAddress &address) const;

private:
    using Status = std::intptr_t;
    using CancelOperation = Status(Status *, Handle *, unsigned short);
    using DatabaseInfo = Status(Status *, Handle *, short, const char *, short, char *);
    using Attach = Status(Status *, short, const char *, Handle *, short, const char *);
    using Detach = Status(Status *, Handle *);
    using Transaction = unsigned int;
    using Execute = Status(Status *, Handle *, Transaction *, unsigned short, const char *,
                           unsigned short, void *);
    using Commit = Status(Status *, Transaction *);

    bool ask(Handle connection, QByteArray *answer) const;
    Handle attach(const FirebirdAddress &address, Status *status) const;

    CancelOperation *m_cancel = nullptr;
    DatabaseInfo *m_info = nullptr;
    Attach *m_attach = nullptr;
    Detach *m_detach = nullptr;
    Execute *m_execute = nullptr;
    Commit *m_commit = nullptr;
};
