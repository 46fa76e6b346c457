#pragma once

#include <atomic>

namespace Nubo::ServiceDiscovery::Multicast {

/// While it exists, forked children close a descriptor: a socket that lives on in one of them would hold the
/// port. To be given up before the descriptor is closed.
class ClosedInChildren
{
public:
    /// Throws std::bad_alloc.
    explicit ClosedInChildren(int descriptor);
    ~ClosedInChildren() { giveUp(); }

    ClosedInChildren(const ClosedInChildren&) = delete;
    ClosedInChildren& operator=(const ClosedInChildren&) = delete;

    void giveUp() noexcept;

private:
    std::atomic<int>* m_place;
};

}  // namespace Nubo::ServiceDiscovery::Multicast
