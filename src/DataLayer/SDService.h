#pragma once

#include "DataLayer/NuboServiceDescription.h"
#include "DataLayer/ServiceDiscovery_Types.h"
#include "DataLayer/TextList.h"

#include <Poco/Clock.h>
#include <Poco/SharedPtr.h>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <utility>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Service;
class SOME_IP_SD_Option_Configuration;
class SOME_IP_SD_Option_IPv6;

/// The record of one service inside the engine: description, SOME/IP-SD identity, role, phase and deadline.
/// Records are shared by Ptr and guarded by the lock of the state machine that holds them.
class SDService
{
public:
    using Ptr = Poco::SharedPtr<SDService>;

    /// Role of a record.
    struct Type
    {
        enum Type_t : std::uint32_t
        {
            NONE = 0,        ///< no role yet
            WANTED = 1,      ///< looked for by the registry, sent as FIND
            ANNOUNCED = 2,   ///< a local service, sent as OFFER
            DISCOVERED = 3,  ///< learnt from another unit
            ANY = 4          ///< wildcard, in matching only
        };
    };

    /// Phase of a record.
    struct State
    {
        enum State_t : std::uint32_t
        {
            ONCE = 0,
            INITIAL_WAIT_PHASE = 1,
            REPETITION_PHASE = 2,
            MAIN_PHASE = 3,
            SHUTDOWN_PHASE = 4,
            REMOVED = 5
        };
    };

    static constexpr unsigned int defaultTTL = 120;  ///< seconds

    /// A record of a registry's service: versions and configuration pairs come from the description.
    /// Throws Poco::InvalidArgumentException, after an error line, when its versions cannot be used.
    explicit SDService(const NuboServiceDescription& description);

    /// Every field as given; nothing is checked. `ttl` in seconds.
    SDService(const NuboServiceDescription& description, unsigned int ttl, unsigned short serviceID,
              unsigned short instanceID, unsigned char majorVersion, unsigned int minorVersion,
              const ConfigurationPairs& configuration, Type::Type_t type);

    /// A record that identifies a service by its name alone. Its deadline has already passed.
    explicit SDService(const std::string& name);

    /// A record of a received offer. Its instance ID is 0, whatever the entry contains: the state machine
    /// assigns the numbers of discovered services. Throws Poco::InvalidArgumentException, after an error
    /// line, when one of the three is invalid or the configuration lacks a name or a version.
    SDService(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
              const SOME_IP_SD_Option_Configuration& configuration);

    /// The same without versions and categories, of which an offer may contain thousands: enough to recognise
    /// an instance. Returns null instead of throwing, because an exception costs more than the rest of a bad
    /// offer.
    static Ptr instanceOf(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                          const SOME_IP_SD_Option_Configuration& configuration);

    /// Adds what instanceOf() left out of the same offer.
    void complete(const SOME_IP_SD_Option_Configuration& configuration);

    const NuboServiceDescription& getNuboDescription() const { return m_sent->m_description; }
    void setNuboDescription(const NuboServiceDescription& description)
    {
        m_sent.set(&SentFields::m_description, description);
    }
    void setLocalUuid(std::string localUuid) { m_sent.setLocalUuid(std::move(localUuid)); }

    /// Address of the unit that sent the offer: 16 bytes in network order, without port and scope. Zeros: not
    /// known.
    using SenderAddress = std::array<std::uint8_t, 16>;
    const SenderAddress& getSender() const { return m_sender; }
    void setSender(const SenderAddress& sender) { m_sender = sender; }

    Type::Type_t getType() const { return m_sent->m_type; }
    void setType(Type::Type_t type) { m_sent.set(&SentFields::m_type, type); }

    State::State_t getState() const { return m_state; }
    /// Restarts the count of sends, unless the record is in that phase already.
    void setState(const State::State_t& state);

    /// Number of sends made in the current phase; wraps at 256.
    std::uint8_t getRepetitionRun() const { return m_repetitionRun; }
    void incrementRepetitionRun() { ++m_repetitionRun; }
    void resetRepetitionRun() { m_repetitionRun = 0; }

    /// Time-to-live in seconds.
    unsigned int getTTL() const { return m_sent->m_TTL; }
    /// Sets the time-to-live and moves the deadline to that many seconds from now.
    void setTTL(unsigned int ttl);
    /// Whether the deadline has been reached.
    bool isTTLElapsed() const;
    /// Whether it had been reached at that instant.
    bool isTTLElapsed(const Poco::Clock& instant) const { return instant >= m_timeoutTimestamp; }
    /// Seconds until the deadline, rounded up.
    unsigned int getSecondsLeft() const;

