/// @file
/// What the tests of all clusters share: a script with the library, transfers between accounts.
#pragma once

#include "library_script.h"

/// A script that moves money on a cluster. In the test's thread.
class ClusterScript : public LibraryScript
{
public:
    ClusterScript();

    /// Makes the global `cluster`. @param nodes object literals of their parameters
    /// @param settings further members of the settings' object literal
    void makeCluster(const QString &engine, const QStringList &nodes, const QString &settings);
    /// Lets a script function do its work on a connection to a node, again until the node has
    /// answered all of it; fails the test when it does not.
    void askNode(const ConnectionParameters &parameters, const QString &work);
    /// Removes what an earlier test has left.
    void dropTransfers(const ConnectionParameters &parameters);
    /// Makes the accounts anew on a node.
    void prepareTransfers(const ConnectionParameters &parameters);
    /// Whether `more` transfers are acknowledged from now on.
    bool waitForTransfers(int more, int ms = 60000);
    /// Ends the transfers, and waits for those under way.
    bool finishTransfers();
    /// What is wrong on the node, "[]" when nothing is.
    QString wrongOn(const ConnectionParameters &parameters);
    int number(const QString &expression);
};

/// The parameters of a node as an object literal, without what the cluster sets itself.
QString nodeLiteral(const ConnectionParameters &parameters);
