/// @file
/// The functions of Firebird's client library that the stock driver does not call for us.
#pragma once

#include <QByteArray>

#include <cstdint>

/// The copy of the client library that the stock driver has loaded. Immutable once resolved; any
/// thread.
class FirebirdClient
{
public:
    using Handle = unsigned int; ///< of a connection

    enum CancelOption : unsigned short {
        Disable = 1,
        Enable = 2,
        Raise = 3, ///< what runs on the connection ends at its next look
        Abort = 4, ///< the line to the server is cut, and whoever waits for it gets an error
    };

    void resolve();
    bool canCancel() const { return m_cancel != nullptr; }

    /// Asks nothing of the server, so it returns at once.
    void cancel(Handle connection, CancelOption option) const;
    /// Whether the connection is still there: asks the server, or the engine in this process.
    bool answers(Handle connection) const;
    /// Whether a server answers a new connection, if only by refusing it. Blocks for
    /// three seconds while it is silent, and some minutes at most where the network swallows all.
    /// @param address what stands before a database's name, "host/port:"
    bool reaches(const QByteArray &address) const;

private:
    using Status = std::intptr_t;
    using CancelOperation = Status(Status *, Handle *, unsigned short);
    using DatabaseInfo = Status(Status *, Handle *, short, const char *, short, char *);
    using Attach = Status(Status *, short, const char *, Handle *, short, const char *);
    using Detach = Status(Status *, Handle *);

    CancelOperation *m_cancel = nullptr;
    DatabaseInfo *m_info = nullptr;
    Attach *m_attach = nullptr;
    Detach *m_detach = nullptr;
};
