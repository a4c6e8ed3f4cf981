/// @file
/// Results as JSON.
#pragma once

#include "row_writer.h"

#include <QStringList>

/// Writes rows as objects in the order of the columns: numbers and booleans as such, NULL and
/// numbers that JSON lacks as null, everything else as text.
class JsonRows : public RowWriter
{
public:
    /// @param asArray one array of objects; otherwise one object a line
    JsonRows(const ResultReader *reader, bool asArray);

    QString head() override;
    void addRow(int row, QString *text) override;
    QString tail() override;

    /// A text in quotes.
    static QString quoted(const QString &text);

private:
    QString value(int column, int row) const;

    QStringList m_keys; ///< quoted, each of them once
    bool m_asArray;
    bool m_isFirst = true;
};
