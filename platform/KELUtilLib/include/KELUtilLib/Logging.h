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
    /// The logger of the platform, named "Nubo". Where its messages go is decided by the channel that the
    /// process sets on it (Poco::Logger::setChannel). Safe to call from any thread, to the last: neither the
    /// logger nor its channel is destroyed when the process ends. The first call in a process throws
    /// std::bad_alloc when memory is short; no later one throws.
    static Poco::Logger& Logger();

    /// Whether a message of that priority would be written. The same holds.
    static bool IsLogLevelActive(Poco::Message::Priority priority);
};

/// One message: what is streamed into the object goes to the logger when the object ends.
///
/// A line end that closes the text is the end of the message and not part of it. An object belongs to one
/// thread; the logger behind it may be shared. Making, filling and ending it throws nothing: a message that
/// the channel fails to write is lost, and when memory is short, a message is cut or lost.
class KEL_UTIL_EXPORT LogStream : public std::ostringstream
{
public:
    /// Opens a message. `logger` must outlive the object.
    LogStream(Poco::Logger& logger, Poco::Message::Priority priority);
    ~LogStream() override;

    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    /// Gives the message its place in the source: it travels as the message's source file and line, so a
    /// formatter can print it ("%U:%u"). `file` must stay valid until the object ends.
    void addDefaultOutput(char const* file, int line);

private:
    Poco::Logger& m_logger;
    const Poco::Message::Priority m_priority;
    char const* m_file = nullptr;
    int m_line = 0;
};

}  // namespace Logging
