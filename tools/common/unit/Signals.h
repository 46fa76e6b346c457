#pragma once

#include <initializer_list>
#include <optional>

namespace NuboSd {

/// Signals that come through a descriptor instead of interrupting. To be made before any thread is started:
/// it blocks them for all. A hang-up that is ignored, as nohup has it, stays so.
class Signals
{
public:
    /// Throws std::system_error when the system gives no descriptor.
    Signals(std::initializer_list<int> numbers);
    ~Signals();

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable when one has come.
    int descriptor() const { return m_descriptor; }

    /// The next one; none when none has come.
    std::optional<int> take() const;

private:
    const int m_descriptor;
};

}  // namespace NuboSd
