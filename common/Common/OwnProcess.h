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

    /// Differs between a process and all that are forked from it, unless memory was short at the first call.
    static std::uint64_t mark();

private:
    const std::uint64_t m_mark;
};

/// Stands around code of others: a subscriber, a delegate, a log channel. A child that they fork, and that
/// returns from them or throws, must not go on with the parent's work: it ends with the object, with exit
/// code 0 and without the handlers of exit().
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
