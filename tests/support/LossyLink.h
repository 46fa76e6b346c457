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
/// discovery datagrams by chance: each with the same probability, whatever became of those before it. Other
/// frames pass. Each direction has a generator of its own, so that a seed loses the same ones of a sequence
/// of datagrams every time.
class LossyLink
{
public:
    /// Datagrams to the discovery port, both ways together.
    struct Count
    {
        std::uint64_t passed;
        std::uint64_t lost;
    };

    using OnPassed = std::function<void(const std::string& frame)>;

    /// `onPassed` is called with every Ethernet frame that takes a discovery datagram from the other side to
    /// `one`, once that is on its way, on the relay's thread.
    LossyLink(const Namespace& one, const std::string& interfaceOne, const Namespace& other,
              const std::string& interfaceOther, std::uint32_t seed = 1, OnPassed onPassed = nullptr);
    ~LossyLink();

    LossyLink(const LossyLink&) = delete;
    LossyLink& operator=(const LossyLink&) = delete;

    /// From now on that share of the discovery datagrams is lost each way, 0 to 1. Nothing is at first.
    void lose(double share) { m_loss = share; }

    /// While it is cut no frame passes at all, though the interfaces stay up.
    void cut() { m_isCut = true; }
    void mend() { m_isCut = false; }

    Count count() const { return {m_passed, m_lost}; }

    /// The relay's namespace. What comes in on its interface "one" was sent by that side and is not lost yet.
    const Namespace& relay() const { return m_relay; }

private:
    /// What the relay has of one side: the interface that leads there, and the chance of what comes in.
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
