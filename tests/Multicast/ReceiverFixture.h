#pragma once

#include "Multicast/MulticastReceiver.h"
#include "support/LinkedFixture.h"
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

using Multicast::MulticastDataPtr;

/// A receiver whose parts a test can reach.
class Receiver : public Multicast::MulticastReceiver
{
public:
    using MulticastReceiver::joinGroupOnInterface_byIP;
    using MulticastReceiver::leaveGroupOnInterface_byIP;
    using MulticastReceiver::MulticastReceiver;
    using MulticastReceiver::onReactorShutdown;
    using MulticastReceiver::onSocketError;
};

/// Records the datagrams that the receiver hands over.
class ReceiverSubscriber
{
public:
    explicit ReceiverSubscriber(Receiver& receiver) : m_receiver(&receiver)
    {
        m_receiver->MulticastMessageReceived += Poco::delegate(this, &ReceiverSubscriber::onMessage);
    }
    ~ReceiverSubscriber()
    {
        if (m_receiver)
            m_receiver->MulticastMessageReceived -= Poco::delegate(this, &ReceiverSubscriber::onMessage);
    }

    /// Lets the subscription end with the receiver.
    void outliveReceiver() { m_receiver = nullptr; }

    ReceiverSubscriber(const ReceiverSubscriber&) = delete;
    ReceiverSubscriber& operator=(const ReceiverSubscriber&) = delete;

    std::vector<MulticastDataPtr> received() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

    /// The bytes of each datagram, as hexadecimal text.
    std::vector<std::string> bytes() const
    {
        std::vector<std::string> result;
        for (const MulticastDataPtr& data : received())
            result.push_back(toHex(data->buffer.begin(), data->buffer.size()));
        return result;
    }

    /// Waits until it has received that many datagrams in total.
    bool gets(std::size_t count) const
    {
        return eventually([&] { return received().size() >= count; });
    }

    /// Makes every further datagram call the function, on the receiver's thread.
    void onDatagram(std::function<void()> call)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_call = std::move(call);
    }

private:
    void onMessage(MulticastDataPtr& data)
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
    std::vector<MulticastDataPtr> m_received;
    std::function<void()> m_call;
};

constexpr auto leavingAll =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";
constexpr auto leaving0 =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\".";

/// A receiver on the unit here, not started, with a subscriber.
struct ReceiverFixture : LinkedFixture
{
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

    HubUnit unit;
    LogCatcher log;
    std::optional<Receiver> receiver{std::in_place, unit.hub, discoveryGroup, discoveryPort};
    std::optional<ReceiverSubscriber> subscriber{std::in_place, *receiver};
};

/// The same with the receiver started, the group joined, and another unit that sends on eth0.
struct RunningReceiverFixture : ReceiverFixture
{
    RunningReceiverFixture()
    {
        EXPECT_TRUE(receiver->start());
        join();
        log.clear();
    }

    Speaker speaker{network.there, "eth0", "fd00::2"};
};

}  // namespace Nubo::ServiceDiscovery::Testing
