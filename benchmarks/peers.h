/// @file
/// Other libraries that a user might pick: which there are, and how they are run.
#pragma once

#include "comparison.h"

/// The libraries of one system that can be had on this machine. Each runs in a process of its own,
/// by a script in the folder `peers`.
class Peers
{
public:
    /// @param modules where npm has put its modules; @param python the program that runs Python
    Peers(QString modules, QString python)
        : m_modules(std::move(modules))
        , m_python(std::move(python))
    {
    }

    /// Asks each library of the target's system for its version. @return a line for each that
    /// cannot be had, with its reason
    QStringList findThoseOf(const Target &target);
    /// Adds a way for each library that was found.
    void addTo(Comparison &comparison, const Target &target, const Workload &workload) const;
    /// How the table names a way: "ours async", "peer pg 8.1".
    static QString shownAs(const QString &way);

private:
    struct Peer {
        QString name;
        bool python = false;
        bool postgres = false;
        QString version;
    };

    static QVector<Peer> all();
    QStringList command(const Peer &peer, const QStringList &arguments) const;

    QString m_modules;
    QString m_python;
    QVector<Peer> m_found;
};
