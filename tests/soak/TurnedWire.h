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

/// Carries datagrams between the engines of a program that links this file, whose senders and receivers have
/// no sockets. Carries only datagrams that are sent on the thread that also calls `settle`.
class TurnedWire
{
public:
    /// The connection of an engine to the wire.
    struct Port
    {
        std::size_t unit;
        std::string address;
        bool isPlugged = true;
        double loss = 0;  ///< share of incoming datagrams that are lost
        Multicast::MulticastReceiver* receiver = nullptr;
        bool isListening = false;  // the receiver is running
        bool isJoined = false;     // the receiver has its interface
        bool isSending = false;    // the sender has its interface
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

    /// Assigns the port to the next engine that is created.
    void plugInNext(Port& port);

    /// Called with the datagrams that an engine sends, and then with those that others have received and
    /// handled.
    std::function<void(const Port& from, const std::vector<SentPacket>& packets)> onSent;
    std::function<void(const Port& to, const std::vector<SentPacket>& packets)> onHandled;

    void carry(const Port& from, const std::string& datagram);

    /// Waits until the engines have handled all carried datagrams. Throws if one does not.
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
