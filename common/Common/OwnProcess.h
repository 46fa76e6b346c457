#pragma once

#include <cstdint>

namespace Common {

/// Tells the process that made the object from those that were forked from it since. In a PID namespace of
/// its own a child may have the same number.
class OwnProcess
{
public:
    OwnProcess() : m_mark(mark()) {}

    bool isThis() const { return m_mark == mark(); }

    /// For the end of what a thread did for a subscriber, a delegate or a log channel: a child that was
    /// forked there and has returned must not go on with the parent's work. It ends, without the handlers of
    /// exit().
    void endChild() const;

    /// Differs between a process and all that are forked from it, unless memory was short at the first call.
    static std::uint64_t mark();

private:
    const std::uint64_t m_mark;
};

}  // namespace Common
