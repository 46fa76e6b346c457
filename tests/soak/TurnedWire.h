#pragma once

#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"
#include "soak/Offers.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Carries datagrams between the engines of a program that is linked with this: sender and receiver have no
/// sockets there. Nothing is carried but from the thread that also calls `settle`.
class TurnedWire
{
public:
    /// Where an engine is plugged in.
    struct Port
    {
        std::size_t unit;
        std::string address;
        bool isPlugged = true;
        double loss = 0;  ///< of what comes in: a share
        Multicast::MulticastReceiver* receiver = nullptr;
        bool isListening = false;  // the receiver runs,
        bool isJoined = false;     // and has been told of its interface
        bool isSending = false;    // so has the sender
    };

    struct Counts
    {
        std::uint64_t carried = 0;
        std::uint64_t lost = 0;
        std::uint64_t doubled = 0;
    };

    explicit TurnedWire(std::uint32_t seed);
    ~TurnedWire();

    TurnedWire(const TurnedWire&) = delete;
    TurnedWire& operator=(const TurnedWire&) = delete;

    /// The engine that is made next uses the port.
    void plugInNext(Port& port);

    /// Called with what an engine sends, and then with what the others receive of it, once they have handled
    /// it.
    std::function<void(const Port& from, const std::vector<SentPacket>& packets)> onSent;
    std::function<void(const Port& to, const std::vector<SentPacket>& packets)> onHandled;

    void carry(const Port& from, const std::string& datagram);

    /// Waits until the engines have handled what was carried. Throws when one does not.
    void settle();

    const Counts& counts() const { return m_counts; }

private:
    using Packets = std::shared_ptr<const std::vector<SentPacket>>;

    struct UnderWay
    {
        const Port* to;
        Multicast::MulticastDataPtr data;
        Packets packets;
    };

    bool hasChance(double share);
    void deliver(const Port& from, Port& to, const std::string& datagram, const Packets& packets);

    std::mt19937 m_random;
    std::vector<Port*> m_ports;
    std::vector<UnderWay> m_underWay;
    Counts m_counts;

    friend struct TurnedWireEnds;
    void attach(Port& port);
    void detach(Port& port);
};

}  // namespace Nubo::ServiceDiscovery::Testing
