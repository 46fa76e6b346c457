#pragma once

#include <atomic>

namespace Nubo::ServiceDiscovery::Multicast {

/// Closes a descriptor in children that are forked while the object exists: a socket that stayed open in one
/// of them would block the port. Destroy the object, or call giveUp(), before you close the descriptor.
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
