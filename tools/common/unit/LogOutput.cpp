#include "unit/LogOutput.h"

#include "text/Text.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Channel.h>

#include <iostream>
#include <mutex>

#include <unistd.h>

namespace NuboSd {

namespace {

thread_local ErrorCatcher* catcher = nullptr;

std::mutex outputMutex;  // guards `keeper`, its lines, and standard error
LogKeeper* keeper = nullptr;

class StandardErrorChannel : public Poco::Channel
{
public:
    void log(const Poco::Message& message) override
    {
        if (catcher && catcher->takes(message))
            return;
        const std::string line = localTime(message.getTime(), "%H:%M:%S.%i ") + printable(message.getText());
        const std::lock_guard<std::mutex> lock(outputMutex);
        if (keeper)
            keeper->keep(line);
        else
            std::cerr << line << std::endl;
    }
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

LogKeeper::LogKeeper()
{
    const std::lock_guard<std::mutex> lock(outputMutex);
    if (::isatty(STDERR_FILENO) != 0)
        keeper = this;
}

LogKeeper::~LogKeeper()
{
    const std::lock_guard<std::mutex> lock(outputMutex);
    keeper = nullptr;
    if (m_dropped != 0)
        std::cerr << "nubo-sd: " << m_dropped << " older lines of the log were not kept\n";
    for (const std::string& line : m_lines)
        std::cerr << line << '\n';
    std::cerr << std::flush;
}

std::string LogKeeper::newest() const
{
    const std::lock_guard<std::mutex> lock(outputMutex);
    return m_lines.empty() ? std::string() : m_lines.back();
}

void LogKeeper::keep(const std::string& line)
{
    constexpr std::size_t most = 1000;
    m_lines.push_back(line);
    if (m_lines.size() > most) {
        m_lines.pop_front();
        ++m_dropped;
    }
}

}  // namespace NuboSd
