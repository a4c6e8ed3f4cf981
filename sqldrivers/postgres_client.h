/// @file
/// What the layer asks of libpq.
#pragma once

#include "client_library.h"

#include <QByteArray>

struct pg_conn;
struct pg_cancel;
struct pg_result;

/// One of the settings that a connection was made with, as libpq lists them.
struct PostgresSetting {
    char *name;
    char *environment;
    char *builtIn;
    char *value;
    char *label;
    char *display;
    int displaySize;
};

/// libpq's functions, in the copy that the stock driver uses. Their names are libpq's own; the
/// numbers of its enumerations are part of its binary interface.
struct PostgresClient {
    enum TransactionStatus { Idle, Active, InTransaction, InFailedTransaction, Unknown };
    enum ServerState { Accepts, Rejects, NoResponse, NotAsked };

    /// @return false when one of them is missing
    bool resolve();

    int (*socket)(const pg_conn *) = nullptr;
    int (*status)(const pg_conn *) = nullptr; ///< 0 is good
    int (*transactionStatus)(const pg_conn *) = nullptr;
    const char *(*parameterStatus)(const pg_conn *, const char *) = nullptr;
    pg_cancel *(*getCancel)(pg_conn *) = nullptr;
    void (*freeCancel)(pg_cancel *) = nullptr;
    int (*cancel)(pg_cancel *, char *, int) = nullptr;
    pg_result *(*exec)(pg_conn *, const char *) = nullptr;
    int (*resultStatus)(const pg_result *) = nullptr;
    void (*clear)(pg_result *) = nullptr;
    int (*rowCount)(const pg_result *) = nullptr;
    int (*columnCount)(const pg_result *) = nullptr;
    unsigned (*columnType)(const pg_result *, int) = nullptr;
    char *(*value)(const pg_result *, int, int) = nullptr;
    PostgresSetting *(*settings)(pg_conn *) = nullptr; ///< the last one has no name
    void (*freeSettings)(PostgresSetting *) = nullptr;
    int (*ping)(const char *const *, const char *const *, int) = nullptr; ///< see ServerState

    /// Runs a command whose outcome is no more than good or not.
    bool run(pg_conn *connection, const QByteArray &text) const;
    /// The first value of what a query answers; empty when there is none.
    QByteArray firstValue(pg_conn *connection, const QByteArray &text) const;

private:
    ClientLibrary m_library;
};
