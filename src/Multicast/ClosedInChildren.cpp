#include "Multicast/ClosedInChildren.h"

#include <new>

#include <pthread.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Multicast {

namespace {

constexpr int none = -1;

/// Holds a descriptor. Places are reused but never freed, because a child may be forked at any moment.
struct Place
{
    std::atomic<int> descriptor{none};
    Place* next = nullptr;
};

std::atomic<Place*> places{nullptr};

void closeAll()
{
    for (Place* place = places; place; place = place->next) {
        const int descriptor = place->descriptor.exchange(none);
        if (descriptor != none)
            ::close(descriptor);
    }
}

}  // namespace

ClosedInChildren::ClosedInChildren(int descriptor)
{
    static const int failure = ::pthread_atfork(nullptr, nullptr, closeAll);
    if (failure != 0)
        throw std::bad_alloc();
    for (Place* place = places; place; place = place->next) {
        int free = none;
        if (place->descriptor.compare_exchange_strong(free, descriptor)) {
            m_place = &place->descriptor;
            return;
        }
    }
    auto* const place = new Place;
    place->descriptor = descriptor;
    m_place = &place->descriptor;
    place->next = places;
    while (!places.compare_exchange_weak(place->next, place)) {
    }
}

void ClosedInChildren::giveUp() noexcept
{
    if (m_place)
        *m_place = none;
    m_place = nullptr;
}

}  // namespace Nubo::ServiceDiscovery::Multicast
