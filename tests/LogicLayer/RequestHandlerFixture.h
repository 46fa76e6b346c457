#pragma once

#include "LogicLayer/SDMessageNotification.h"
#include "LogicLayer/SDRequestHandler.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Waiting.h"

#include <Poco/Delegate.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// The handler's thread. The destructor repeats shutdown() until the thread has ended, as the hub does.
class HandlerThread
{
public:
    explicit HandlerThread(SDRequestHandler& handler) : m_handler(handler) { m_thread.start(handler); }
    ~HandlerThread()
    {
        do
            m_handler.shutdown();
        while (!m_thread.tryJoin(10));
    }

private:
    SDRequestHandler& m_handler;
    Poco::Thread m_thread;
};

/// Waits until the handler's thread has handled everything and is idle. An empty queue is not enough: the
/// last datagram taken off it may still be being handled, and a shutdown would cut that short.
inline bool handlesAll(const Poco::NotificationQueue& queue)
{
    return eventually([&] { return queue.hasIdleThreads(); });
}

/// Records the events that the handler raises: "find #65535 TTL 120", "offer #1 TTL 0".
class RequestSubscriber
{
public:
    explicit RequestSubscriber(SDRequestHandler& handler) : m_handler(handler)
    {
        m_handler.FindService += Poco::delegate(this, &RequestSubscriber::onFind);
        m_handler.OfferService += Poco::delegate(this, &RequestSubscriber::onOffer);
    }
    ~RequestSubscriber()
    {
        m_handler.FindService -= Poco::delegate(this, &RequestSubscriber::onFind);
        m_handler.OfferService -= Poco::delegate(this, &RequestSubscriber::onOffer);
    }

    std::vector<std::string> events;
    std::vector<SDRequestHandler::FindServicePayload> finds;
    std::vector<SDRequestHandler::OfferServicePayload> offers;
    const void* sender = nullptr;
    /// Called with every event.
    std::function<void()> onEvent;

private:
    void onFind(const void* from, SDRequestHandler::FindServicePayload& payload)
    {
        finds.push_back(payload);
        note(from, "find", payload.entryData);
    }

    void onOffer(const void* from, SDRequestHandler::OfferServicePayload& payload)
    {
        offers.push_back(payload);
        note(from, "offer", payload.entryData);
    }

    void note(const void* from, const std::string& kind, const SOME_IP_SD_Header::EntryData& data)
    {
        sender = from;
        events.push_back(kind + " #" + std::to_string(data.entry->getInstanceID()) + " TTL " +
                         std::to_string(data.entry->getTTL()));
        if (onEvent)
            onEvent();
    }

    SDRequestHandler& m_handler;
};

/// An offer, as bytes.
inline std::string entryOf(const std::string& instance, const std::string& ttl = "00 00 78")
{
    return Packets::Entry{"01", "00 00 00", instance, ttl}.bytes();
}

/// A request handler and a subscriber to its events.
struct RequestHandlerFixture : ::testing::Test
{
    void enqueue(const std::string& bytes)
    {
        queue.enqueueNotification(new SDMessageNotification(Packets::datagram(bytes)));
    }

    /// Runs the handler until everything in the queue has been handled.
    void handleWaiting()
    {
        const HandlerThread thread(handler);
        ASSERT_TRUE(handlesAll(queue));
    }

    void handle(const std::string& bytes)
    {
        enqueue(bytes);
        handleWaiting();
    }

    Poco::NotificationQueue queue;
    SDRequestHandler handler{queue};
    RequestSubscriber subscriber{handler};
    LogCatcher log;
};

}  // namespace Nubo::ServiceDiscovery::Testing
