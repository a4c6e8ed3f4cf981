/// @file
/// What the host tells its operator.
#pragma once

#include "log_record.h"

#include <QFile>
#include <QMutex>

class Terminal;
struct ScriptFailure;

/// Writes records of a level that is asked for to standard error or to a file, a line each.
///
/// Thread: the application's, but for writeForeign(). The terminal is not owned.
class Log
{
public:
    enum class Format { Text, Json };

    struct Settings {
        int level = LogRecord::Notice; ///< records up to this level are written
        Format format = Format::Text;
        QString file; ///< is added to; empty: standard error
    };

    explicit Log(Terminal *terminal);

    /// @return false with `error` set to a text for the user when the file cannot be written.
    bool open(const Settings &settings, QString *error);

    void write(const LogRecord &record);

    /// Writes an exception that no script caught: in a record of its own, and as text on standard
    /// error in the several lines that a reader at a terminal wants.
    void write(const ScriptFailure &failure, const QString &connection);

    /// Writes a line of Qt's message log, which has its own form. Any thread.
    void writeForeign(const QString &line);

private:
    void put(const QByteArray &line);
    QByteArray formatted(const LogRecord &record) const;

    Terminal *m_terminal;
    Settings m_settings;
    QMutex m_mutex; ///< guards m_file
    QFile m_file;
};
