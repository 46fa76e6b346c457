#pragma once

#include "support/Namespace.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <thread>

namespace Nubo::ServiceDiscovery::Testing {

/// Joins two namespaces by a pair of interfaces that are up, as connect() does, but over a relay that loses
/// discovery datagrams by chance: each with the same probability, independently of the others. Other frames
/// pass. Each direction has a separate generator, so that the same seed always loses the same datagrams of a
/// sequence.
class LossyLink
{
public:
    /// Numbers of datagrams to the discovery port, in both directions together.
    struct Count
    {
        std::uint64_t passed;
        std::uint64_t lost;
    };

    using OnPassed = std::function<void(const std::string& frame)>;

    /// `onPassed` is called with every Ethernet frame that carries a discovery datagram from the other side
    /// to `one`, after it has been passed on, on the relay's thread.
    LossyLink(const Namespace& one, const std::string& interfaceOne, const Namespace& other,
              const std::string& interfaceOther, std::uint32_t seed = 1, OnPassed onPassed = nullptr);
    ~LossyLink();

    LossyLink(const LossyLink&) = delete;
    LossyLink& operator=(const LossyLink&) = delete;

    /// Sets the share of discovery datagrams lost in each direction, 0 to 1. Initially 0.
    void lose(double share) { m_loss = share; }

    /// While it is cut, no frame passes, though the interfaces stay up.
    void cut() { m_isCut = true; }
    void mend() { m_isCut = false; }

    Count count() const { return {m_passed, m_lost}; }

    /// The relay's namespace. Its interface "one" receives all frames of that side, before any is lost.
    const Namespace& relay() const { return m_relay; }

private:
    /// The relay's state for one side: its interface there, and the generator for frames from there.
    struct End
    {
        End(const Namespace& side, const std::string& sidesInterface, const Namespace& relay,
            const std::string& interface, std::uint32_t seed);
        ~End();

        const int socket;
        std::mt19937 generator;
    };

    void run();
    void forward(End& from, const End& to);

    const Namespace m_relay;
    const OnPassed m_onPassed;
    std::atomic<double> m_loss{0};
    std::atomic<bool> m_isCut{false};
    std::atomic<std::uint64_t> m_passed{0};
    std::atomic<std::uint64_t> m_lost{0};
    End m_one;
    End m_other;
    const int m_stop;  // an event
    std::thread m_thread;
};

}  // namespace Nubo::ServiceDiscovery::Testing
