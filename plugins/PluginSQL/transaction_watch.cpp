#include "transaction_watch.h"

void TransactionWatch::begun()
{
    m_open = true;
    m_lost = false;
}

void TransactionWatch::ended()
{
    m_open = false;
    m_lost = false;
}

void TransactionWatch::executed(StatementRules::TransactionStep step)
{
    using Step = StatementRules::TransactionStep;
    switch (step) {
    case Step::None:
        return;
    case Step::Begin:
        begun();
        return;
    case Step::Commit:
    case Step::Rollback:
        ended();
        return;
    case Step::AutocommitOff:
        m_autocommitOff = true;
        m_lost = false;
        return;
    case Step::AutocommitOn:
        m_autocommitOff = false;
        ended();
        return;
    }
}

void TransactionWatch::sessionLost()
{
    m_lost = true;
    m_open = false;
    m_autocommitOff = false;
}

void TransactionWatch::sessionClosed()
{
    if (isOpen())
        sessionLost();
}
