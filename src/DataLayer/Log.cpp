#include "DataLayer/Log.h"

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

}  // namespace

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
