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
    char const* const text = std::getenv("TRACE_LEVEL");
    std::string_view const digits = text != nullptr ? text : "";
    int level = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), level);
    bool const valid = error == std::errc() && end == digits.data() + digits.size();
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
