#include <KELUtilLib/Logging.h>

#include <Poco/Exception.h>

namespace Logging {

Poco::Logger& Log::Logger()
{
    // Poco destroys its loggers when the process ends, while threads may still log. This reference is never
    // released, so that the logger and its channel remain valid to the end.
    static Poco::Logger& logger = []() -> Poco::Logger& {
        Poco::Logger& found = Poco::Logger::get("Nubo");
        found.duplicate();
        return found;
    }();
    return logger;
}

bool Log::IsLogLevelActive(Poco::Message::Priority priority)
{
    return Logger().is(priority);
}

LogStream::LogStream(Poco::Logger& logger, Poco::Message::Priority priority)
    : m_logger(logger)
    , m_priority(priority)
{}

LogStream::~LogStream()
{
    try {
        std::string text = str();
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        Poco::Message message(m_logger.name(), text, m_priority);
        if (m_file) {
            message.setSourceFile(m_file);
            message.setSourceLine(m_line);
        }
        m_logger.log(message);
    }
    catch (...) {
        // A failing log channel must not end the thread that logs.
    }
}

void LogStream::addDefaultOutput(char const* file, int line)
{
    m_file = file;
    m_line = line;
}

}  // namespace Logging
