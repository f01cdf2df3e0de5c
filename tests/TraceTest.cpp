// The log gate: what is written at which level, and how.
#include "Faults.h"
#include "Support.h"

#include "Trace.h"

namespace {

std::string program; // this one's path

void writeAll()
{
    TRACE_ERROR("an error %s", "text");
    TRACE_INFO("an information");
    TRACE_DEBUG1("%d and %u", -1, 2U);
    TRACE_DEBUG2("%s %s %s", "a", "b", "c");
    TRACE_DEBUG3("100%%");
}

TEST(Trace, WritesWhatTheLevelReaches)
{
    std::vector<std::string> const all{
        "3 [ERROR] TraceTest.cpp:N (writeAll) - an error text", "6 [INFO] TraceTest.cpp:N (writeAll) - an information",
        "7 [DEBUG1] TraceTest.cpp:N (writeAll) - -1 and 2", "7 [DEBUG2] TraceTest.cpp:N (writeAll) - a b c",
        "7 [DEBUG3] TraceTest.cpp:N (writeAll) - 100%"};
    for (auto const& [level, count] : {std::pair(-1, 0), {2, 0}, {3, 1}, {5, 1}, {6, 2}, {7, 3}, {8, 4}, {9, 5}}) {
        test::TraceLevel const scope(level);
        EXPECT_EQ(level, trace::getLevel());
        writeAll();
        EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + count), test::takeLog()) << level;
    }
    int computed = 0;
    TRACE_ERROR("%d", ++computed);
    EXPECT_EQ(0, computed);
}

TEST(Trace, MissingTraceObjectOrLevelWritesNothing)
{
    test::TraceLevel const scope(9);
    TraceObject* const object = g_traceObject;
    TraceObject withoutLevel{nullptr};
    for (TraceObject* const crippled : {static_cast<TraceObject*>(nullptr), &withoutLevel}) {
        g_traceObject = crippled;
        writeAll();
    }
    g_traceObject = object;
    EXPECT_THAT(test::takeLog(), testing::IsEmpty());
}

TEST(Trace, FirstLevelComesFromTheEnvironment)
{
    for (auto const& [text, level] :
         {std::pair("7", "7"), {"-3", "-3"}, {"", "0"}, {"7x", "0"}, {"99999999999", "0"}}) {
        EXPECT_EQ(level, test::output("TRACE_LEVEL='" + std::string(text) + "' '" + program + "' --print-trace-level"));
    }
}

} // namespace

// Prints its trace level when the test of the environment asks for it, and runs the tests otherwise.
int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "--print-trace-level") {
        std::printf("%d", trace::getLevel());
        return 0;
    }
    program = argv[0];
    test::signalEndsSleep = true;
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
