#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "Multicast/MulticastReceiver.h"

#include <Poco/BasicEvent.h>
#include <Poco/Mutex.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Nubo::ServiceDiscovery {

class LogLimit;

using Multicast::MulticastDataPtr;

/// Takes received datagrams from a queue, on a thread of its own, and raises an event for every entry that
/// finds or offers a service. A bad datagram, packet or entry is logged and passed over; the thread goes
/// on. What runs on the events runs on this thread.
class SDRequestHandler : public Poco::Runnable
{
public:
    /// Kind of a request: an entry's type, with BitTTL0 when its TTL is 0.
    struct InternalEntryType
    {
        enum RequestType_t : std::uint16_t
        {
            FIND_SERVICE = 0x0000,
            OFFER_SERVICE = 0x0001,
            STOP_OFFER_SERVICE = 0x1001,
            SUBSCRIBE = 0x0006,
            STOP_SUBSCRIBE = 0x1006,
            SUBSCRIBE_ACK = 0x0007,
            SUBSCRIBE_NACK = 0x1007,
            INVALID = 0x00FF
        };
    };

    static constexpr std::uint16_t BitTTL0 = 0x1000;

    /// How many errors and warnings the reading of a datagram may log: so many, and one for so many bytes of
    /// it. Further ones are left out, and a warning gives their number.
    static constexpr std::size_t fewestReadingFaults = 16;
    static constexpr std::size_t bytesPerReadingFault = 4;  // no option is smaller
    /// The same for options that its entries refer to in vain, of which 16 bytes can name thirty.
    static constexpr std::size_t fewestMissingOptions = 14;
    static constexpr std::size_t bytesPerMissingOption = 10;

    /// One entry with its options. A subscriber sets `result` when it has handled the entry.
    struct FindServicePayload
    {
        SOME_IP_SD_Header::EntryData entryData;
        Poco::Net::SocketAddress origin;  ///< the sender of the datagram
        bool result = false;
    };

    /// The same for offers and stop-offers; a stop-offer's entry has TTL 0.
    struct OfferServicePayload
    {
        SOME_IP_SD_Header::EntryData entryData;
        Poco::Net::SocketAddress origin;
        bool result = false;
    };

    /// Raised for every FIND_SERVICE entry.
    Poco::BasicEvent<FindServicePayload, Poco::FastMutex> FindService;
    /// Raised for every OFFER_SERVICE entry, stop-offers included.
    Poco::BasicEvent<OfferServicePayload, Poco::FastMutex> OfferService;

    /// The queue holds SDMessageNotifications; it belongs to the caller and outlives the handler.
    explicit SDRequestHandler(Poco::NotificationQueue& queue);
    ~SDRequestHandler() override;

    /// The thread's work; returns after shutdown().
    void run() override;

    /// Lets run() return after the entry that is being handled. A thread that is just about to wait for work
    /// may miss the call; the caller repeats it until the thread has ended.
    void shutdown();
    /// The same from a thread that must not wait, be it the handler's own.
    void stopFromWithin() noexcept;

    /// Waits for a datagram and handles it; returns also when the handler is shut down.
    void handleNext();

protected:
    /// Splits a datagram into packets; false when it could not be read to its end.
    virtual bool parsePacket(MulticastDataPtr& msg, std::vector<SOME_IP_SD_Header::Ptr>& out) const;
    bool internal_handleEntry(const SOME_IP_SD_Header::EntryData& entryData,
                              const Poco::Net::SocketAddress& origin);

private:
    void warnAboutMissingDelegates() const;
    void handleDatagram(MulticastDataPtr& msg);
    void handlePacket(const SOME_IP_SD_Header& packet, const Poco::Net::SocketAddress& origin,
                      LogLimit& missingOptions);
    void handleEntry(const SOME_IP_SD_Header& packet, std::uint16_t index,
                     const Poco::Net::SocketAddress& origin, LogLimit& missingOptions);

    std::atomic<bool> m_running{false};
    std::atomic<bool> m_isShutDown{false};  // and not run since
    Poco::NotificationQueue& m_queue;
};

}  // namespace Nubo::ServiceDiscovery
