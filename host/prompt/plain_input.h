/// @file
/// Statements from a pipe or a file on standard input.
#pragma once

#include "statement_buffer.h"
#include "statement_source.h"

#include <QByteArray>
#include <QScopedPointer>

class QSocketNotifier;

/// Reads lines in UTF-8 from a file descriptor and hands on each statement as soon as it is
/// complete; what is left at the end of input is handed on as it is.
class PlainInput : public StatementSource
{
    Q_OBJECT

public:
    /// @param descriptor stays the caller's.
    explicit PlainInput(int descriptor, QObject *parent = nullptr);
    ~PlainInput() override;

    void start() override;
    void stop() override;

private:
    void read();
    void takeLines();
    void takeLine(const QByteArray &line);
    void finish();
    void fail(const QString &reason);

    int m_descriptor;
    bool m_stopped = false;
    QScopedPointer<QSocketNotifier> m_notifier;
    QByteArray m_bytes; ///< read, but no whole line yet
    int m_searched = 0; ///< up to here m_bytes holds no line break
    int m_line = 0;     ///< lines taken
    StatementBuffer m_buffer;
};
