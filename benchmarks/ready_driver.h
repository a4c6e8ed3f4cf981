/// @file
/// A database whose values lie ready, so that what is measured over it is not the driver.
#pragma once

#include "workloads.h"

#include <QSqlDriver>
#include <QVariantList>

/// Answers every statement with one column of values that were made when it was opened: those that
/// its database's name tells, "timestamps" or "doubles". A statement's last word is the number of
/// rows.
class ReadyDriver : public QSqlDriver
{
    Q_OBJECT
public:
    /// Most rows of a statement.
    static constexpr int Rows = 200000;

    /// Makes the driver known to Qt, and a target of it. @param values "timestamps" or "doubles"
    static Target target(const QString &values);

    const QVariantList &values() const { return m_values; }

    bool hasFeature(DriverFeature feature) const override;
    bool open(const QString &database, const QString &user, const QString &password,
              const QString &host, int port, const QString &options) override;
    void close() override;
    QSqlResult *createResult() const override;

private:
    QVariantList m_values;
};
