#include "odbc_transaction.h"

#include "leading_word.h"
#include "word_table.h"

#include <algorithm>
#include <utility>

namespace
{

/// Whether another statement may stand behind the first one: rather too often than too seldom.
bool mayHoldSeveral(const QString &text)
{
    const int mark = text.indexOf(QLatin1Char(';'));
    return mark >= 0 && !text.midRef(mark + 1).trimmed().isEmpty();
}

} // namespace

OdbcTransaction::Effect OdbcTransaction::effectOf(SqlDialect dialect, const QString &text)
{
    static constexpr std::string_view ends[] = {"COMMIT", "END", "ABORT", "ROLLBACK", "PREPARE"};
    const QString verb = leadingWord(text);
    if (verb == QLatin1String("BEGIN") || verb == QLatin1String("START"))
        return Effect::Begins;
    if (!isAmong(verb, ends))
        return Effect::None;
    const QVector<SqlToken> tokens = SqlScanner::scan(dialect, text);
    const auto holds = [&](const char *word) {
        return std::any_of(tokens.cbegin(), tokens.cend(), [&](const SqlToken &token) {
            return SqlScanner::isWord(token, text, QLatin1String(word));
        });
    };
    if (verb == QLatin1String("PREPARE"))
        return holds("TRANSACTION") && !holds("AS") ? Effect::Ends : Effect::None;
    if (holds("TO") || holds("PREPARED")) // to a savepoint; one that was prepared earlier
        return Effect::None;
    return holds("CHAIN") && !holds("NO") ? Effect::Begins : Effect::Ends;
}

void OdbcTransaction::start(SqlDialect dialect, bool isWatched)
{
    *this = OdbcTransaction();
    m_dialect = dialect;
    m_isWatched = isWatched;
}

void OdbcTransaction::commandRan(Policy::Command command, bool good)
{
    m_hasFailed = false;
    if (command == Policy::Command::Begin)
        m_isDriven = m_isDriven || good;
    else if (good)
        m_isDriven = false;
    // SQLite's ODBC driver does not begin again behind a first statement that ends its transaction.
    m_hasWork = m_isDriven && m_dialect == SqlDialect::OdbcSqlite;
}

void OdbcTransaction::statementRan(const QString &text, bool good)
{
    m_question = Question::None;
    if (!m_isWatched)
        return;
    if (!good) {
        if (m_hasWork || (m_isDriven && m_dialect == SqlDialect::OdbcPostgreSql))
            m_question = Question::Failure;
        return;
    }
    m_hasFailed = false;
    const Effect effect = effectOf(m_dialect, text);
    if (m_isDriven)
        m_hasWork = effect != Effect::Ends;
    else if (effect != Effect::None)
        m_hasWork = effect == Effect::Begins;
    // A later statement of the same text may have begun or ended another one.
    if (!m_isDriven && m_dialect == SqlDialect::OdbcPostgreSql && mayHoldSeveral(text))
        m_question = Question::SeveralStatements;
}

void OdbcTransaction::answered(Answer answer)
{
    const Question question = std::exchange(m_question, Question::None);
    if (question == Question::SeveralStatements) {
        m_hasWork = answer != Answer::Gone;
        return;
    }
    m_hasFailed = answer == Answer::Failed;
    if (answer == Answer::Open || answer == Answer::Failed || !m_hasWork)
        return;
    // Without an answer nothing may go on as if the transaction were there.
    m_hasWork = false;
    m_isGone = true;
}
