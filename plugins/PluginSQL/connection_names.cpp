#include "connection_names.h"

#include <QMutexLocker>
#include <QSqlDatabase>

#include <utility>

namespace
{

QString singleUnderscores(QString name)
{
    return name.replace(QLatin1String("__"), QLatin1String("_"));
}

/// The first of the names counted from `number` on that is free.
template <typename MakeName, typename IsFree>
QString firstFree(int number, MakeName makeName, IsFree isFree)
{
    for (;; ++number) {
        const QString name = makeName(QString::number(number));
        if (isFree(name))
            return name;
    }
}

} // namespace

ClaimedName::ClaimedName(ClaimedName &&other) noexcept
    : m_text(std::exchange(other.m_text, QString()))
{
}

ClaimedName &ClaimedName::operator=(ClaimedName &&other) noexcept
{
    std::swap(m_text, other.m_text);
    return *this;
}

ClaimedName::~ClaimedName()
{
    if (!m_text.isEmpty())
        ConnectionNames::giveBack(m_text);
}

QString ConnectionNames::ofObject(const QString &driverName, const QString &base, int number)
{
    const QString wanted = singleUnderscores(QStringLiteral("%1_%2").arg(driverName, base));
    if (!QSqlDatabase::contains(wanted))
        return wanted;
    return firstFree(
        number,
        [&](const QString &n) {
            return singleUnderscores(QStringLiteral("%1_%2_%3").arg(driverName, n, base));
        },
        [](const QString &name) { return !QSqlDatabase::contains(name); });
}

ClaimedName ConnectionNames::claimMain(const QString &wanted, const QString &driverName, int number)
{
    if (!wanted.isEmpty() && takeMain(wanted))
        return ClaimedName(wanted);
    return ClaimedName(firstFree(
        number,
        [&](const QString &n) { return QStringLiteral("con_%1_sql_%2").arg(driverName, n); },
        &ConnectionNames::takeMain));
}

ClaimedName ConnectionNames::claimThread(const QString &wanted, int number)
{
    QMutexLocker locker(&s_mutex);
    const auto isFree = [](const QString &name) { return !s_used.contains(name); };
    const QString name =
        isFree(wanted)
            ? wanted
            : firstFree(
                  number, [&](const QString &n) { return wanted + QLatin1Char('_') + n; }, isFree);
    s_used.append(name);
    return ClaimedName(name);
}

/// @return false when the process uses the name already.
bool ConnectionNames::takeMain(const QString &name)
{
    QMutexLocker locker(&s_mutex);
    if (s_used.contains(name) || QSqlDatabase::contains(name))
        return false;
    s_used.append(name);
    return true;
}

void ConnectionNames::giveBack(const QString &name)
{
    QMutexLocker locker(&s_mutex);
    s_used.removeOne(name);
}
