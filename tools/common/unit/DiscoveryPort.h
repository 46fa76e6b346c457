#pragma once

#include <string>

namespace NuboSd {

/// Whether a registry could bind this unit's discovery port.
struct DiscoveryPort
{
    enum class State
    {
        Free,
        Taken,  ///< by another registry
        Unusable
    };

    State state = State::Free;
    std::string error;  ///< the system's reason when it is not free

    /// Binds the port and releases it at once.
    static DiscoveryPort probe();
};

}  // namespace NuboSd
