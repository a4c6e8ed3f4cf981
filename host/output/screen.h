/// @file
/// The size of the terminal.
#pragma once

/// Asked anew each time: the user may change it.
namespace Screen
{

/// Cells in a line of the terminal on standard output; 0 when there is none or it does not tell.
int columns();

/// Lines of that terminal, likewise.
int rows();

} // namespace Screen
