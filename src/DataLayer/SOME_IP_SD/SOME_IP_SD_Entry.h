#pragma once

#include "DataLayer/ServiceDiscovery_Types.h"

#include <Poco/SharedPtr.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Pimpl;

/// An entry of a service-discovery payload: 16 bytes that find, offer or subscribe. All fields are
/// big-endian on the wire:
///
///     offset 0 type (1), 1 index of the first option run (1), 2 index of the second option run (1),
///     3 number of options in the first (high nibble) and second run (low nibble), 4 service ID (2),
///     6 instance ID (2), 8 major version (1), 9 TTL in seconds (3), 12 fields of the kind (4)
///
/// The implementation object holds the data and does the work on bytes. isValid() is false after a
/// construction or a read that failed. Not thread-safe.
class SOME_IP_SD_Entry
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Entry>;

    /// Fields of every kind.
    struct CommonFields
    {
        EntryType::Type_t type = EntryType::INVALID;
        std::uint8_t fstOptionRunIndex = 0;
        std::uint8_t sndOptionRunIndex = 0;
        std::uint8_t fstOptionRunNum = 0;  ///< at most 15
        std::uint8_t sndOptionRunNum = 0;  ///< at most 15
        std::uint16_t serviceID = 0;
        std::uint16_t instanceID = 0;
        std::uint8_t majorVersion = 0;
        std::uint32_t ttl = 0;  ///< seconds; only the low 24 bits are sent
    };

    virtual ~SOME_IP_SD_Entry();

    SOME_IP_SD_Entry(const SOME_IP_SD_Entry&) = delete;
    SOME_IP_SD_Entry& operator=(const SOME_IP_SD_Entry&) = delete;

    bool isValid() const;
    EntryType::Type_t getType() const;
    std::uint32_t getSize() const { return EntrySize(); }
    static constexpr std::uint32_t EntrySize() { return 16; }

    SOME_IP_SD_Types::OptionRun getFstOptionRun() const;
    SOME_IP_SD_Types::OptionRun getSndOptionRun() const;
    std::uint16_t getServiceID() const;
    std::uint16_t getInstanceID() const;
    std::uint8_t getMajorVersion() const;
    std::uint32_t getTTL() const;

    /// Log an error and return false for a number above 15; the entry stays unchanged.
    bool setFstOptionRun(const SOME_IP_SD_Types::OptionRun& run);
    bool setSndOptionRun(const SOME_IP_SD_Types::OptionRun& run);
    // These accept every value and return true.
    bool setServiceID(std::uint16_t serviceID);
    bool setInstanceID(std::uint16_t instanceID);
    bool setMajorVersion(std::uint8_t majorVersion);
    bool setTTL(std::uint32_t ttl);

    /// The entry as one line for the log, after `indent` tabs.
    std::string toString(unsigned int indent) const;

    /// True for 0x0000 only.
    static bool isReservedInstanceID(std::uint16_t instanceID);

protected:
    /// Takes ownership. Without an implementation the entry is unusable, and an error is logged.
    explicit SOME_IP_SD_Entry(SOME_IP_SD_Entry_Pimpl* implementation);

    SOME_IP_SD_Entry_Pimpl* implementation() const { return m_implementation.get(); }

private:
    friend std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Entry& entry);
    friend std::istream& operator>>(std::istream& stream, SOME_IP_SD_Entry& entry);

    const CommonFields& fields() const;
    template <class Field, class Value>
    bool setField(Field CommonFields::*field, Value value);

    const std::unique_ptr<SOME_IP_SD_Entry_Pimpl> m_implementation;
};

/// Writes the entry's 16 bytes.
std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Entry& entry);

/// Reads the 15 bytes behind the type byte. A part that is cut short changes nothing.
std::istream& operator>>(std::istream& stream, SOME_IP_SD_Entry& entry);

}  // namespace Nubo::ServiceDiscovery
