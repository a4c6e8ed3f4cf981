/// @file
/// The framework's line format for Qt's message log, written once and used everywhere.
///
/// A line reads
/// `yyyy-MM-dd-hh:mm:ss.zzz module:line [~~~~] function <tab> text…`
/// with single blanks between the items, as QDebug inserts them.
#pragma once

#include <QDebug>
#include <QString>

namespace DebugLine
{

/// Whether the line carries the error marker "~~~~".
enum class Mark { None, Error };

/// Bare name of an operation: "bool A::f(int)" becomes "f()"; a bare name stays as it is.
/// @param lastPartOnly also drops everything up to the last ':', as error lines do.
QString cleanFunctionName(const QString &function, bool lastPartOnly);

/// The items in front of a line's text, the tab excluded.
QString prefix(const char *module, int line, const char *function, Mark mark);

/// Starts a line at critical severity, category "default". The caller streams the text; the line
/// is written when the returned stream is destroyed. Any thread.
QDebug critical(const char *module, int line, const char *function, Mark mark = Mark::Error);

/// The same at debug severity, without a marker: trace output that only a developer reads.
QDebug debug(const char *module, int line, const char *function);

} // namespace DebugLine
