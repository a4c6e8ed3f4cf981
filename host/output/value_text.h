/// @file
/// Script values as text for a reader.
#pragma once

#include <QScriptValue>
#include <QString>
#include <QVector>

/// Turns one script value into text: strings as they are, everything inside an object quoted,
/// nested values to a depth, cycles and getters named instead of followed. It runs no script code,
/// so it cannot throw, whatever the value is.
///
/// Thread: the engine's. An instance serves one value.
class ValueText
{
public:
    /// The text of a value that is printed by itself: a string without quotes.
    static QString plain(const QScriptValue &value);

    /// The text of a value as a result: a string in quotes.
    static QString quoted(const QScriptValue &value);

private:
    QString text(const QScriptValue &value);
    QString objectText(const QScriptValue &value);
    QString membersText(const QScriptValue &value);
    QStringList arrayItems(const QScriptValue &array);
    QStringList memberItems(const QScriptValue &object);
    bool isOpen(const QScriptValue &object) const;

    QVector<qint64> m_openObjects; ///< identities of the objects around the current one
    int m_valuesLeft = 2000;       ///< so that a tree of wide objects stays readable
};
