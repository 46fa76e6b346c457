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

/// Takes received datagrams from a queue, on a dedicated thread, and raises an event on that thread for every
/// entry that finds or offers a service. Logs and skips bad datagrams, packets and entries. Logs what
/// subscribers throw and continues.
class SDRequestHandler : public Poco::Runnable
{
public:
    /// Kind of a request: the type of an entry, with BitTTL0 set when its TTL is 0.
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

    /// Limits of the errors and warnings that reading one datagram may log: a base number, plus one per so
    /// many bytes of the datagram. A final warning reports the number of suppressed lines.
    static constexpr std::size_t fewestReadingFaults = 16;
    static constexpr std::size_t bytesPerReadingFault = 4;  // the smallest option
    /// The same for references to missing options. An entry of 16 bytes can contain thirty of them.
    static constexpr std::size_t fewestMissingOptions = 14;
    static constexpr std::size_t bytesPerMissingOption = 10;

    /// One entry with its options. The subscriber sets `result` to true when it has handled the entry.
    struct FindServicePayload
    {
        SOME_IP_SD_Header::EntryData entryData;
        Poco::Net::SocketAddress origin;  ///< the sender of the datagram
        bool result = false;
    };

    /// The same for offers and stop-offers. The entry of a stop-offer has TTL 0.
    struct OfferServicePayload
    {
        SOME_IP_SD_Header::EntryData entryData;
        Poco::Net::SocketAddress origin;
        bool result = false;
    };

    /// Raised for every FIND_SERVICE entry with a TTL above 0.
    Poco::BasicEvent<FindServicePayload, Poco::FastMutex> FindService;
    /// Raised for every OFFER_SERVICE entry, stop-offers included.
    Poco::BasicEvent<OfferServicePayload, Poco::FastMutex> OfferService;

    /// The queue contains SDMessageNotifications. The caller owns it; it must outlive the handler.
    explicit SDRequestHandler(Poco::NotificationQueue& queue);
    ~SDRequestHandler() override;

    /// Main loop of the thread. Returns after shutdown().
    void run() override;

    /// Makes run() return after the entry that is being handled. A thread that is just about to wait for work
    /// may miss the call, so the caller repeats it until the thread has ended.
    void shutdown();
    /// The same without taking a lock or waking the thread: for callers that must not wait, such as the
    /// handler's own thread.
    void stopFromWithin() noexcept;

    /// Waits for a datagram and handles it. Also returns when shutdown() wakes it.
    void handleNext();

protected:
    /// Splits a datagram into packets. Returns false when it stopped before the end of the datagram.
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
    std::atomic<bool> m_isShutDown{false};  // shutdown() was called since the last run() began
    Poco::NotificationQueue& m_queue;
};

}  // namespace Nubo::ServiceDiscovery
