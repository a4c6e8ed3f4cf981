/// @file
/// Constants that outlive the library they come from.
#pragma once

/// A copy of the constant `text` that stays where it is until the process ends. The same constant,
/// and every other one of the same text, has the same copy.
///
/// Messages name their source by `const char*`, and those that cross threads wait in event queues.
/// The library may be unloaded by then, and its own constants with it. Any thread. Meant for the
/// few names of sources and operations: what is copied here is never freed.
const char *lastingText(const char *text);