    unsigned short getServiceId() const { return m_sent->m_serviceID; }
    void setServiceId(unsigned short serviceID) { m_sent.set(&SentFields::m_serviceID, serviceID); }

    unsigned short getInstanceId() const { return m_sent->m_instanceID; }
    void setInstanceId(unsigned short instanceID) { m_sent.set(&SentFields::m_instanceID, instanceID); }

    std::uint8_t getMajorVersion() const { return m_sent->m_majorVersion; }
    /// The major version widened, so that it prints as a number.
    unsigned int getMajorVersion_AsUnsigned() const { return m_sent->m_majorVersion; }
    void setMajorVersion(unsigned char majorVersion)
    {
        m_sent.set(&SentFields::m_majorVersion, majorVersion);
    }

    unsigned int getMinorVersion() const { return m_sent->m_minorVersion; }
    void setMinorVersion(unsigned int minorVersion) { m_sent.set(&SentFields::m_minorVersion, minorVersion); }

    const ConfigurationPairs& getConfiguration() const { return m_sent->m_configuration; }
    void setConfiguration(const ConfigurationPairs& configuration)
    {
        m_sent.set(&SentFields::m_configuration, configuration);
    }

    /// The bytes of the packet that was last made of the record; empty when none was made, or when a setter
    /// has changed anything that it contains.
    const std::string& getPacket() const { return m_sent.packet(); }
    void setPacket(std::string packet) const { m_sent.keepPacket(std::move(packet)); }

private:
    /// The fields that a packet is made of.
    struct SentFields
    {
        NuboServiceDescription m_description;
        std::uint32_t m_TTL = defaultTTL;
        std::uint16_t m_serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Non_SOMEIP_SD;
        std::uint16_t m_instanceID = 0;
        std::uint8_t m_majorVersion = 0;
        std::uint32_t m_minorVersion = 0;
        ConfigurationPairs m_configuration;
        Type::Type_t m_type = Type::NONE;
    };

    /// The fields and the packet that was last made of them, which is sent every second for years. No field
    /// changes without change(), which drops the packet.
    class Sent
    {
    public:
        Sent() = default;
        explicit Sent(SentFields fields) : m_fields(std::move(fields)) {}

        const SentFields* operator->() const { return &m_fields; }

        template <class Change>
        void change(Change change)
        {
            change(m_fields);
            m_packet.clear();
        }

        /// Keeps the packet if a number keeps its value. Takes `value` by value, so that nothing has changed
        /// when copying throws.
        template <class Value>
        void set(Value SentFields::*field, Value value)
        {
            if constexpr (std::is_scalar_v<Value>) {
                if (m_fields.*field == value)
                    return;
            }
            change([&](SentFields& fields) { fields.*field = std::move(value); });
        }

        // Parts of the description that are not sent: the packet stays. (Versions and categories are sent
        // from the configuration.)
        void setLocalUuid(std::string localUuid)
        {
            m_fields.m_description.setLocalUuid(std::move(localUuid));
        }
        void setTexts(TextList versions, TextList categories, std::string uri)
        {
            m_fields.m_description.shareVersions(std::move(versions));
            m_fields.m_description.shareCategories(std::move(categories));
            m_fields.m_description.setUri(std::move(uri));
        }

        const std::string& packet() const { return m_packet; }
        void keepPacket(std::string packet) const { m_packet = std::move(packet); }

    private:
        SentFields m_fields;
        mutable std::string m_packet;  // follows from the fields
    };

    SDService() = default;
    void fromNuboServiceDescription(const NuboServiceDescription& description);
    bool fromSOMEIP(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                    const SOME_IP_SD_Option_Configuration& configuration);

    Sent m_sent;
    State::State_t m_state = State::INITIAL_WAIT_PHASE;
    std::uint8_t m_repetitionRun = 0;
    Poco::Clock m_timeoutTimestamp;
    SenderAddress m_sender{};
};

/// The name of the value; "UNKNOWN 0x" and the number in the stream's base for any other.
std::ostream& operator<<(std::ostream& stream, SDService::Type::Type_t type);
std::ostream& operator<<(std::ostream& stream, SDService::State::State_t state);

}  // namespace Nubo::ServiceDiscovery
