/// @file
/// The sample host of the documentation, as its readers build it.
#pragma once

#include "command.h"

/// Builds examples/host and runs its script.
/// @param folder empty; the build goes there
/// @param finding tells CMake where VextSql is: "-DVextSql_DIR=..." or "-DCMAKE_PREFIX_PATH=..."
/// @param sources the folder that holds the sample host
CommandOutcome buildAndRunSampleHost(const QString &folder, const QString &finding,
                                     const QString &sources);

/// What its script prints.
QString sampleHostOutput();
