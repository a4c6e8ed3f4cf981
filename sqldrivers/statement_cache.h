/// @file
/// Statements kept for their next use.
#pragma once

#include "bound_statement.h"

#include <QHash>
#include <QString>

#include <list>
#include <memory>

/// The prepared statements of one connection that nobody uses at the moment, by their text. A
/// statement is taken out for use and given back when it has worked, so no two results ever share
/// one. When there are too many, the one that was used longest ago goes. The connection's thread.
class StatementCache
{
public:
    explicit StatementCache(int capacity = DefaultCapacity)
        : m_capacity(capacity)
    {
    }

    /// The kept statement of this text, now the caller's; null when there is none.
    std::unique_ptr<BoundStatement> take(const QString &text);
    /// Keeps a statement that has worked and is released. On a lost line, where none works any
    /// more, also one that has not: it is freed with the session.
    void give(const QString &text, std::unique_ptr<BoundStatement> statement);
    void clear();
    int size() const { return int(m_order.size()); }

private:
    static constexpr int DefaultCapacity = 128;

    struct Entry {
        QString text;
        std::unique_ptr<BoundStatement> statement;
    };
    using Order = std::list<Entry>; ///< the one that was given last is the first

    int m_capacity;
    Order m_order;
    QHash<QString, Order::iterator> m_byText;
};
