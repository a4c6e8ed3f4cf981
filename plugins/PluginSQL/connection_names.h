/// @file
/// The names under which this library registers connections with Qt.
#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>

/// A name that is kept from every other connection of this library; free again with this object.
/// Any thread.
class ClaimedName
{
public:
    ClaimedName() = default;
    ClaimedName(ClaimedName &&other) noexcept;
    ClaimedName &operator=(ClaimedName &&other) noexcept;
    ~ClaimedName();
    Q_DISABLE_COPY(ClaimedName)

    /// Empty when no name is claimed.
    const QString &text() const { return m_text; }

private:
    friend class ConnectionNames;
    explicit ClaimedName(const QString &text)
        : m_text(text)
    {
    }

    QString m_text;
};

/// Gives names out, so that no two connections of the process ever share one. Any thread.
class ConnectionNames
{
public:
    /// The name of a connection object that a script calls `base`: one that Qt does not know.
    /// @param number of the object, from which on a name is looked for that is free.
    static QString ofObject(const QString &driverName, const QString &base, int number);

    /// Takes a name for a main connection: `wanted` unless it is empty or in use, else another.
    /// @param number as for ofObject().
    static ClaimedName claimMain(const QString &wanted, const QString &driverName, int number);

    /// Takes a name for a thread connection: `wanted`, unless this library uses it. What anybody
    /// else has left behind under the name does not count.
    static ClaimedName claimThread(const QString &wanted, int number);

private:
    friend class ClaimedName;

    static bool takeMain(const QString &name);
    static void giveBack(const QString &name);

    static QMutex s_mutex;
    static QStringList s_used; ///< s_mutex
};
