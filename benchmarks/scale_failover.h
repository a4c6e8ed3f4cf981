/// @file
/// What clusters keep when their node is killed, how long they pause, and what replicas show.
#pragma once

namespace ScaleFailover
{

/// Kills the node in use under transfers of the script library, and reads behind writes; prints a
/// line for each, with what was acknowledged and is lost. @param rounds how often each kind of
/// cluster loses its node. @return whether all was measured
bool measure(int rounds);

} // namespace ScaleFailover
