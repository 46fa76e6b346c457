#pragma once

#include "Multicast/MulticastReceiver.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Delegate.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

class Receiver : public Multicast::MulticastReceiver
{
public:
    using MulticastReceiver::joinGroupOnInterface_byIP;
    using MulticastReceiver::leaveGroupOnInterface_byIP;
    using MulticastReceiver::MulticastReceiver;
    using MulticastReceiver::onReactorShutdown;
    using MulticastReceiver::onSocketError;
};

/// Writes down what the receiver hands over.
class Subscriber
{
public:
    explicit Subscriber(Receiver& receiver) : m_receiver(&receiver)
    {
        m_receiver->MulticastMessageReceived += Poco::delegate(this, &Subscriber::onMessage);
    }
    ~Subscriber()
    {
        if (m_receiver)
            m_receiver->MulticastMessageReceived -= Poco::delegate(this, &Subscriber::onMessage);
    }

    /// Leaves it to the receiver to end the subscription, with itself.
    void outliveReceiver() { m_receiver = nullptr; }

    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    std::vector<Multicast::MulticastDataPtr> received() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

    /// The bytes of each, as hexadecimal text.
    std::vector<std::string> bytes() const
    {
        std::vector<std::string> result;
        for (const Multicast::MulticastDataPtr& data : received())
            result.push_back(toHex(data->buffer.begin(), data->buffer.size()));
        return result;
    }

    /// Waits for that many datagrams in all.
    bool gets(std::size_t count) const
    {
        return eventually([&] { return received().size() >= count; });
    }

    /// Has every further datagram followed by a call, on the receiver's thread.
    void onDatagram(std::function<void()> call)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_call = std::move(call);
    }

private:
    void onMessage(Multicast::MulticastDataPtr& data)
    {
        std::function<void()> call;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_received.push_back(data);
            call = m_call;
        }
        if (call)
            call();
    }

    Receiver* m_receiver;
    mutable std::mutex m_mutex;
    std::vector<Multicast::MulticastDataPtr> m_received;
    std::function<void()> m_call;
};

/// eth0 with the address fd00::1 here and fd00::2 there.
struct MulticastReceiverTest : ::testing::Test
{
    MulticastReceiverTest() { network.link("eth0", "fd00::1", "fd00::2"); }

    void join(const std::string& interface = "eth0", const std::string& address = "fd00::1")
    {
        receiver->joinGroupOnInterface_byIP(interface, address);
    }

    void leave(const std::string& interface = "eth0", const std::string& address = "fd00::1")
    {
        receiver->leaveGroupOnInterface_byIP(interface, address);
    }

    void makeWithIndex77() const
    {
        network.here.ip("link add eth7 index 77 type veth peer name eth7 netns there");
        network.here.ip("link set eth7 up");
        network.here.addAddress("eth7", "fd07::1/64");
    }

    /// Ends the subscription and the receiver.
    void destroyReceiver()
    {
        subscriber.reset();
        receiver.reset();
    }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
    std::optional<Receiver> receiver{std::in_place, unit.hub, discoveryGroup, discoveryPort};
    std::optional<Subscriber> subscriber{std::in_place, *receiver};
};

/// The same with the receiver started, the group joined, and another unit that speaks on eth0.
struct RunningReceiverTest : MulticastReceiverTest
{
    RunningReceiverTest()
    {
        EXPECT_TRUE(receiver->start());
        join();
        log.clear();
    }

    Speaker speaker{network.there, "eth0", "fd00::2"};
};

}  // namespace Nubo::ServiceDiscovery::Testing
