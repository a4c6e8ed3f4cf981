/// @file
/// What a run of the benchmarks found: the table that is printed, and whether it is good enough.
#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

/// One measured figure.
struct Figure {
    QString measure;
    double value;
    double limit; ///< 0: nothing to reach, just told
    QString unit;

    /// Whether the limit is missed; what is not a number misses every limit.
    bool isOver() const { return limit > 0 && !(value <= limit); }
};

/// Collects the figures of a run. Any thread, one at a time.
class Verdict
{
public:
    enum ExitCode {
        Good = 0,      ///< every figure is within its limit
        Missed = 1,    ///< at least one is not
        Incomplete = 2 ///< a workload failed, or nothing was measured
    };

    void add(const QString &measure, double value, double limit = 0,
             const QString &unit = QStringLiteral("x"));
    /// A line that is printed below the figures.
    void addNote(const QString &text) { m_notes << text; }
    /// A workload could not be measured: no verdict can be good.
    void setIncomplete() { m_isIncomplete = true; }

    ExitCode exitCode() const;
    /// The figures, one a line, and the verdict in words.
    QString text() const;

private:
    QVector<Figure> m_figures;
    QStringList m_notes;
    bool m_isIncomplete = false;
};

/// What a further unit costs between each size and the next one, in the unit of `costs`. What every
/// run pays once, for starting up, is in none of them. Both lists are of the same length, the sizes
/// ascending.
QVector<double> costsOfAFurtherUnit(const QVector<int> &sizes, const QVector<double> &costs);
