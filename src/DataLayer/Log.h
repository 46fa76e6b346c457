#pragma once

#include <Common/OwnProcess.h>
#include <KELUtilLib/Logging.h>

#include <cstddef>
#include <list>
#include <optional>

/// Opens a line of the log. Streamed values follow the level word; the line end is added:
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

/// Bounds how many errors and warnings a thread logs while it reads received data: 16 bytes could cause
/// thirty lines.
class LogLimit
{
public:
    /// Takes effect with the first Scope.
    explicit LogLimit(std::size_t lines) : m_linesLeft(lines) {}

    LogLimit(const LogLimit&) = delete;
    LogLimit& operator=(const LogLimit&) = delete;

    /// Counts the calling thread's errors and warnings while it exists, and suppresses those beyond the
    /// limit.
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

    /// Whether the calling thread may log one more error or warning; counts it.
    static bool takeLine();

private:
    std::size_t m_linesLeft;
    std::size_t m_leftOut = 0;
};

/// Whether a line of that level is to be written. If so, it counts towards the LogLimit.
inline bool isLogged(LogLevel level)
{
    return Logging::Log::IsLogLevelActive(static_cast<Poco::Message::Priority>(level)) &&
           (level > LogLevel::Warning || LogLimit::takeLine());
}

/// Delays the calling thread's log lines until the object is destroyed. Create it before locking a mutex: a
/// log channel may wait, or call into the platform, and must not do so while the mutex is held.
class LogAfterwards
{
public:
    LogAfterwards();
    ~LogAfterwards();

    LogAfterwards(const LogAfterwards&) = delete;
    LogAfterwards& operator=(const LogAfterwards&) = delete;

    /// Creates a line that is written afterwards. Returns null if lines are written at once or memory is
    /// short.
    static Logging::LogStream* open(LogLevel level);

private:
    LogAfterwards* const m_outer;
    std::list<Logging::LogStream> m_lines;
};

/// One line of the log, written when the object is destroyed, or later if LogAfterwards is active. Use
/// SD_LOG.
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
    std::optional<Logging::LogStream> m_own;         // unset if the line is written afterwards
    Logging::LogStream& m_stream;
};

}  // namespace Nubo::ServiceDiscovery
