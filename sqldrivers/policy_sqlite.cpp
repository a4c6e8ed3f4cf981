#include "policy_sqlite.h"

#include "leading_word.h"
#include "word_table.h"

#include <QCoreApplication>
#include <QSqlRecord>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <thread>

namespace
{

// SQLite's own result codes.
constexpr int PrimaryMask = 0xff;
constexpr int CodeSchema = 17;
constexpr int CodeNotADatabase = 26;

/// As Qt's driver has it when the options do not say.
constexpr int DefaultBusyTimeoutMs = 5000;
/// How often a lock is tried again, and a cancel noticed meanwhile.
constexpr int LockPauseMs = 2;
/// Steps of SQLite's machine between two looks at whether to end: some ten microseconds.
constexpr int StepsBetweenLooks = 1000;
/// Longer texts are rarely the same twice.
constexpr int LongestKept = 20000;

QString tr(const char *text)
{
    return QCoreApplication::translate("SqlitePolicy", text);
}

int primaryCode(const QSqlError &error)
{
    return error.nativeErrorCode().toInt() & PrimaryMask;
}

bool endsTransaction(const QString &verb)
{
    return verb == QLatin1String("COMMIT") || verb == QLatin1String("END");
}

} // namespace

// --- Opening and closing ---

void SqlitePolicy::opened(const OpenParameters &parameters)
{
    m_busyTimeoutMs = DefaultBusyTimeoutMs;
    const QStringList all = parameters.options.split(QLatin1Char(';'));
    for (const QString &option : all) {
        if (option.section(QLatin1Char('='), 0, 0).trimmed() !=
            QLatin1String("QSQLITE_BUSY_TIMEOUT"))
            continue;
        bool isNumber = false;
        const int ms = option.section(QLatin1Char('='), 1).trimmed().toInt(&isNumber);
        if (isNumber)
            m_busyTimeoutMs = ms;
    }
}

bool SqlitePolicy::attach(const LayerOptions &, const std::shared_ptr<CancelGate> &gate,
                          QSqlError *error)
{
    m_library = ClientLibrary({"libsqlite3.so.0", "libsqlite3.so"});
    void (*onProgressOf)(sqlite3 *, int, int (*)(void *), void *) = nullptr;
    auto *db = nativeHandle<sqlite3 *>();
    if (!db || !m_library.resolve("sqlite3_interrupt", m_interrupt) ||
        !m_library.resolve("sqlite3_get_autocommit", m_getAutocommit) ||
        !m_library.resolve("sqlite3_exec", m_execute) ||
        !m_library.resolve("sqlite3_progress_handler", onProgressOf) ||
        !m_library.resolve("sqlite3_busy_timeout", m_setBusyTimeout) ||
        !m_library.resolve("sqlite3_busy_handler", m_setBusyHandler)) {
        *error =
            QSqlError(tr("SQLite's library was not found"), QString(), QSqlError::ConnectionError);
        return false;
    }
    m_db = db;
    m_gate = gate;
    m_wasInTransaction = false;
    m_rolledBack = false;
    onProgressOf(m_db, StepsBetweenLooks, &SqlitePolicy::onProgress, this);
    // SQLite's own time-out sleeps without looking up, so this takes its place.
    m_setBusyHandler(m_db, &SqlitePolicy::onBusy, this);
    m_isWaitLent = false;
    return true;
}

void SqlitePolicy::detach()
{
    m_db = nullptr;
    m_gate.reset();
}

// --- Cancelling ---

int SqlitePolicy::onProgress(void *policy)
{
    return static_cast<SqlitePolicy *>(policy)->m_gate->currentIsCancelled() ? 1 : 0;
}

int SqlitePolicy::onBusy(void *policy, int attempt)
{
    return static_cast<SqlitePolicy *>(policy)->waitForLock(attempt) ? 1 : 0;
}

/// @return whether to try again
bool SqlitePolicy::waitForLock(int attempt)
{
    using Clock = std::chrono::steady_clock;
    if (attempt == 0)
        m_lockDeadline = Clock::now() + std::chrono::milliseconds(m_busyTimeoutMs);
    if (Clock::now() >= m_lockDeadline || m_gate->currentIsCancelled())
        return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(LockPauseMs));
    return !m_gate->currentIsCancelled();
}

/// "PRAGMA busy_timeout" reads and sets SQLite's own time, and takes the handler away.
void SqlitePolicy::lendWait()
{
    m_setBusyTimeout(m_db, m_busyTimeoutMs);
    m_isWaitLent = true;
}

