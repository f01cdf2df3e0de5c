// The log gate. Every diagnostic of the library is one statement of this file's five macros:
//
//     TRACE_ERROR("delete failed with %s for %s", nl_geterror(-result), name.c_str());
//
// writes one line to syslog(3) when the process's trace level has reached the tag's, and computes none of the
// arguments otherwise. The message must be a literal.
#pragma once

#include <syslog.h>

extern "C" {
// What the library reads of the tracing library's object: the first member. Either pointer may be null.
struct TraceObject {
    int* level;
};
extern TraceObject* g_traceObject;
}

namespace netlink_route {

// Follows both pointers each time, so that a new level counts from the next statement on. Relaxed loads cost no more
// than plain ones, and may happen while the tracing library stores.
inline bool traceLevelReached(int level)
{
    TraceObject* const object = __atomic_load_n(&g_traceObject, __ATOMIC_RELAXED);
    if (object == nullptr) {
        return false;
    }
    int const* const current = __atomic_load_n(&object->level, __ATOMIC_RELAXED);
    return current != nullptr && __atomic_load_n(current, __ATOMIC_RELAXED) >= level;
}

} // namespace netlink_route

// The base name of the source file, a pointer into a literal. GCC has a macro for it from version 12 on.
#ifdef __FILE_NAME__
#define TRACE_FILE __FILE_NAME__
#else
#include <string_view>
#include <type_traits>

#define TRACE_FILE (&__FILE__[std::integral_constant<std::size_t, std::string_view(__FILE__).rfind('/') + 1>::value])
#endif

#define TRACE_ERROR(...) TRACE_STATEMENT(3, LOG_ERR, "[ERROR]", __VA_ARGS__)
#define TRACE_INFO(...) TRACE_STATEMENT(6, LOG_INFO, "[INFO]", __VA_ARGS__)
#define TRACE_DEBUG1(...) TRACE_STATEMENT(7, LOG_DEBUG, "[DEBUG1]", __VA_ARGS__)
#define TRACE_DEBUG2(...) TRACE_STATEMENT(8, LOG_DEBUG, "[DEBUG2]", __VA_ARGS__)
#define TRACE_DEBUG3(...) TRACE_STATEMENT(9, LOG_DEBUG, "[DEBUG3]", __VA_ARGS__)

#define TRACE_STATEMENT(level, priority, tag, ...)                                                                     \
    do {                                                                                                               \
        if (netlink_route::traceLevelReached(level)) {                                                                 \
            TRACE_PICK(__VA_ARGS__, TRACE_3, TRACE_2, TRACE_1, TRACE_0, )(priority, tag, __VA_ARGS__);                 \
        }                                                                                                              \
    } while (false)

// A message with 0 to 3 arguments: C++17 has no other way to drop the comma before an empty list.
#define TRACE_PICK(message, a, b, c, macro, ...) macro
#define TRACE_0(priority, tag, message) syslog(priority, tag " %s:%d (%s) - " message, TRACE_FILE, __LINE__, __func__)
#define TRACE_1(priority, tag, message, a)                                                                             \
    syslog(priority, tag " %s:%d (%s) - " message, TRACE_FILE, __LINE__, __func__, a)
#define TRACE_2(priority, tag, message, a, b)                                                                          \
    syslog(priority, tag " %s:%d (%s) - " message, TRACE_FILE, __LINE__, __func__, a, b)
#define TRACE_3(priority, tag, message, a, b, c)                                                                       \
    syslog(priority, tag " %s:%d (%s) - " message, TRACE_FILE, __LINE__, __func__, a, b, c)
