/// @file
/// Runs the ways of a workload side by side, each in a process of its own, and compares them.
#pragma once

#include "workloads.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

/// The ways to do a workload: "floor", "query", "thread", "script", "sync", "async";
/// the same with "layer " in front goes through the layer of drivers, with "bound "
/// values are bound, each time in a fresh query.
Measurement runWay(const QString &way, const Target &target, const Workload &workload);

/// One workload on one database, measured in several ways.
class Comparison
{
public:
    Comparison(QString title, Target target, Workload workload, QStringList ways, bool pinned);

    /// Runs every way once in a process of its own, in turn. @return false when one failed.
    bool runRound();

    QString title() const { return m_title; }
    /// Median over the rounds of a way's figure.
    double ms(const QString &way) const;
    double gapMs(const QString &way) const;
    double peakMb(const QString &way) const;
    double grownMb(const QString &way) const;
    /// Median of the ratios of each round: what disturbs the machine disturbs both sides.
    double ratio(const QString &way, const QString &base) const;

    /// The median times of all ways, for who tunes.
    QString times() const;

private:
    double median(const QString &way, double (*figure)(const Measurement &)) const;

    QString m_title;
    Target m_target;
    Workload m_workload;
    QStringList m_ways;
    bool m_pinned;
    QMap<QString, QVector<Measurement>> m_runs;
};

/// Command line of the process that runs one way, and back.
QStringList wayArguments(const QString &way, const Target &target, const Workload &workload,
                         bool pinned);
int runFromArguments(const QStringList &arguments);
