#pragma once

#include <cstdint>

namespace Common {

/// Distinguishes the process that created the object from processes forked from it later. Comparing process
/// IDs is not enough, because a child in another PID namespace may have its parent's number.
class OwnProcess
{
public:
    OwnProcess() : m_mark(mark()) {}

    bool isThis() const { return m_mark == mark(); }

    /// Ends the calling process, without the handlers of exit(), if it is a forked child. Threads call it
    /// after a subscriber, a delegate or a log channel has returned: a child that was forked there must not
    /// continue the parent's work.
    void endChild() const;

    /// Returns a number that differs between a process and all processes forked from it, unless memory was
    /// short at the first call.
    static std::uint64_t mark();

private:
    const std::uint64_t m_mark;
};

}  // namespace Common
