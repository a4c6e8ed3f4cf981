/// @file
/// The tables that the workloads read.
#pragma once

#include "workloads.h"

#include <QSqlDatabase>

/// Opens a plain Qt connection to the target under `name`.
QSqlDatabase openTarget(const Target &target, const QString &name);

/// Fills "big" (id, nullable int, double, unique text, text of 20 values, 64-bit int) with `rows`
/// rows and makes an empty "inserts". @return false with a message on failure.
bool fillTables(const Target &target, int rows);
