#pragma once

#include "DataLayer/NuboServiceDescription.h"
#include "DataLayer/ServiceDiscovery_Types.h"

#include <Poco/Clock.h>
#include <Poco/SharedPtr.h>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Service;
class SOME_IP_SD_Option_Configuration;
class SOME_IP_SD_Option_IPv6;

/// The record of one service inside the engine: the description and its SOME/IP-SD identity, its role, the
/// phase it is in and its deadline. Records are shared by Ptr and guarded by the lock of the state machine
/// that holds them.
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

    /// A record of the registry's service: versions and configuration pairs come from the description.
    /// Throws Poco::InvalidArgumentException, after an error line, when its versions cannot be used.
    explicit SDService(const NuboServiceDescription& description);

    /// Every field as given; nothing is checked. `ttl` in seconds.
    SDService(const NuboServiceDescription& description, unsigned int ttl, unsigned short serviceID,
              unsigned short instanceID, unsigned char majorVersion, unsigned int minorVersion,
              const ConfigurationPairs& configuration, Type::Type_t type);

    /// A record that identifies a service by its name alone. Its deadline has passed from the start.
    explicit SDService(const std::string& name);

    /// A record of a received offer. Its instance ID is 0, whatever the entry carried: the state machine
    /// numbers what it discovers. Throws Poco::InvalidArgumentException, after an error line, when one of
    /// the three is invalid or the configuration lacks a name or a version.
    SDService(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
              const SOME_IP_SD_Option_Configuration& configuration);

    /// The same without versions and categories, of which an offer may carry thousands: enough to recognise
    /// an instance. Null instead of an exception, which costs more than all the rest of a bad offer.
    static Ptr instanceOf(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                          const SOME_IP_SD_Option_Configuration& configuration);

    /// Takes in what instanceOf() the same offer went without.
    void complete(const SOME_IP_SD_Option_Configuration& configuration);

    const NuboServiceDescription& getNuboDescription() const { return m_description; }
    void setNuboDescription(const NuboServiceDescription& description)
    {
        m_description = description;
        m_packet.clear();
    }
    void setLocalUuid(std::string localUuid) { m_description.setLocalUuid(std::move(localUuid)); }

    /// The address of the unit that sent the offer, 16 bytes in network order, without port and scope; zeros
    /// when it is not known.
    using SenderAddress = std::array<std::uint8_t, 16>;
    const SenderAddress& getSender() const { return m_sender; }
    void setSender(const SenderAddress& sender) { m_sender = sender; }

    Type::Type_t getType() const { return m_type; }
    void setType(Type::Type_t type)
    {
        m_type = type;
        m_packet.clear();
    }

    State::State_t getState() const { return m_state; }
    /// A change of phase restarts the count of sends; setting the same phase again changes nothing.
    void setState(const State::State_t& state);

    /// Number of sends made in the current phase; wraps at 256.
    std::uint8_t getRepetitionRun() const { return m_repetitionRun; }
    void incrementRepetitionRun() { ++m_repetitionRun; }
    void resetRepetitionRun() { m_repetitionRun = 0; }

    /// Time-to-live in seconds.
    unsigned int getTTL() const { return m_TTL; }
    /// Sets the time-to-live and moves the deadline to that many seconds from now.
    void setTTL(unsigned int ttl);
    /// Whether the deadline has come.
    bool isTTLElapsed() const;
    /// Whether it had come by that instant.
    bool isTTLElapsed(const Poco::Clock& instant) const { return instant >= m_timeoutTimestamp; }
    /// Seconds until then, rounded up.
    unsigned int getSecondsLeft() const;

    unsigned short getServiceId() const { return m_serviceID; }
    void setServiceId(unsigned short serviceID)
    {
        m_serviceID = serviceID;
        m_packet.clear();
    }

    unsigned short getInstanceId() const { return m_instanceID; }
    void setInstanceId(unsigned short instanceID)
    {
        m_instanceID = instanceID;
        m_packet.clear();
    }

    std::uint8_t getMajorVersion() const { return m_majorVersion; }
    /// The same widened, so that it prints as a number.
    unsigned int getMajorVersion_AsUnsigned() const { return m_majorVersion; }
    void setMajorVersion(unsigned char majorVersion)
    {
        m_majorVersion = majorVersion;
        m_packet.clear();
    }

    unsigned int getMinorVersion() const { return m_minorVersion; }
    void setMinorVersion(unsigned int minorVersion)
    {
        m_minorVersion = minorVersion;
        m_packet.clear();
    }

    const ConfigurationPairs& getConfiguration() const { return m_configuration; }
    void setConfiguration(const ConfigurationPairs& configuration)
    {
        m_configuration = ConfigurationPairs(configuration);  // copied first: that may throw
        m_packet.clear();
    }

    /// The bytes of the packet that was last made of the record; empty when there was none, or when anything
    /// that goes into it has been set since.
    const std::string& getPacket() const { return m_packet; }
    void setPacket(std::string packet) const { m_packet = std::move(packet); }

private:
    SDService() = default;
    void fromNuboServiceDescription(const NuboServiceDescription& description);
    bool fromSOMEIP(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                    const SOME_IP_SD_Option_Configuration& configuration);
    void addVersion(const std::string& name, const std::string& version);
    void addFixedPairs(const std::string& name);
    bool addPair(const std::string& key, const std::string& value);

    NuboServiceDescription m_description;
    std::uint32_t m_TTL = defaultTTL;
    std::uint16_t m_serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Non_SOMEIP_SD;
    std::uint16_t m_instanceID = 0;
    std::uint8_t m_majorVersion = 0;
    std::uint32_t m_minorVersion = 0;
    ConfigurationPairs m_configuration;
    Type::Type_t m_type = Type::NONE;
    State::State_t m_state = State::INITIAL_WAIT_PHASE;
    std::uint8_t m_repetitionRun = 0;
    Poco::Clock m_timeoutTimestamp;
    SenderAddress m_sender{};
    mutable std::string m_packet;  // follows from the rest
};

/// The name of the value; "UNKNOWN 0x" and the number in the stream's base for any other.
std::ostream& operator<<(std::ostream& stream, SDService::Type::Type_t type);
std::ostream& operator<<(std::ostream& stream, SDService::State::State_t state);

}  // namespace Nubo::ServiceDiscovery
