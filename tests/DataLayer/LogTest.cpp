#include "DataLayer/Log.h"
#include "support/LogCatcher.h"

#include <KELUtilLib/Logging.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;

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

}  // namespace Nubo::ServiceDiscovery::Testing
