#include "ready_driver.h"

#include <QDateTime>
#include <QSqlDatabase>
#include <QSqlField>
#include <QSqlRecord>
#include <QSqlResult>

#include <algorithm>

namespace
{

constexpr qint64 SecondsBetween = 61 * 60; ///< as in the table of the real database

QString key()
{
    return QStringLiteral("VEXT_BENCH_READY");
}

/// Reads from the values of its driver.
class ReadyResult : public QSqlResult
{
public:
    explicit ReadyResult(const ReadyDriver *driver)
        : QSqlResult(driver)
        , m_values(driver->values())
    {
    }

protected:
    bool reset(const QString &sql) override
    {
        m_rows = std::min(sql.section(QLatin1Char(' '), -1).toInt(), m_values.size());
        setAt(QSql::BeforeFirstRow);
        setSelect(true);
        setActive(true);
        return true;
    }
    bool fetch(int row) override
    {
        if (row < 0 || row >= m_rows)
            return false;
        setAt(row);
        return true;
    }
    bool fetchFirst() override { return fetch(0); }
    bool fetchLast() override { return fetch(m_rows - 1); }
    QVariant data(int) override { return m_values.at(at()); }
    bool isNull(int) override { return false; }
    int size() override { return m_rows; }
    int numRowsAffected() override { return -1; }
    QSqlRecord record() const override
    {
        QSqlRecord record;
        record.append(QSqlField(QStringLiteral("value"), m_values.constFirst().type()));
        return record;
    }

private:
    const QVariantList m_values;
    int m_rows = 0;
};

} // namespace

Target ReadyDriver::target(const QString &values)
{
    QSqlDatabase::registerSqlDriver(key(), new QSqlDriverCreator<ReadyDriver>);
    Target target;
    target.driver = key();
    target.database = values;
    return target;
}

bool ReadyDriver::hasFeature(DriverFeature feature) const
{
    return feature == QuerySize || feature == Unicode;
}

bool ReadyDriver::open(const QString &database, const QString &, const QString &, const QString &,
                       int, const QString &)
{
    const QDate first(1995, 1, 1);
    m_values.reserve(Rows);
    for (int i = 0; i < Rows; ++i) {
        if (database == QLatin1String("doubles")) {
            m_values.append(i * 0.25);
            continue;
        }
        const qint64 seconds = i * SecondsBetween;
        constexpr qint64 Day = 24 * 60 * 60;
        m_values.append(QDateTime(first.addDays(seconds / Day),
                                  QTime::fromMSecsSinceStartOfDay(int(seconds % Day) * 1000)));
    }
    setOpen(true);
    return true;
}

void ReadyDriver::close()
{
    m_values.clear();
    setOpen(false);
}

QSqlResult *ReadyDriver::createResult() const
{
    return new ReadyResult(this);
}
