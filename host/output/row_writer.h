/// @file
/// The forms in which results are written row by row.
#pragma once

#include "result_printer.h"

#include <QString>

/// Writes the rows of one result. The text is head(), then each row in order, then tail().
///
/// Thread: the engine's. The reader is not owned.
class RowWriter
{
public:
    /// @return a new writer, the caller's; null for the table form, which is not written by rows.
    static RowWriter *make(ResultFormat format, const ResultReader *reader);

    virtual ~RowWriter() = default;

    virtual QString head() { return QString(); }
    virtual void addRow(int row, QString *text) = 0;
    virtual QString tail() { return QString(); }

protected:
    explicit RowWriter(const ResultReader *reader)
        : m_reader(reader)
    {
    }

    const ResultReader *m_reader;
};
