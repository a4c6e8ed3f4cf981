/// @file
/// Which drivers a test program runs on.
#pragma once

#include <QtGlobal>

/// Whether this is the program's second run, with the layer of drivers in front of the stock ones.
inline bool driverLayerInUse()
{
    return qEnvironmentVariableIsSet("VEXT_DRIVER_LAYER");
}
