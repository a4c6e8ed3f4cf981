#include "verdict.h"

#include <algorithm>

namespace
{

constexpr int MeasureWidth = -82;
constexpr int ValueWidth = 12;

QString row(const QString &measure, const QString &value, const QString &limit)
{
    return QStringLiteral("%1 %2 %3")
        .arg(measure, MeasureWidth)
        .arg(value, ValueWidth)
        .arg(limit, ValueWidth);
}

QString described(const Figure &figure)
{
    const QString limit =
        figure.limit > 0 ? QString::number(figure.limit) + figure.unit : QString();
    return row(figure.measure, QString::number(figure.value, 'f', 2) + figure.unit, limit) +
           (figure.isOver() ? QStringLiteral("  over") : QString());
}

} // namespace

void Verdict::add(const QString &measure, double value, double limit, const QString &unit)
{
    m_figures.append({measure, value, limit, unit});
}

Verdict::ExitCode Verdict::exitCode() const
{
    if (m_isIncomplete || m_figures.isEmpty())
        return Incomplete;
    const bool missed = std::any_of(m_figures.cbegin(), m_figures.cend(),
                                    [](const Figure &figure) { return figure.isOver(); });
    return missed ? Missed : Good;
}

QString Verdict::text() const
{
    QString text =
        row(QStringLiteral("measure"), QStringLiteral("value"), QStringLiteral("at most")) +
        QLatin1Char('\n');
    int missed = 0;
    for (const Figure &figure : m_figures) {
        text += described(figure) + QLatin1Char('\n');
        missed += figure.isOver();
    }
    for (const QString &note : m_notes)
        text += note + QLatin1Char('\n');
    if (missed > 0)
        text += QStringLiteral("%1 measures over their limit\n").arg(missed);
    if (m_figures.isEmpty())
        text += QStringLiteral("nothing was measured\n");
    else if (m_isIncomplete)
        text += QStringLiteral("a workload failed\n");
    else if (missed == 0)
        text += QStringLiteral("every measure within its limit\n");
    return text;
}

QVector<double> costsOfAFurtherUnit(const QVector<int> &sizes, const QVector<double> &costs)
{
    QVector<double> result;
    for (int i = 1; i < std::min(sizes.size(), costs.size()); ++i)
        result << (costs.at(i) - costs.at(i - 1)) / (sizes.at(i) - sizes.at(i - 1));
    return result;
}
