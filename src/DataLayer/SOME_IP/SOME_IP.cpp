#include "DataLayer/SOME_IP/SOME_IP.h"

#include "DataLayer/Log.h"
#include "DataLayer/WireStream.h"

#include <sstream>

namespace Nubo::ServiceDiscovery {

using SOME_IP_Types::HeaderValues;

namespace {

/// Kept for compatibility: the bound applies to the length field, which includes 8 header bytes. The checks
/// of the payload are exact.
constexpr std::uint32_t shortestLength = 12;

constexpr std::size_t sessionIDOffset = 10;
constexpr std::streamsize sizeOnWire = SOME_IP::headerSize;

/// Ends the log line about a header that is cut short.
struct AndLengthField
{
    std::uint32_t length;

    friend std::ostream& operator<<(std::ostream& stream, AndLengthField field)
    {
        return stream << " and length field contains '" << field.length << "'!";
    }
};

}  // namespace

SOME_IP::SOME_IP(SOME_IP_SD_Types::MetaData* metaData) : m_metaData(metaData), m_valid(metaData != nullptr)
{
    if (!metaData)
        SD_LOG(Error) << "SOME_IP: received nullptr as metaData!";
}

bool SOME_IP::setMessageID(std::uint32_t messageID)
{
    return setServiceID(static_cast<std::uint16_t>(messageID >> 16)) &&
           setMethodID(static_cast<std::uint16_t>(messageID));
}

bool SOME_IP::setRequestID(std::uint32_t requestID)
{
    return setClientID(static_cast<std::uint16_t>(requestID >> 16)) &&
           setSessionID(static_cast<std::uint16_t>(requestID));
}

bool SOME_IP::updateLength(std::size_t payloadSize)
{
    return setLength(static_cast<std::uint32_t>(payloadSize + 8));
}

void SOME_IP::overwriteSessionID(char* header, std::uint16_t sessionID)
{
    header[sessionIDOffset] = static_cast<char>(sessionID >> 8);
    header[sessionIDOffset + 1] = static_cast<char>(sessionID);
}

bool SOME_IP::isReservedServiceID(std::uint16_t serviceID)
{
    return HeaderValues::Reserved_ServiceIDs.count(serviceID) != 0 ||
           (serviceID >= HeaderValues::ServiceID_Reserved_LowerLimit &&
            serviceID <= HeaderValues::ServiceID_Reserved_UpperLimit);
}

bool SOME_IP::isReservedMethodID(std::uint16_t methodID)
{
    return HeaderValues::Reserved_MethodIDs.count(methodID) != 0;
}

std::string SOME_IP::toString(unsigned int indent) const
{
    std::ostringstream text;
    text << std::string(indent, '\t') << "SOME/IP: " << std::hex;
    text << "ServiceID(0x" << getServiceID() << "), MethodID(0x" << getMethodID() << "), ";
    text << std::dec << "Length(" << getLength() << "), " << std::hex;
    text << "ClientID(0x" << getClientID() << "), SessionID(0x" << getSessionID() << "), ";
    text << "ProtocolVersion(0x" << +getProtocolVersion() << "), ";
    text << "InterfaceVersion(0x" << +getInterfaceVersion() << "), ";
    text << "MessageType(0x" << +getMessageType() << "), ReturnCode(0x" << +getReturnCode() << ")";
    return text.str();
}

std::ostream& operator<<(std::ostream& stream, const SOME_IP& header)
{
    WireWriter writer(stream);
    writer.write(header.getServiceID(), header.getMethodID(), header.getLength(), header.getClientID(),
                 header.getSessionID(), header.getProtocolVersion(), header.getInterfaceVersion(),
                 header.getMessageType(), header.getReturnCode());
    writer.checkWritten("SOME_IP header", sizeOnWire, static_cast<std::streamoff>(header.getSize()));
    return stream;
}

std::istream& operator>>(std::istream& stream, SOME_IP& header)
{
    SOME_IP::HeaderFields& fields = header.m_headerFields;
    WireReader reader(stream);

    reader.read(fields.messageID.serviceID, fields.messageID.methodID, fields.length);
    if (fields.length < shortestLength) {
        SD_LOG(Error) << "SOME_IP-SD message too short, length=" << fields.length << ", which is <"
                      << shortestLength << "!";
        header.makeInvalid();
        return stream;
    }
    if (header.m_metaData &&
        header.m_metaData->remainingPacketLength < static_cast<std::streamsize>(header.getSize()))
    {
        SD_LOG(Error) << "SOME_IP-SD message length-error, message size=" << header.getSize() << ", but only "
                      << header.m_metaData->remainingPacketLength << " Bytes left!";
        header.makeInvalid();
        return stream;
    }

    reader.read(fields.requestID.clientID, fields.requestID.sessionID, fields.protocolVersion,
                fields.interfaceVersion, fields.messageType, fields.returnCode);
    if (!reader.checkRead("SOME_IP header", sizeOnWire, static_cast<std::streamsize>(header.getSize()),
                          AndLengthField{fields.length}))
    {
        header.makeInvalid();
        return stream;
    }
    if (header.m_metaData)
        header.m_metaData->remainingPacketLength -= reader.count();
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
