#include "LogicLayer/SDRequestHandler.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "LogicLayer/SDMessageNotification.h"

#include <Common/CurrentException.h>
#include <KELUtilLib/DebugUtils.h>

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>

#include <istream>
#include <streambuf>

namespace Nubo::ServiceDiscovery {

namespace {

/// Lets a stream read a datagram without copying it.
class DataBuffer : public std::basic_streambuf<char>
{
public:
    explicit DataBuffer(Poco::Buffer<char>& buffer) { setg(buffer.begin(), buffer.begin(), buffer.end()); }

    std::size_t remaining() const { return static_cast<std::size_t>(egptr() - gptr()); }
};

std::uint16_t requestType(const SOME_IP_SD_Entry& entry)
{
    const std::uint16_t type = entry.getType();
    return entry.getTTL() == 0 ? static_cast<std::uint16_t>(type | SDRequestHandler::BitTTL0) : type;
}

SOME_IP_SD_Header::EntryData entryDataOf(const SOME_IP_SD_Header& packet, std::uint16_t index,
                                         LogLimit& missingOptions)
{
    const LogLimit::Scope lookingUp(missingOptions);
    return packet.getEntryData(index);
}

}  // namespace

SDRequestHandler::SDRequestHandler(Poco::NotificationQueue& queue) : m_queue(queue)
{
    FindService.enable();
    OfferService.enable();
}

SDRequestHandler::~SDRequestHandler() = default;

void SDRequestHandler::run()
{
    const EngineFrame frame(this);
    m_isShutDown = false;
    m_running = true;
    // Only the first thread of the process gets the name; later ones stay unnamed.
    static const bool nameSet = (DebugUtils::setThreadName("SdReqHdlr", "SDRequestHandler::run"), true);
    static_cast<void>(nameSet);

    warnAboutMissingDelegates();
    while (m_running) {
        try {
            handleNext();
        }
        catch (...) {
            SD_LOG(Error) << "SDRequestHandler - caught exception: " << Common::currentException;
        }
    }
}

void SDRequestHandler::shutdown()
{
    m_isShutDown = true;
    m_running = false;
    m_queue.wakeUpAll();
}

void SDRequestHandler::stopFromWithin() noexcept
{
    m_isShutDown = true;
    m_running = false;
}

void SDRequestHandler::warnAboutMissingDelegates() const
{
    if (FindService.empty())
        SD_LOG(Warning) << "SDRequestHandler - found no Delegates (yet) for FindService Entries.";
    if (OfferService.empty())
        SD_LOG(Warning) << "SDRequestHandler - found no Delegates (yet) for OfferService Entries.";
}

void SDRequestHandler::handleNext()
{
    const Poco::AutoPtr<Poco::Notification> notification(m_queue.waitDequeueNotification());
    auto* message = dynamic_cast<SDMessageNotification*>(const_cast<Poco::Notification*>(notification.get()));
    if (!message || message->getMsg().isNull()) {
        if (m_running)
            SD_LOG(Error) << "SDRequestHandler - received an empty work-notification.";
        return;
    }
    handleDatagram(message->getMsg());
}

void SDRequestHandler::handleDatagram(MulticastDataPtr& msg)
{
    std::vector<SOME_IP_SD_Header::Ptr> packets;
    const std::size_t size = msg->buffer.size();
    LogLimit readingFaults(fewestReadingFaults + size / bytesPerReadingFault);
    LogLimit missingOptions(fewestMissingOptions + size / bytesPerMissingOption);
    try {
        const LogLimit::Scope reading(readingFaults);
        parsePacket(msg, packets);
    }
    catch (const Poco::Exception& exception) {
        constexpr unsigned char groupSize = 4;
        SD_LOG(Error) << "SDRequestHandler - failed to parse message: \"" << exception.message() << "\".";
        SD_LOG(Trace) << "SDRequestHandler - message: "
                      << DebugUtils::HexDump(msg->buffer.begin(),
                                             static_cast<unsigned short>(msg->buffer.size()), groupSize);
    }

    SD_LOG(Debug) << "run: processing " << packets.size() << " Message(s)...";
    for (const SOME_IP_SD_Header::Ptr& packet : packets) {
        if (m_isShutDown)
            break;
        if (packet.isNull()) {
            SD_LOG(Error) << "SDRequestHandler - found nullptr SOME/IP Header.";
            continue;
        }
        handlePacket(*packet, msg->origin, missingOptions);
    }
    if (const std::size_t leftOut = readingFaults.leftOut() + missingOptions.leftOut())
        SD_LOG(Warning) << "SDRequestHandler - left out " << leftOut
                        << " further errors and warnings about a message of " << size << " Bytes.";
}

void SDRequestHandler::handlePacket(const SOME_IP_SD_Header& packet, const Poco::Net::SocketAddress& origin,
                                    LogLimit& missingOptions)
{
    if (!packet.getSomeIP().isValid()) {
        SD_LOG(Error) << "SDRequestHandler - found invalid SOME/IP Header.";
        SD_LOG(Trace) << "SDRequestHandler - invalid SOME/IP Header: " << packet.getSomeIP().toString(0);
        return;
    }
    if (!packet.getSomeIP_SD().isValid()) {
        SD_LOG(Error) << "SDRequestHandler - found invalid SOME/IP SD Payload.";
        SD_LOG(Trace) << "SDRequestHandler - invalid SOME/IP SD Payload: "
                      << packet.getSomeIP_SD().toString(0);
        return;
    }
    SD_LOG(Debug) << "run: processing " << packet.getNumOfEntries() << " Entrie(s)...";
    for (std::size_t i = 0; i < packet.getNumOfEntries() && !m_isShutDown; ++i)
        handleEntry(packet, static_cast<std::uint16_t>(i), origin, missingOptions);
}

void SDRequestHandler::handleEntry(const SOME_IP_SD_Header& packet, std::uint16_t index,
                                   const Poco::Net::SocketAddress& origin, LogLimit& missingOptions)
{
    const SOME_IP_SD_Header::EntryData entryData = entryDataOf(packet, index, missingOptions);
    const std::size_t number = index + std::size_t{1};
    if (entryData.entry.isNull()) {
        SD_LOG(Error) << "SDRequestHandler - found nullptr SOME/IP Entr, Entry #" << number << " skipped!";
        return;
    }
    const std::uint16_t instanceID = entryData.entry->getInstanceID();
    if (SOME_IP_SD_Entry::isReservedInstanceID(instanceID)) {
        SD_LOG(Debug) << "SDRequestHandler - found Entry with reserved Instance-ID 0x" << std::hex
                      << instanceID << std::dec << ", Entry #" << number << " skipped!";
        return;
    }
    bool handled = false;
    try {
        handled = internal_handleEntry(entryData, origin);
    }
    catch (...) {
        // The other entries of the datagram must still be processed.
        SD_LOG(Error) << "SDRequestHandler - caught exception: " << Common::currentException;
    }
    if (!handled)
        SD_LOG(Error) << "SDRequestHandler - failed to handle Entry #" << number << "/"
                      << packet.getNumOfEntries() << ".";
}

bool SDRequestHandler::parsePacket(MulticastDataPtr& msg, std::vector<SOME_IP_SD_Header::Ptr>& out) const
{
    if (msg.isNull()) {
        SD_LOG(Error) << "SDRequestHandler - received nullptr MulticastReceiver packet.";
        return false;
    }
    const std::size_t received = msg->buffer.size();
    DataBuffer buffer(msg->buffer);
    std::istream stream(&buffer);

    bool result = true;
    std::size_t parsed = 0;
    // A zero byte at the start of a packet marks padding, which ends the datagram and is not an error.
    while (stream.peek() != 0x00 && stream.good()) {
        SOME_IP_SD_Header::Ptr packet = new SOME_IP_SD_Header(buffer.remaining());
        stream >> *packet;
        if (!stream.good() || !packet->getSomeIP().isValid() || !packet->getSomeIP_SD().isValid()) {
            result = false;
            break;
        }
        SD_LOG(Trace) << "SDRequestHandler - message content: " << packet->toString(0);
        parsed += packet->getSize();
        out.push_back(packet);
    }
    if (received != 0 && parsed != received)
        SD_LOG(Warning) << "SDRequestHandler - length-error detected: " << received << " Bytes received, but "
                        << parsed << " Bytes parsed!";
    return result;
}

bool SDRequestHandler::internal_handleEntry(const SOME_IP_SD_Header::EntryData& entryData,
                                            const Poco::Net::SocketAddress& origin)
{
    if (entryData.entry.isNull() || !entryData.entry->isValid()) {
        SD_LOG(Error) << "SDRequestHandler - received invalid or empty EntryData.";
        return false;
    }
    const std::uint16_t request = requestType(*entryData.entry);
    switch (request) {
        case InternalEntryType::FIND_SERVICE: {
            FindServicePayload payload{entryData, origin, false};
            FindService.notify(this, payload);
            return true;
        }
        case InternalEntryType::OFFER_SERVICE:
        case InternalEntryType::STOP_OFFER_SERVICE: {
            OfferServicePayload payload{entryData, origin, false};
            OfferService.notify(this, payload);
            return true;
        }
        case InternalEntryType::SUBSCRIBE:
        case InternalEntryType::STOP_SUBSCRIBE:
        case InternalEntryType::SUBSCRIBE_ACK:
        case InternalEntryType::SUBSCRIBE_NACK:
            SD_LOG(Debug) << "SDRequestHandler - found not (yet) supported EventgroupEntry, skipping.";
            return true;
        default:
            SD_LOG(Error) << "SDRequestHandler - found unknown Entry type 0x" << std::hex << request << ".";
            return false;
    }
}

}  // namespace Nubo::ServiceDiscovery
