/// @file
/// Results of statements in the forms that readers and programs want.
#pragma once

#include <QScriptValue>
#include <QString>
#include <QStringList>

#include <functional>

class ResultReader;

/// The forms of a result.
enum class ResultFormat { Table, Expanded, Csv, Json, JsonLines, List };

/// Prints one result.
///
/// | form | |
/// |---|---|
/// | Table | aligned columns under their names, and a line that counts rows |
/// | Expanded | a line for each value, for rows that are wider than the screen |
/// | Csv | RFC 4180 with a header; NULL is nothing, the empty text is "" |
/// | Json | one array of row objects |
/// | JsonLines | one row object a line |
/// | List | values separated by "|" under their names, NULL is nothing |
///
/// The last four are for programs: they count no rows, and a statement without columns prints
/// nothing. Of several columns with one name the later ones get a number in JSON.
///
/// Thread: the engine's. It runs no script code.
class ResultPrinter
{
public:
    /// Takes text as it is; returns false when no more is wanted.
    using Sink = std::function<bool(const QString &text)>;

    /// A table of more rows is cut, with a line that says so.
    static constexpr int maxRows = 100000;

    explicit ResultPrinter(ResultFormat format = ResultFormat::Table)
        : m_format(format)
    {
    }

    /// A table that is wider is printed in the expanded form; 0, the default, never.
    void setScreenWidth(int cells) { m_screenWidth = cells; }
    /// Stands in the line that counts rows, behind a comma.
    void setNote(const QString &note) { m_note = note; }

    /// Prints an object for which ResultReader::isResult() holds.
    /// @return false when the sink wanted no more.
    bool print(const QScriptValue &result, const Sink &sink) const;

    /// @return false for a name that is none.
    static bool formatOfName(const QString &name, ResultFormat *format);
    static QString nameOfFormat(ResultFormat format);
    static QStringList formatNames();

private:
    bool printTable(const ResultReader &reader, const Sink &sink) const;
    bool printRows(const ResultReader &reader, ResultFormat format, const Sink &sink) const;
    QString countLine(const ResultReader &reader) const;

    ResultFormat m_format;
    int m_screenWidth = 0;
    QString m_note;
};
