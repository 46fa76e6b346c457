#include "DataLayer/Log.h"

#include <Poco/Exception.h>

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

/// Nothing when there is no memory for it.
template <class Text>
std::string textOrNothing(Text text) noexcept
{
    try {
        return text();
    }
    catch (...) {
        return {};
    }
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

std::string currentExceptionText() noexcept
{
    try {
        throw;
    }
    catch (const Poco::Exception& exception) {
        return textOrNothing([&] { return exception.displayText(); });
    }
    catch (const std::exception& exception) {
        return textOrNothing([&] { return std::string(exception.what()); });
    }
    catch (...) {
        return textOrNothing([] { return std::string("unknown exception"); });
    }
}

}  // namespace Nubo::ServiceDiscovery
