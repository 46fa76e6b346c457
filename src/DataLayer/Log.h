#pragma once

#include <Common/OwnProcess.h>
#include <KELUtilLib/Logging.h>

#include <cstddef>
#include <list>
#include <optional>

/// Opens a line of the log; what is streamed into it follows the level word, and the line ends by itself:
///
///     SD_LOG(Error) << "SDRequestHandler - failed to handle Entry #" << number << '.';
///
/// When the level is off, nothing to the right is evaluated.
// NOLINTBEGIN(bugprone-macro-parentheses) the macro ends where the line's text begins
#define SD_LOG(LEVEL)                                                                                \
    !::Nubo::ServiceDiscovery::isLogged(::Nubo::ServiceDiscovery::LogLevel::LEVEL)                   \
        ? static_cast<void>(0)                                                                       \
        : ::Nubo::ServiceDiscovery::LogLine::Sink() &                                                \
              ::Nubo::ServiceDiscovery::LogLine(::Nubo::ServiceDiscovery::LogLevel::LEVEL, __FILE__, \
                                                __LINE__)                                            \
                  .stream()
// NOLINTEND(bugprone-macro-parentheses)

namespace Nubo::ServiceDiscovery {

enum class LogLevel
{
    Error = Poco::Message::PRIO_ERROR,
    Warning = Poco::Message::PRIO_WARNING,
    Notice = Poco::Message::PRIO_NOTICE,
    Debug = Poco::Message::PRIO_DEBUG,
    Trace = Poco::Message::PRIO_TRACE
};

/// Bounds how many errors and warnings a thread logs while it reads what a neighbour has sent: 16 bytes could
/// ask for thirty lines.
class LogLimit
{
public:
    /// Nothing is limited yet.
    explicit LogLimit(std::size_t lines) : m_linesLeft(lines) {}

    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;

    /// Lets the calling thread's errors and warnings count while it exists; those beyond the limit are left
    /// out.
    class Scope
    {
    public:
        explicit Scope(LogLimit& limit);
        ~Scope();

        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        LogLimit* const m_outer;
    };

    std::size_t leftOut() const { return m_leftOut; }

    /// Whether the calling thread may log one more error or warning, which then counts.
    static bool takeLine();

private:
    std::size_t m_linesLeft;
    std::size_t m_leftOut = 0;
};

/// Whether a line of that level is to be written; one that a LogLimit bounds counts as written then.
inline bool isLogged(LogLevel level)
{
    return Logging::Log::IsLogLevelActive(static_cast<Poco::Message::Priority>(level)) &&
           (level > LogLevel::Warning || LogLimit::takeLine());
}

/// Has the calling thread's lines written when the object ends. Made before a mutex is locked, it keeps a log
/// channel that calls into the platform, or waits, from doing so with the mutex held.
class LogAfterwards
{
public:
    LogAfterwards();
    ~LogAfterwards();

    LogAfterwards(const LogAfterwards&) = delete;
    LogAfterwards& operator=(const LogAfterwards&) = delete;

    /// Makes a line that is written afterwards; null when lines are written at once, or memory is short.
    static Logging::LogStream* open(LogLevel level);

private:
    LogAfterwards* const m_outer;
    std::list<Logging::LogStream> m_lines;
};

/// One line of the log, written when the object ends, or afterwards. Use SD_LOG.
class LogLine
{
public:
    /// Gives both branches of SD_LOG the same type.
    struct Sink
    {
        void operator&(std::ostream&) const {}
    };

    LogLine(LogLevel level, const char* file, int line);
    ~LogLine();

    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    std::ostream& stream() { return m_stream; }

private:
    Logging::LogStream& open(LogLevel level);

    const Common::NoReturnInChildren m_whenWritten;  // a log channel may fork
    std::optional<Logging::LogStream> m_own;         // unless it is written afterwards
    Logging::LogStream& m_stream;
};

}  // namespace Nubo::ServiceDiscovery
