#include "DataLayer/Log.h"
#include "support/LogCatcher.h"

#include <KELUtilLib/Logging.h>

#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(LogTest, EveryLevelHasItsWordAndItsPriority)
{
    const LogCatcher log;

    SD_LOG(Error) << "one";
    SD_LOG(Warning) << "two";
    SD_LOG(Notice) << "three";
    SD_LOG(Debug) << "four";
    SD_LOG(Trace) << "five";

    EXPECT_THAT(log.errors(), ElementsAre("Error: one"));
    EXPECT_THAT(log.warnings(), ElementsAre("Warning: two"));
    EXPECT_THAT(log.notices(), ElementsAre("Notice: three"));
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: four"));
    EXPECT_THAT(log.traces(), ElementsAre("Trace: five"));
}

TEST(LogTest, LineEndOfTheTextItselfIsKept)
{
    const LogCatcher log;

    SD_LOG(Error) << "first\nlast\n";

    EXPECT_THAT(log.lines(), ElementsAre("Error: first\nlast\n"));
}

TEST(LogTest, MessageCarriesItsPlaceInTheSource)
{
    const LogCatcher log;

    const int line = __LINE__ + 1;
    SD_LOG(Error) << "here";

    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages().front().getSourceLine(), line);
    EXPECT_STREQ(log.messages().front().getSourceFile(), "tests/DataLayer/LogTest.cpp");
}

TEST(LogTest, NothingIsEvaluatedForALevelThatIsOff)
{
    const LogCatcher log;
    int evaluations = 0;
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_NOTICE);

    SD_LOG(Debug) << ++evaluations;
    SD_LOG(Notice) << ++evaluations;

    Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE);
    EXPECT_EQ(evaluations, 1);
    EXPECT_THAT(log.lines(), ElementsAre("Notice: 1"));
}

TEST(LogLimitTest, ErrorsAndWarningsBeyondTheLimitAreLeftOutAndCounted)
{
    const LogCatcher log;
    LogLimit limit(3);
    {
        const LogLimit::Scope scope(limit);

        SD_LOG(Error) << "1";
        SD_LOG(Warning) << "2";
        SD_LOG(Error) << "3";
        SD_LOG(Warning) << "4";
        SD_LOG(Error) << "5";
    }

    EXPECT_THAT(log.lines(), ElementsAre("Error: 1", "Warning: 2", "Error: 3"));
    EXPECT_EQ(limit.leftOut(), 2u);
}

TEST(LogLimitTest, LinesOfOtherLevelsAreNeitherLeftOutNorCounted)
{
    const LogCatcher log;
    LogLimit limit(0);
    const LogLimit::Scope scope(limit);

    SD_LOG(Notice) << "1";
    SD_LOG(Debug) << "2";
    SD_LOG(Trace) << "3";

    EXPECT_THAT(log.lines(), ElementsAre("Notice: 1", "Debug: 2", "Trace: 3"));
    EXPECT_EQ(limit.leftOut(), 0u);
}

TEST(LogLimitTest, LinesOfALevelThatIsOffAreNotCounted)
{
    const LogCatcher log;
    LogLimit limit(1);
    const LogLimit::Scope scope(limit);
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_ERROR);

    SD_LOG(Warning) << "off";
    SD_LOG(Error) << "on";

    Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE);
    EXPECT_THAT(log.lines(), ElementsAre("Error: on"));
    EXPECT_EQ(limit.leftOut(), 0u);
}

TEST(LogLimitTest, LimitContinuesWhereItsLastScopeEnded)
{
    const LogCatcher log;
    LogLimit limit(2);

    for (int i = 0; i < 3; ++i) {
        const LogLimit::Scope scope(limit);
        SD_LOG(Error) << i;
    }

    EXPECT_THAT(log.errors(), ElementsAre("Error: 0", "Error: 1"));
    EXPECT_EQ(limit.leftOut(), 1u);
}

TEST(LogAfterwardsTest, LinesAreWrittenInTheirOrderWhenItEnds)
{
    LogCatcher log;
    bool isLocked = true;
    log.onLine([&](const std::string& line) { EXPECT_FALSE(isLocked) << line; });

    {
        const LogAfterwards afterwards;
        SD_LOG(Notice) << "one";
        SD_LOG(Error) << "two";
        EXPECT_THAT(log.lines(), IsEmpty());
        isLocked = false;
    }

    EXPECT_THAT(log.lines(), ElementsAre("Notice: one", "Error: two"));
}

TEST(LogAfterwardsTest, LineFromWithinALineIsWrittenAtOnce)
{
    LogCatcher log;
    log.onLine([&](const std::string& line) {
        if (line == "Notice: one")
            SD_LOG(Notice) << "within";
    });

    {
        const LogAfterwards afterwards;
        SD_LOG(Notice) << "one";
        SD_LOG(Notice) << "two";
    }
    SD_LOG(Notice) << "three";

    EXPECT_THAT(log.lines(), ElementsAre("Notice: one", "Notice: within", "Notice: two", "Notice: three"));
}

TEST(LogAfterwardsTest, OtherThreadsAndOuterOnesAreNotConcerned)
{
    const LogCatcher log;
    const LogAfterwards outer;
    SD_LOG(Notice) << "outer";

    {
        const LogAfterwards inner;
        SD_LOG(Notice) << "inner";
    }
    SD_LOG(Notice) << "outer again";
    std::thread([] { SD_LOG(Notice) << "other"; }).join();

    EXPECT_THAT(log.lines(), ElementsAre("Notice: inner", "Notice: other"));
}

TEST(LogLimitTest, NothingIsLimitedOutsideOfAScopeAndOnOtherThreads)
{
    const LogCatcher log;
    LogLimit limit(0);

    SD_LOG(Error) << "before";
    {
        const LogLimit::Scope scope(limit);
        std::thread([] { SD_LOG(Error) << "meanwhile"; }).join();
    }
    SD_LOG(Error) << "behind";

    EXPECT_THAT(log.errors(), ElementsAre("Error: before", "Error: meanwhile", "Error: behind"));
}

TEST(LogLimitTest, InnerScopeGivesWayToTheOuterOne)
{
    const LogCatcher log;
    LogLimit outer(1);
    LogLimit inner(1);
    const LogLimit::Scope outerScope(outer);
    {
        const LogLimit::Scope innerScope(inner);
        SD_LOG(Error) << "inner";
    }

    SD_LOG(Error) << "outer";
    SD_LOG(Error) << "left out";

    EXPECT_THAT(log.errors(), ElementsAre("Error: inner", "Error: outer"));
    EXPECT_EQ(outer.leftOut(), 1u);
    EXPECT_EQ(inner.leftOut(), 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
