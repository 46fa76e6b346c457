#include "LogOutput.h"

#include "Text.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Channel.h>
#include <Poco/Mutex.h>

#include <iostream>

namespace NuboSd {

namespace {

thread_local ErrorCatcher* catcher = nullptr;

class StandardErrorChannel : public Poco::Channel
{
public:
    void log(const Poco::Message& message) override
    {
        if (catcher && catcher->takes(message))
            return;
        const std::string line =
            localTime(message.getTime(), "%H:%M:%S.%i ") + printable(message.getText()) + '\n';
        const Poco::FastMutex::ScopedLock lock(m_mutex);
        std::cerr << line << std::flush;
    }

private:
    Poco::FastMutex m_mutex;
};

}  // namespace

void openLog(Poco::Message::Priority level)
{
    Poco::Logger& logger = Logging::Log::Logger();
    logger.setChannel(new StandardErrorChannel);
    logger.setLevel(level);
}

ErrorCatcher::ErrorCatcher(Others others) : m_others(others)
{
    catcher = this;
}

ErrorCatcher::~ErrorCatcher()
{
    catcher = nullptr;
}

bool ErrorCatcher::takes(const Poco::Message& message)
{
    if (message.getPriority() > Poco::Message::PRIO_ERROR)
        return m_others == Others::Dropped;
    if (m_firstError.empty()) {
        const std::string level = "Error: ";
        const std::string& text = message.getText();
        m_firstError = text.compare(0, level.size(), level) == 0 ? text.substr(level.size()) : text;
    }
    return true;
}

}  // namespace NuboSd
