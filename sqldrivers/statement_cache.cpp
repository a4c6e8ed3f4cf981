#include "statement_cache.h"

std::unique_ptr<BoundStatement> StatementCache::take(const QString &text)
{
    const auto found = m_byText.find(text);
    if (found == m_byText.end())
        return nullptr;
    std::unique_ptr<BoundStatement> statement = std::move((*found)->statement);
    m_order.erase(*found);
    m_byText.erase(found);
    return statement;
}

void StatementCache::give(const QString &text, std::unique_ptr<BoundStatement> statement)
{
    // Two results had the same text prepared; the one that comes back later is kept.
    take(text);
    m_order.push_front({text, std::move(statement)});
    m_byText.insert(text, m_order.begin());
    if (size() > m_capacity) {
        m_byText.remove(m_order.back().text);
        m_order.pop_back();
    }
}

void StatementCache::clear()
{
    m_byText.clear();
    m_order.clear();
}
