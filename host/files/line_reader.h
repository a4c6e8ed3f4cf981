/// @file
/// Text files line by line.
#pragma once

#include <QByteArray>
#include <QString>

/// Reads a file descriptor line by line. It keeps one chunk and the line that is being read, so
/// that files of any size are read in the same memory.
///
/// Thread: one. The descriptor stays the caller's.
class LineReader
{
public:
    explicit LineReader(int descriptor);

    enum class Outcome { Line, End, Failed };

    /// Takes the next line, without its line break; waits for it where the file is a pipe.
    /// @param text on failure the reason, for the user.
    Outcome next(QString *text);

    /// Takes all that is left.
    /// @return false with `error` set to the reason.
    bool readRest(QByteArray *bytes, QString *error);

    /// The number of the line that was read last, the first one being 1.
    qint64 number() const { return m_number; }

private:
    bool takeLine(QByteArray *line);
    bool fill(QString *error);

    int m_descriptor;
    QByteArray m_bytes;   ///< read and not yet handed out, from m_begin on
    int m_begin = 0;      ///< of the next line in m_bytes
    int m_searched = 0;   ///< from m_begin to here there is no line break
    bool m_atEnd = false; ///< of the file
    qint64 m_number = 0;
};
