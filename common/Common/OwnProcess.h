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

    /// Returns a number that differs between a process and all processes forked from it, unless memory was
    /// short at the first call.
    static std::uint64_t mark();

private:
    const std::uint64_t m_mark;
};

/// Guards a call of foreign code: a subscriber, a delegate, a log channel. If that code forks, and the child
/// returns or throws, the child must not continue the parent's work: the destructor ends it with exit code 0,
/// without the handlers of exit().
class NoReturnInChildren
{
public:
    NoReturnInChildren() = default;
    ~NoReturnInChildren();

    NoReturnInChildren(const NoReturnInChildren&) = delete;
    NoReturnInChildren& operator=(const NoReturnInChildren&) = delete;

private:
    const OwnProcess m_process;
};

}  // namespace Common
