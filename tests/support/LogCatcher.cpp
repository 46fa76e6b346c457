#include "support/LogCatcher.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Channel.h>

#include <map>
#include <mutex>
#include <utility>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// The logger's channel during the whole process: it must not be changed while other threads log.
class CatchingChannel : public Poco::Channel
{
public:
    void log(const Poco::Message& message) override
    {
        std::function<void(const std::string&)> call;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_isCatching)
                m_messages.push_back(message);
            call = m_call;
        }
        if (call)
            call(message.getText());
    }

    void setCatching(bool isCatching)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isCatching = isCatching;
        m_messages.clear();
        m_call = nullptr;
    }

    void onLine(std::function<void(const std::string&)> call)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_call = std::move(call);
    }

    void clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.clear();
    }

    std::vector<Poco::Message> messages() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    /// Lines of the messages that meet the condition.
    template <class Condition>
    std::vector<std::string> linesWhere(Condition condition) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> result;
        for (const Poco::Message& message : m_messages) {
            if (condition(message))
                result.push_back(message.getText());
        }
        return result;
    }

private:
    mutable std::mutex m_mutex;
    bool m_isCatching = false;
    std::vector<Poco::Message> m_messages;
    std::function<void(const std::string&)> m_call;
};

Poco::AutoPtr<CatchingChannel> installChannel()
{
    Poco::AutoPtr<CatchingChannel> channel = new CatchingChannel;
    Logging::Log::Logger().setChannel(channel);
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_TRACE);
    return channel;
}

const Poco::AutoPtr<CatchingChannel> channel = installChannel();

CatchingChannel& catching()
{
    return *const_cast<CatchingChannel*>(channel.get());
}

const std::map<Poco::Message::Priority, std::string> levelWords{{Poco::Message::PRIO_ERROR, "Error: "},
                                                                {Poco::Message::PRIO_WARNING, "Warning: "},
                                                                {Poco::Message::PRIO_NOTICE, "Notice: "},
                                                                {Poco::Message::PRIO_DEBUG, "Debug: "},
                                                                {Poco::Message::PRIO_TRACE, "Trace: "}};

}  // namespace

LogCatcher::LogCatcher()
{
    catching().setCatching(true);
}

LogCatcher::~LogCatcher()
{
    for (const Poco::Message& message : messages()) {
        const auto word = levelWords.find(message.getPriority());
        EXPECT_TRUE(word != levelWords.end() && message.getText().rfind(word->second, 0) == 0)
            << "logged at level " << message.getPriority() << ": " << message.getText();
    }
    catching().setCatching(false);
}

std::vector<Poco::Message> LogCatcher::messages() const
{
    return catching().messages();
}

std::vector<std::string> LogCatcher::lines() const
{
    return catching().linesWhere([](const Poco::Message&) { return true; });
}

std::vector<std::string> LogCatcher::lines(Poco::Message::Priority level) const
{
    return catching().linesWhere(
        [=](const Poco::Message& message) { return message.getPriority() == level; });
}

std::vector<std::string> LogCatcher::complaints() const
{
    return catching().linesWhere(
        [](const Poco::Message& message) { return message.getPriority() <= Poco::Message::PRIO_WARNING; });
}

bool LogCatcher::has(const std::string& line) const
{
    return count(line) != 0;
}

std::size_t LogCatcher::count(const std::string& line) const
{
    return catching()
        .linesWhere([&](const Poco::Message& message) { return message.getText() == line; })
        .size();
}

void LogCatcher::clear()
{
    catching().clear();
}

void LogCatcher::onLine(std::function<void(const std::string&)> call)
{
    catching().onLine(std::move(call));
}

}  // namespace Nubo::ServiceDiscovery::Testing
