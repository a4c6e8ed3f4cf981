/// @file
/// What vext-run says about itself.
#pragma once

#include <QString>

/// The help text and the manual page, made from one list, so that neither lacks what the other has.
///
/// Thread: any.
namespace OptionTexts
{

/// For a terminal of 80 columns.
QString help();

/// The source of the manual page vext-run(1).
QString manual();

} // namespace OptionTexts
