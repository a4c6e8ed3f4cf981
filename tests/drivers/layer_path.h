/// @file
/// The layer of drivers, in front of the stock ones.
#pragma once

/// Makes Qt find the layer's drivers first. Before the first use of Qt Sql in the program.
void useDriverLayer();
