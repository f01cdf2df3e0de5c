/// @file
/// The trace level of the process: which diagnostics its libraries write.
#pragma once

/// Its first member is a pointer to the trace level, an int. The libraries read nothing else of it.
struct TraceObject;

extern "C" {
/// The object through which every library of the process reads the trace level. Either pointer on the way to
/// the level may be null: then nothing is traced.
extern __attribute__((visibility("default"))) TraceObject* g_traceObject;
}

/// Sets and reads the trace level, from any thread, at any time. It starts as the number in the environment
/// variable TRACE_LEVEL, or as 0 when that holds no valid number. A statement is written when the level is at
/// least 3 for an error, 6 for an information, and 7, 8 or 9 for the three depths of debugging.
namespace trace {
///@{

/// The level counts from the next statement on, in every thread.
__attribute__((visibility("default"))) void setLevel(int level);
__attribute__((visibility("default"))) int getLevel();
///@}
} // namespace trace
