#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Exception.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Message;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class MemoryChannel : public Poco::Channel
{
public:
    void log(const Message& message) override
    {
        if (isBroken)
            throw Poco::IOException("disk full");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(message);
    }

    std::vector<Message> messages() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    std::vector<std::string> texts() const
    {
        std::vector<std::string> result;
        for (const Message& message : messages())
            result.push_back(message.getText());
        return result;
    }

    std::atomic<bool> isBroken{false};

private:
    mutable std::mutex m_mutex;
    std::vector<Message> m_messages;
};

struct LogStreamTest : ::testing::Test
{
    LogStreamTest()
    {
        logger.setChannel(channel);
        logger.setLevel(Message::PRIO_TRACE);
    }

    Poco::Logger& logger = Poco::Logger::get("LogStreamTest");
    Poco::AutoPtr<MemoryChannel> channel{new MemoryChannel};
};

/// Puts the platform logger's level back.
struct LogTest : ::testing::Test
{
    ~LogTest() override { Logging::Log::Logger().setLevel(level); }

    const int level = Logging::Log::Logger().getLevel();
};

}  // namespace

TEST_F(LogTest, LoggerIsTheOneNamedNubo)
{
    EXPECT_EQ(Logging::Log::Logger().name(), "Nubo");
    EXPECT_EQ(&Logging::Log::Logger(), &Poco::Logger::get("Nubo"));
}

TEST_F(LogTest, LevelIsActiveUpToThatOfTheLogger)
{
    Logging::Log::Logger().setLevel(Message::PRIO_WARNING);
    EXPECT_TRUE(Logging::Log::IsLogLevelActive(Message::PRIO_ERROR));
    EXPECT_TRUE(Logging::Log::IsLogLevelActive(Message::PRIO_WARNING));
    EXPECT_FALSE(Logging::Log::IsLogLevelActive(Message::PRIO_NOTICE));

    Logging::Log::Logger().setLevel(Message::PRIO_TRACE);
    EXPECT_TRUE(Logging::Log::IsLogLevelActive(Message::PRIO_TRACE));

    Logging::Log::Logger().setLevel(0);
    EXPECT_FALSE(Logging::Log::IsLogLevelActive(Message::PRIO_FATAL));
}

TEST_F(LogStreamTest, MessageGoesToTheLoggerWhenTheObjectEnds)
{
    {
        Logging::LogStream stream(logger, Message::PRIO_NOTICE);
        stream << "Notice: " << 42 << " things";
        EXPECT_THAT(channel->texts(), IsEmpty());
    }

    ASSERT_THAT(channel->texts(), ElementsAre("Notice: 42 things"));
    EXPECT_EQ(channel->messages().front().getPriority(), Message::PRIO_NOTICE);
    EXPECT_EQ(channel->messages().front().getSource(), "LogStreamTest");
}

TEST_F(LogStreamTest, LineEndThatClosesTheTextIsNotPartOfIt)
{
    Logging::LogStream(logger, Message::PRIO_NOTICE) << "one\n";
    Logging::LogStream(logger, Message::PRIO_NOTICE) << "two" << std::endl;
    Logging::LogStream(logger, Message::PRIO_NOTICE) << "three\nfour\n\n";
    Logging::LogStream(logger, Message::PRIO_NOTICE) << "\n";

    EXPECT_THAT(channel->texts(), ElementsAre("one", "two", "three\nfour\n", ""));
}

TEST_F(LogStreamTest, PlaceInTheSourceTravelsWithTheMessage)
{
    {
        Logging::LogStream stream(logger, Message::PRIO_ERROR);
        stream.addDefaultOutput("src/File.cpp", 42);
        stream << "text";
    }

    ASSERT_THAT(channel->texts(), ElementsAre("text"));
    EXPECT_STREQ(channel->messages().front().getSourceFile(), "src/File.cpp");
    EXPECT_EQ(channel->messages().front().getSourceLine(), 42);
}

TEST_F(LogStreamTest, WithoutAPlaceTheMessageHasNone)
{
    Logging::LogStream(logger, Message::PRIO_ERROR) << "text";

    ASSERT_THAT(channel->texts(), ElementsAre("text"));
    EXPECT_EQ(channel->messages().front().getSourceFile(), nullptr);
}

TEST_F(LogStreamTest, MessageBelowTheLevelIsNotWritten)
{
    logger.setLevel(Message::PRIO_WARNING);

    Logging::LogStream(logger, Message::PRIO_NOTICE) << "quiet";
    Logging::LogStream(logger, Message::PRIO_WARNING) << "loud";

    EXPECT_THAT(channel->texts(), ElementsAre("loud"));
}

TEST_F(LogStreamTest, MessageThatCannotBeWrittenIsLostWithoutAnException)
{
    channel->isBroken = true;
    EXPECT_NO_THROW(Logging::LogStream(logger, Message::PRIO_ERROR) << "lost");
    channel->isBroken = false;

    Logging::LogStream(logger, Message::PRIO_ERROR) << "written";

    EXPECT_THAT(channel->texts(), ElementsAre("written"));
}

TEST_F(LogStreamTest, ThreadsMayShareTheLogger)
{
    constexpr int each = 100;
    const auto write = [&] {
        for (int i = 0; i < each; ++i)
            Logging::LogStream(logger, Message::PRIO_NOTICE) << "line " << i << '\n';
    };

    std::thread one(write);
    std::thread other(write);
    one.join();
    other.join();

    EXPECT_EQ(channel->texts().size(), 2u * each);
}

}  // namespace Nubo::ServiceDiscovery::Testing
