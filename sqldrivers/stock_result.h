/// @file
/// A stock driver's result with its protected functions within reach.
#pragma once

#include <QSqlDriver>
#include <QSqlError>
#include <QSqlRecord>
#include <QSqlResult>
#include <QVariant>
#include <QVector>

#include <memory>

/// Owns one result of a stock driver and calls its protected functions through member pointers of
/// a derived class, which costs half of what a QSqlQuery around it would. The connection's thread.
/// As any QSqlResult it may outlive its driver's connection, and then only fails.
class StockResult
{
    struct Door : public QSqlResult {
        static constexpr QSqlResultPrivate *QSqlResult::*privateData() { return &Door::d_ptr; }
        using QSqlResult::at;
        using QSqlResult::boundValues;
        using QSqlResult::data;
        using QSqlResult::detachFromResultSet;
        using QSqlResult::exec;
        using QSqlResult::fetch;
        using QSqlResult::fetchFirst;
        using QSqlResult::fetchLast;
        using QSqlResult::fetchNext;
        using QSqlResult::fetchPrevious;
        using QSqlResult::isActive;
        using QSqlResult::isForwardOnly;
        using QSqlResult::isNull;
        using QSqlResult::isSelect;
        using QSqlResult::lastError;
        using QSqlResult::lastInsertId;
        using QSqlResult::nextResult;
        using QSqlResult::numRowsAffected;
        using QSqlResult::prepare;
        using QSqlResult::record;
        using QSqlResult::reset;
        using QSqlResult::setActive;
        using QSqlResult::setAt;
        using QSqlResult::setForwardOnly;
        using QSqlResult::setLastError;
        using QSqlResult::setNumericalPrecisionPolicy;
        using QSqlResult::setQuery;
        using QSqlResult::size;
    };
    using BindAt = void (QSqlResult::*)(int, const QVariant &, QSql::ParamType);
    struct BindDoor : public QSqlResult {
        static constexpr BindAt at() { return &BindDoor::bindValue; }
    };

public:
    /// @param result made by the stock driver; owned from now on
    explicit StockResult(QSqlResult *result)
        : m_result(result)
    {
    }

    QSqlResult *get() const { return m_result.get(); }
    /// Gives the result up for a new one of the stock driver.
    void replace(QSqlResult *result) { m_result.reset(result); }

    /// Brings the result into the state that a fresh one has; what QSqlQuery does before it runs
    /// the next statement.
    void renew(const QString &text)
    {
        call(&Door::setActive, false);
        call(&Door::setLastError, QSqlError());
        call(&Door::setAt, int(QSql::BeforeFirstRow));
        call(&Door::setQuery, text);
    }

    bool reset(const QString &text) { return call(&Door::reset, text); }
    bool prepare(const QString &text) { return call(&Door::prepare, text); }
    bool exec() { return call(&Door::exec); }
    void bind(int position, const QVariant &value, QSql::ParamType type)
    {
        (m_result.get()->*BindDoor::at())(position, value, type);
    }
    QVector<QVariant> &boundValues() { return call(&Door::boundValues); }

    bool fetch(int row) { return call(&Door::fetch, row); }
    bool fetchNext() { return call(&Door::fetchNext); }
    bool fetchPrevious() { return call(&Door::fetchPrevious); }
    bool fetchFirst() { return call(&Door::fetchFirst); }
    bool fetchLast() { return call(&Door::fetchLast); }
    bool nextResult() { return call(&Door::nextResult); }
    QVariant data(int column) { return call(&Door::data, column); }
    bool isNull(int column) { return call(&Door::isNull, column); }

    int at() const { return call(&Door::at); }
    bool isForwardOnly() const { return call(&Door::isForwardOnly); }
    bool isActive() const { return call(&Door::isActive); }
    bool isSelect() const { return call(&Door::isSelect); }
    QSqlError lastError() const { return call(&Door::lastError); }
    int size() { return call(&Door::size); }
    int numRowsAffected() { return call(&Door::numRowsAffected); }
    QVariant lastInsertId() const { return call(&Door::lastInsertId); }
    QSqlRecord record() const { return call(&Door::record); }
    QVariant handle() const { return m_result->handle(); }

    void setForwardOnly(bool on) { call(&Door::setForwardOnly, on); }
    void setPrecision(QSql::NumericalPrecisionPolicy policy)
    {
        call(&Door::setNumericalPrecisionPolicy, policy);
    }
    /// What Qt keeps for the result.
    QSqlResultPrivate *privateData() const { return m_result.get()->*Door::privateData(); }
    /// The result reports an error that the stock driver did not make.
    void fail(const QSqlError &error) { call(&Door::setLastError, error); }
    void detach() { call(&Door::detachFromResultSet); }

private:
    template <typename Return, typename... Parameters, typename... Arguments>
    Return call(Return (QSqlResult::*member)(Parameters...), Arguments &&...arguments) const
    {
        return (m_result.get()->*member)(std::forward<Arguments>(arguments)...);
    }
    template <typename Return, typename... Parameters, typename... Arguments>
    Return call(Return (QSqlResult::*member)(Parameters...) const, Arguments &&...arguments) const
    {
        return (m_result.get()->*member)(std::forward<Arguments>(arguments)...);
    }

    std::unique_ptr<QSqlResult> m_result;
};
