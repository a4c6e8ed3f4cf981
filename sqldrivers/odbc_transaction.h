/// @file
/// Whether the transaction that a script believes in is still there.
#pragma once

#include "policy.h"
#include "sql_scanner.h"

#include <QString>

/// ODBC drivers give a transaction up by themselves: PostgreSQL's behind a text that the server
/// cannot parse, SQLite's where a failed statement takes the transaction with it. They say nothing,
/// and the next change would be committed by itself. So the database is asked after each statement
/// that fails in a transaction, and never otherwise.
///
/// Pure bookkeeping; the connection's thread.
class OdbcTransaction
{
public:
    /// Forgets everything. @param isWatched whether the database can be asked
    void start(SqlDialect dialect, bool isWatched);

    /// A command of the driver was run.
    void commandRan(Policy::Command command, bool good);
    /// A statement was run.
    void statementRan(const QString &text, bool good);

    /// Whether the database has to be asked, behind the last statement, if a transaction is open
    /// that began before the question.
    bool mustAsk() const { return m_question != Question::None; }
    /// Failed: it is open, and the server refuses all that would go on in it. Unknown: no answer.
    enum class Answer { Open, Failed, Gone, Unknown };
    void answered(Answer answer);

    /// Whether the transaction is gone and the script has not ended it yet.
    bool isGone() const { return m_isGone; }
    /// The script ends what is gone.
    void end() { m_isGone = false; }
    /// Whether the server would roll the transaction back when it is told to commit it.
    bool hasFailed() const { return m_hasFailed; }
    /// Whether a transaction of the driver's commands is under way, in which the ODBC driver begins
    /// one with each statement that finds none.
    bool isDriven() const { return m_isDriven; }

    /// Whether the script would miss something if the connection were lost.
    bool isOpen() const { return m_isDriven || m_hasWork; }

    /// What a text does to the transaction around it.
    enum class Effect { None, Begins, Ends };
    static Effect effectOf(SqlDialect dialect, const QString &text);

private:
    /// What the database is to be asked behind.
    enum class Question { None, Failure, SeveralStatements };

    SqlDialect m_dialect = SqlDialect::Odbc;
    bool m_isWatched = false;
    Question m_question = Question::None;
    bool m_isDriven = false;
    bool m_hasWork = false; ///< there is a transaction that would be missed
    bool m_isGone = false;
    bool m_hasFailed = false; ///< and no statement has worked since
};
