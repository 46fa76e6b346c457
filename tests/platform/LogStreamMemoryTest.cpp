#include "AllocationFault.h"

#include <Common/CurrentException.h>
#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Exception.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Message;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

class MemoryChannel : public Poco::Channel
{
public:
    void log(const Message& message) override { texts.push_back(message.getText()); }

    std::vector<std::string> texts;
};

struct LogStreamMemoryTest : ::testing::Test
{
    LogStreamMemoryTest()
    {
        logger.setChannel(channel);
        logger.setLevel(Message::PRIO_TRACE);
    }
    ~LogStreamMemoryTest() override { logger.setChannel(nullptr); }

    Poco::Logger& logger = Poco::Logger::get("LogStreamMemoryTest");
    Poco::AutoPtr<MemoryChannel> channel{new MemoryChannel};
};

const std::string longText(3000, 'x');

}  // namespace

TEST_F(LogStreamMemoryTest, MessageIsWrittenAsFarAsThereWasMemoryWithoutAnException)
{
    const std::string whole = "Notice: " + longText + " 42" + longText;

    const std::size_t failures = withEachAllocationFailing([&](AllocationFault& fault) {
        channel->texts.clear();

        EXPECT_FALSE(fault.strikes([&] {
            Logging::LogStream stream(logger, Message::PRIO_NOTICE);
            stream.addDefaultOutput(__FILE__, __LINE__);
            stream << "Notice: " << longText << ' ' << 42 << longText << std::endl;
        }));

        for (const std::string& text : channel->texts)
            EXPECT_THAT(whole, StartsWith(text));
        channel->texts.clear();
        Logging::LogStream(logger, Message::PRIO_NOTICE) << "next";
        EXPECT_THAT(channel->texts, ElementsAre("next"));
    });

    EXPECT_GT(failures, 4u) << "text, its copies, and what the channel takes";
}

TEST_F(LogStreamMemoryTest, ShortMessageTakesNoMemoryWhileItIsStreamed)
{
    AllocationFault fault(1);

    EXPECT_FALSE(fault.strikes([&] { Logging::LogStream(logger, Message::PRIO_NOTICE) << "short " << 1; }));

    EXPECT_TRUE(fault.hasStruck()) << "the message to the logger takes memory";
    EXPECT_THAT(channel->texts, IsEmpty());
}

TEST_F(LogStreamMemoryTest, TextOfAnExceptionIsItsKindAtLeast)
{
    const std::size_t failures = withEachAllocationFailing([&](AllocationFault& fault) {
        std::ostringstream stream;
        stream << std::string(200, ' ');  // has memory for the text from now on
        stream.seekp(0);

        try {
            throw Poco::IOException("the disk of this unit is full");
        }
        catch (const std::exception&) {
            EXPECT_FALSE(fault.strikes([&] { stream << Common::currentException; }));
        }

        EXPECT_THAT(stream.str(), StartsWith(fault.hasStruck() ? "I/O error   "
                                                               : "I/O error: the disk of this unit is full"));
    });

    EXPECT_GT(failures, 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
