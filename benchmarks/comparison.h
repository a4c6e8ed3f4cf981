/// @file
/// Runs the ways of a workload side by side, each in a process of its own, and compares them.
#pragma once

#include "workloads.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

/// The ways to do a workload: "floor", "floor thread", "floor bulk", "query", "thread", "script",
/// "sync", "async". In front of them stand, in any order: "layer " for the layer of drivers; "bound
/// " for values that are bound, each time in a fresh query; "timestamps " and "doubles " for a Read
/// of one such column; "zoned " and "zoneless " for a process with and without the variable TZ.
Measurement runWay(const QString &way, const Target &target, const Workload &workload);

/// One workload on one database, measured in several ways.
class Comparison
{
public:
    /// @param pinned every way runs on one core, the same for all, as the target's server does
    Comparison(QString title, Target target, Workload workload, QStringList ways, bool pinned);

    /// Adds a way that another program goes: it prints the line that `--way` prints.
    void addProgram(const QString &way, const QStringList &command);

    /// Runs every way once in a process of its own, in turn. @return false when one failed.
    bool runRound();

    QString title() const { return m_title; }
    QStringList ways() const { return m_ways; }
    /// Median over the rounds of a way's figure.
    double ms(const QString &way) const;
    double gapMs(const QString &way) const;
    double peakMb(const QString &way) const;
    double grownMb(const QString &way) const;
    /// Median of the ratios of each round: what disturbs the machine disturbs both sides.
    double ratio(const QString &way, const QString &base) const;
    /// What a way takes more than its own part, against what a base takes more than its part; of
    /// the quickest runs, since differences of large times are small. Not a number where chance was
    /// larger.
    double ratioOfRest(const QString &way, const QString &part, const QString &base,
                       const QString &basePart) const;

    /// The median times of all ways, for who tunes.
    QString times() const;

private:
    bool runWays();
    double leastMs(const QString &way) const;
    QStringList commandOf(const QString &way) const;
    double median(const QString &way, double (*figure)(const Measurement &)) const;

    QString m_title;
    Target m_target;
    Workload m_workload;
    QStringList m_ways;
    bool m_pinned;
    QMap<QString, QStringList> m_programs;
    QMap<QString, QVector<Measurement>> m_runs;
};

/// Command line of the process that runs one way, and back.
QStringList wayArguments(const QString &way, const Target &target, const Workload &workload,
                         bool pinned);
int runFromArguments(const QStringList &arguments);
