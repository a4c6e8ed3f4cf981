/// @file
/// One line of the log.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// What an operator is told at once: one record is one line, whatever its texts hold.
struct LogRecord {
    /// How grave it is; the numbers are those of plugin messages.
    enum Level { Error = -1, Notice = 0, StateChange = 1, Statement = 2 };

    int level = Notice;
    QString connection; ///< name of the connection object; empty when it is about none
    QString file;       ///< of the script; empty when unknown
    int line = 0;       ///< of the script; 0 when unknown
    QString operation;  ///< that sent it; empty for the host itself
    QString source;     ///< where in the plugin; only shown from StateChange on
    QString text;
    QString statement; ///< the SQL that it is about; empty when unknown
    QStringList backtrace;

    /// "2024-02-29 12:34:56.789 error [name] file:line operation: text", without line break.
    QByteArray asText() const;

    /// An object with the members that are known, without line break.
    QByteArray asJson() const;
};