void SqlitePolicy::takeWaitBack()
{
    const auto read = [](void *ms, int, char **values, char **) {
        *static_cast<int *>(ms) = QByteArray(values[0]).toInt();
        return 0;
    };
    m_execute(m_db, "PRAGMA busy_timeout", read, &m_busyTimeoutMs, nullptr);
    m_setBusyHandler(m_db, &SqlitePolicy::onBusy, this);
    m_isWaitLent = false;
}

/// The handlers above do the work. What SQLite does without calling them (checks, checkpoints) it
/// ends for an interrupt, which is only safe while no other statement is half read: SQLite would
/// end the next one, too.
void SqlitePolicy::interrupt(CancelGate::Phase phase, bool alone)
{
    if (phase == CancelGate::Phase::Running && alone)
        m_interrupt(m_db);
}

// --- Statements ---

std::unique_ptr<BoundStatement> SqlitePolicy::makeStatement(StatementPlan plan)
{
    if (plan.verb() == QLatin1String("PRAGMA") &&
        plan.withMarks().contains(QLatin1String("busy_timeout"), Qt::CaseInsensitive))
        lendWait();
    return std::make_unique<DriverStatement>(std::move(plan), stock()->createResult());
}

bool SqlitePolicy::preparesPlainText(const QString &text) const
{
    return text.size() <= LongestKept;
}

bool SqlitePolicy::mayKeep(const StatementPlan &plan) const
{
    // Qt's driver (5.15) crashes when a "SELECT *" is run again after a column was added.
    if (plan.namesAllColumns())
        return false;
    static constexpr std::string_view verbs[] = {"SELECT",  "INSERT", "UPDATE", "DELETE",
                                                 "REPLACE", "WITH",   "VALUES"};
    return isAmong(plan.verb(), verbs);
}

bool SqlitePolicy::isStale(const QSqlError &error) const
{
    return primaryCode(error) == CodeSchema;
}

// --- Transactions ---

void SqlitePolicy::finished(const QString &text, bool good)
{
    if (m_isWaitLent)
        takeWaitBack();
    // An interrupted change, a full disk and their like end the whole transaction, and the next
    // change would be committed by itself. A failed COMMIT is over for the script, too.
    if (!good && m_wasInTransaction && !inTransaction() && !text.isEmpty() &&
        !endsTransaction(leadingWord(text)))
        m_rolledBack = true;
    m_wasInTransaction = inTransaction();
}

QSqlError SqlitePolicy::refusal(const QString &text)
{
    if (!m_rolledBack)
        return QSqlError();
    const QString verb = leadingWord(text);
    if (endsTransaction(verb)) {
        m_rolledBack = false;
    } else if (verb == QLatin1String("ROLLBACK")) {
        pretendTransaction();
        return QSqlError();
    }
    return transactionGone(QSqlError::StatementError);
}

QSqlError SqlitePolicy::refusal(Command command)
{
    if (!m_rolledBack)
        return QSqlError();
    if (command == Command::Rollback) {
        pretendTransaction();
        return QSqlError();
    }
    if (command == Command::Commit)
        m_rolledBack = false;
    return transactionGone(QSqlError::TransactionError);
}

/// The script's rollback of what SQLite has rolled back already is to succeed.
void SqlitePolicy::pretendTransaction()
{
    m_execute(m_db, "BEGIN", nullptr, nullptr, nullptr);
    m_rolledBack = false;
}

// --- Values ---

/// A column's type says nothing of its values.
QVector<ColumnRule> SqlitePolicy::columnRules(const QSqlRecord &columns, const LayerOptions &layer)
{
    if (!layer.exactNumbers)
        return {};
    return QVector<ColumnRule>(columns.count(), {ColumnRule::ExactInteger, 0});
}

// --- Errors ---

/// Qt's driver (5.15) calls everything a lost connection that fails while a statement runs.
QSqlError SqlitePolicy::classified(const QSqlError &error, Step step)
{
    QSqlError::ErrorType type = error.type();
    if (step == Step::Open || primaryCode(error) == CodeNotADatabase)
        type = QSqlError::ConnectionError;
    else if (type == QSqlError::ConnectionError || step != Step::Transaction)
        type = QSqlError::StatementError;
    return QSqlError(error.driverText(), error.databaseText(), type, error.nativeErrorCode());
}
