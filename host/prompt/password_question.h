/// @file
/// A password from the terminal.
#pragma once

#include <QString>

namespace PasswordQuestion
{

/// Asks and reads a line that does not appear on the screen. The event loop stands still, and the
/// line editor must not have the terminal.
/// @return false when the user dropped the question with Ctrl-C or Ctrl-D.
bool ask(const QString &question, QString *password);

} // namespace PasswordQuestion
