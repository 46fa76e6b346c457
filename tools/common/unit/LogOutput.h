#pragma once

#include <Poco/Message.h>

#include <cstddef>
#include <deque>
#include <string>

namespace NuboSd {

/// Writes the library's log to standard error, one line a message with the time of day. What is not
/// printable ASCII is escaped: names and bytes from the network stand in the messages.
void openLog(Poco::Message::Priority level);

/// While it exists, errors that the library logs on this thread are caught instead of written. One at a
/// time on a thread.
class ErrorCatcher
{
public:
    enum class Others
    {
        Written,
        Dropped  ///< what is no error is not written either
    };

    explicit ErrorCatcher(Others others = Others::Written);
    ~ErrorCatcher();

    ErrorCatcher(const ErrorCatcher&) = delete;
    ErrorCatcher& operator=(const ErrorCatcher&) = delete;

    /// Whether the message is not to be written; keeps the first error.
    bool takes(const Poco::Message& message);

    /// The first error caught, without its level word; empty if there was none.
    const std::string& firstError() const { return m_firstError; }

private:
    const Others m_others;
    std::string m_firstError;
};

/// While it exists and standard error is a terminal, the log is kept instead of written: it would tear what
/// is shown there. Then it is written. One at a time.
class LogKeeper
{
public:
    LogKeeper();
    ~LogKeeper();

    LogKeeper(const LogKeeper&) = delete;
    LogKeeper& operator=(const LogKeeper&) = delete;

    /// The newest line kept; empty if there is none.
    std::string newest() const;

    /// Keeps a line; of too many, the oldest go.
    void keep(const std::string& line);

private:
    std::deque<std::string> m_lines;
    std::size_t m_dropped = 0;
};

}  // namespace NuboSd
