#include "DataLayer/Log.h"

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

LogLine::LogLine(LogLevel level, const char* file, int line)
    : m_stream(Logging::Log::Logger(), static_cast<Poco::Message::Priority>(level))
{
    m_stream.addDefaultOutput(file, line);
    m_stream << levelWord(level);
}

LogLine::~LogLine()
{
    m_stream << '\n';
}

}  // namespace Nubo::ServiceDiscovery
