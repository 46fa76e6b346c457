#pragma once

#include <KELUtilLib/Export.h>

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <sstream>

/// The platform's log.
namespace Logging {

class KEL_UTIL_EXPORT Log
{
public:
    /// Returns the platform's logger, named "Nubo". The process sets the channel that writes its messages
    /// (Poco::Logger::setChannel). Thread-safe, even while the process ends: neither the logger nor its
    /// channel is ever destroyed. The first call in a process throws std::bad_alloc when memory is short;
    /// later calls never throw.
    static Poco::Logger& Logger();

    /// Whether a message of that priority would be written. Thread-safe and throws like Logger().
    static bool IsLogLevelActive(Poco::Message::Priority priority);
};

/// One log message. The destructor passes the text streamed into the object to the logger.
///
/// A newline at the end of the text is not part of the message. An object belongs to one thread, but its
/// logger may be shared. No operation throws: a message that the channel fails to write is lost, and a
/// message is truncated or lost when memory is short.
class KEL_UTIL_EXPORT LogStream : public std::ostringstream
{
public:
    /// Begins a message. `logger` must outlive the object.
    LogStream(Poco::Logger& logger, Poco::Message::Priority priority);
    ~LogStream() override;

    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    /// Sets the message's source file and line, which a formatter can print ("%U:%u"). `file` must remain
    /// valid until the object is destroyed.
    void addDefaultOutput(char const* file, int line);

private:
    Poco::Logger& m_logger;
    const Poco::Message::Priority m_priority;
    char const* m_file = nullptr;
    int m_line = 0;
};

}  // namespace Logging
