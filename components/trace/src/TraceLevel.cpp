// The owner of the trace level.
#include "TraceLevel.h"

#include <charconv>
#include <cstdlib>
#include <string_view>
#include <system_error>

struct TraceObject {
    int* level;
};

namespace {

int levelFromEnvironment()
{
    const char* const text = std::getenv("TRACE_LEVEL");
    const std::string_view digits = text != nullptr ? text : "";
    int level = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), level);
    const bool valid = error == std::errc() && end == digits.data() + digits.size();
    return valid ? level : 0;
}

int currentLevel = levelFromEnvironment();
TraceObject traceObject{&currentLevel};

} // namespace

TraceObject* g_traceObject = &traceObject;

namespace trace {

void setLevel(int level) { __atomic_store_n(&currentLevel, level, __ATOMIC_RELAXED); }

int getLevel() { return __atomic_load_n(&currentLevel, __ATOMIC_RELAXED); }

} // namespace trace
