#pragma once

#include <initializer_list>
#include <optional>

namespace NuboSd {

/// Delivers signals through a descriptor instead of handlers. Construct it before any thread is started: it
/// blocks them for all. SIGHUP stays ignored if it was, as under nohup.
class Signals
{
public:
    /// Throws std::system_error when the system has no descriptor left.
    Signals(std::initializer_list<int> numbers);
    ~Signals();

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable when a signal is pending.
    int descriptor() const { return m_descriptor; }

    /// The next pending signal, if there is one.
    std::optional<int> take() const;

private:
    const int m_descriptor;
};

}  // namespace NuboSd
