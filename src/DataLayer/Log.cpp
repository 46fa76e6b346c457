#include "DataLayer/Log.h"

#include <new>
#include <utility>

namespace Nubo::ServiceDiscovery {

namespace {

const char* levelWord(LogLevel level)
{
    switch (level) {
        case LogLevel::Error:
            return "Error: ";
        case LogLevel::Warning:
            return "Warning: ";
        case LogLevel::Notice:
            return "Notice: ";
        case LogLevel::Debug:
            return "Debug: ";
        case LogLevel::Trace:
            return "Trace: ";
    }
    return "";
}

thread_local LogLimit* currentLimit = nullptr;
thread_local LogAfterwards* currentAfterwards = nullptr;

}  // namespace

LogLimit::Scope::Scope(LogLimit& limit) : m_outer(std::exchange(currentLimit, &limit)) {}

LogLimit::Scope::~Scope()
{
    currentLimit = m_outer;
}

bool LogLimit::takeLine()
{
    if (!currentLimit)
        return true;
    if (currentLimit->m_linesLeft == 0) {
        ++currentLimit->m_leftOut;
        return false;
    }
    --currentLimit->m_linesLeft;
    return true;
}

LogAfterwards::LogAfterwards() : m_outer(std::exchange(currentAfterwards, this)) {}

LogAfterwards::~LogAfterwards()
{
    currentAfterwards = m_outer;
    while (!m_lines.empty()) {
        const Common::NoReturnInChildren whenWritten;
        m_lines.pop_front();
    }
}

Logging::LogStream* LogAfterwards::open(LogLevel level)
{
    if (!currentAfterwards)
        return nullptr;
    try {
        return &currentAfterwards->m_lines.emplace_back(Logging::Log::Logger(),
                                                        static_cast<Poco::Message::Priority>(level));
    }
    catch (const std::bad_alloc&) {
        return nullptr;
    }
}

LogLine::LogLine(LogLevel level, const char* file, int line) : m_stream(open(level))
{
    m_stream.addDefaultOutput(file, line);
    m_stream << levelWord(level);
}

Logging::LogStream& LogLine::open(LogLevel level)
{
    if (Logging::LogStream* const afterwards = LogAfterwards::open(level))
        return *afterwards;
    return m_own.emplace(Logging::Log::Logger(), static_cast<Poco::Message::Priority>(level));
}

LogLine::~LogLine()
{
    m_stream << '\n';
}

}  // namespace Nubo::ServiceDiscovery
