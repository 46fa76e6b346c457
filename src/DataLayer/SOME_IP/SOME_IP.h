#pragma once

#include "DataLayer/ServiceDiscovery_Types.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace Nubo::ServiceDiscovery {

/// The 16-byte SOME/IP header that opens every message. All fields are big-endian on the wire:
///
///     offset 0 service ID (2), 2 method ID (2), 4 length (4), 8 client ID (2), 10 session ID (2),
///     12 protocol version (1), 13 interface version (1), 14 message type (1), 15 return code (1)
///
/// The length counts the bytes behind its field: 8 header bytes and the payload. Not thread-safe.
class SOME_IP
{
public:
    static constexpr std::size_t headerSize = 16;

    /// A header with the values of a service-discovery message and no payload. `metaData` belongs to the
    /// packet and must outlive the header; without it the header is invalid, and an error is logged.
    explicit SOME_IP(SOME_IP_SD_Types::MetaData* metaData);

    bool isValid() const { return m_valid; }
    void makeInvalid() { m_valid = false; }

    /// Points the header to the metadata of the packet that now contains it.
    void setMetaData(SOME_IP_SD_Types::MetaData* metaData) { m_metaData = metaData; }

    /// Size of the whole message in bytes: the length field plus 8.
    std::size_t getSize() const { return std::size_t{m_headerFields.length} + 8; }

    /// Service ID in the high, method ID in the low half.
    std::uint32_t getMessageID() const
    {
        return joined(m_headerFields.messageID.serviceID, m_headerFields.messageID.methodID);
    }
    std::uint16_t getServiceID() const { return m_headerFields.messageID.serviceID; }
    std::uint16_t getMethodID() const { return m_headerFields.messageID.methodID; }
    std::uint32_t getLength() const { return m_headerFields.length; }
    /// Client ID in the high, session ID in the low half.
    std::uint32_t getRequestID() const
    {
        return joined(m_headerFields.requestID.clientID, m_headerFields.requestID.sessionID);
    }
    std::uint16_t getClientID() const { return m_headerFields.requestID.clientID; }
    std::uint16_t getSessionID() const { return m_headerFields.requestID.sessionID; }
    std::uint8_t getProtocolVersion() const { return m_headerFields.protocolVersion; }
    std::uint8_t getInterfaceVersion() const { return m_headerFields.interfaceVersion; }
    std::uint8_t getMessageType() const { return m_headerFields.messageType; }
    std::uint8_t getReturnCode() const { return m_headerFields.returnCode; }

    // The setters accept every value and always return true.
    bool setMessageID(std::uint32_t messageID);
    bool setServiceID(std::uint16_t serviceID) { return set(m_headerFields.messageID.serviceID, serviceID); }
    bool setMethodID(std::uint16_t methodID) { return set(m_headerFields.messageID.methodID, methodID); }
    bool setLength(std::uint32_t length) { return set(m_headerFields.length, length); }
    /// Sets the length field for a payload of that many bytes.
    bool updateLength(std::size_t payloadSize);
    bool setRequestID(std::uint32_t requestID);
    bool setClientID(std::uint16_t clientID) { return set(m_headerFields.requestID.clientID, clientID); }
    bool setSessionID(std::uint16_t sessionID) { return set(m_headerFields.requestID.sessionID, sessionID); }
    bool setProtocolVersion(std::uint8_t version) { return set(m_headerFields.protocolVersion, version); }
    bool setInterfaceVersion(std::uint8_t version) { return set(m_headerFields.interfaceVersion, version); }
    bool setMessageType(std::uint8_t type) { return set(m_headerFields.messageType, type); }
    bool setReturnCode(std::uint8_t code) { return set(m_headerFields.returnCode, code); }

    /// Replaces the session ID in the bytes of a written header.
    static void overwriteSessionID(char* header, std::uint16_t sessionID);

    /// The header as one line for the log, after `indent` tabs.
    std::string toString(unsigned int indent) const;

    /// 0x0000 and 0xFF00 to 0xFF5F are reserved.
    static bool isReservedServiceID(std::uint16_t serviceID);
    /// 0x0000, 0x7FFF, 0x8000 and 0xFFFF are reserved.
    static bool isReservedMethodID(std::uint16_t methodID);

private:
    struct messageID_t
    {
        std::uint16_t serviceID = SOME_IP_Types::HeaderValues::ServiceID_SOMEIP_SD;
        std::uint16_t methodID = SOME_IP_Types::HeaderValues::MethodID_SOMEIP_SD_Msg;
    };

    struct requestID_t
    {
        std::uint16_t clientID = 0x0000;
        std::uint16_t sessionID = 0x0001;
    };

    struct HeaderFields
    {
        messageID_t messageID;
        std::uint32_t length = 8;
        requestID_t requestID;
        std::uint8_t protocolVersion = 0x01;
        std::uint8_t interfaceVersion = 0x01;
        std::uint8_t messageType = 0x02;
        std::uint8_t returnCode = 0x00;
    };

    static std::uint32_t joined(std::uint16_t high, std::uint16_t low)
    {
        return static_cast<std::uint32_t>(high) << 16 | low;
    }

    template <class Field>
    static bool set(Field& field, Field value)
    {
        field = value;
        return true;
    }

    friend std::ostream& operator<<(std::ostream& stream, const SOME_IP& header);
    friend std::istream& operator>>(std::istream& stream, SOME_IP& header);

    SOME_IP_SD_Types::MetaData* m_metaData;
    bool m_valid;
    HeaderFields m_headerFields;
};

/// Writes the 16 bytes.
std::ostream& operator<<(std::ostream& stream, const SOME_IP& header);

/// Reads the 16 bytes. The metadata holds the number of bytes that are left of the datagram. A length field
/// that contradicts it, or a stream that ends, makes the header invalid. Versions, message type and return
/// code are not checked.
std::istream& operator>>(std::istream& stream, SOME_IP& header);

}  // namespace Nubo::ServiceDiscovery
