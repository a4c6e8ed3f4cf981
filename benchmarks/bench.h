/// @file
/// The rows of the benchmarks: what is compared with what, and how much it may be at most.
#pragma once

#include "comparison.h"
#include "peers.h"
#include "verdict.h"

#include <QTextStream>

/// Measures rows and collects their figures.
class Bench
{
public:
    Bench(int rounds, QString only, bool verbose)
        : m_rounds(rounds)
        , m_only(std::move(only))
        , m_verbose(verbose)
    {
    }

    /// The standard rows of the table, on one database.
    void standard(const Target &target);
    void growth(const Target &target);
    /// What a user might pick instead, beside the plugin.
    void peers(const Target &target, const Peers &peers);
    void addNote(const QString &text) { m_verdict.addNote(text); }
    /// Prints the table. @return what the process ends with
    int print();

private:
    void readRows(const Target &target);
    void readOnOneCore(const Target &target);
    void smallStatements(const Target &target);
    void inserts(const Target &target);
    void insertRows(const Target &target);
    /// Timestamps against doubles, with and without TZ.
    void timestamps(const Target &target);
    /// The layer of drivers against the stock ones and the C interfaces.
    void layer(const Target &target);
    bool measure(Comparison &comparison);
    void add(const QString &measure, double value, double limit = 0,
             const QString &unit = QStringLiteral("x"))
    {
        m_verdict.add(measure, value, limit, unit);
    }
    /// One workload at several sizes, ascending; `limit` is for how much dearer a further unit is
    /// between the two largest than between the two before them.
    void series(const Target &target, const QString &name, const QVector<int> &sizes,
                Workload (*workloadOf)(int size), double limit);

    int m_rounds;
    QString m_only;
    bool m_verbose;
    Verdict m_verdict;
    QTextStream m_progress{stderr};
};
