#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"
#include "DataLayer/ServiceDiscovery_Types.h"

#include <cstddef>
#include <cstdint>
#include <ios>
#include <iosfwd>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// The service-discovery payload that follows the SOME/IP header. All fields are big-endian on the wire:
///
///     offset 0 flags (1), 1 reserved (3), 4 length of the entries array in bytes (4), 8 entries,
///     then the length of the options array in bytes (4), then the options
///
/// Failures are logged and make isValid() false; nothing throws. Not thread-safe.
class SOME_IP_SD
{
public:
    using EntryContainer = std::vector<SOME_IP_SD_Entry::Ptr>;
    using OptionContainer = std::vector<SOME_IP_SD_Option::Ptr>;

    /// Bits of the flags byte.
    enum FLAGS_t : std::uint8_t
    {
        NONE = 0x00,
        REBOOT = 0x80,
        UNICAST = 0x40,
        EIDCF = 0x20  ///< explicit initial data control
    };

    /// An empty payload. `metaData` belongs to the packet and must outlive the payload; without it the
    /// payload is invalid, and an error is logged.
    SOME_IP_SD(SOME_IP_SD_Types::MetaData* metaData, std::uint8_t flags);

    bool isValid() const { return m_valid; }
    void makeInvalid() { m_valid = false; }

    /// Points the payload to the metadata of the packet that now contains it.
    void setMetaData(SOME_IP_SD_Types::MetaData* metaData) { m_metaData = metaData; }

    /// Whether every entry and every option is present and valid.
    bool areArraysValid() const;

    std::uint8_t getFlags() const { return m_flags; }
    void overrideFlags(std::uint8_t flags) { m_flags = flags; }
    void setFlag(std::uint8_t flag) { m_flags = static_cast<std::uint8_t>(m_flags | flag); }
    void unsetFlag(std::uint8_t flag) { m_flags = static_cast<std::uint8_t>(m_flags & ~flag); }

    /// Lengths of the arrays in bytes; those of a received payload as they were received.
    std::uint32_t getEntriesLength() const { return m_lengthEntries; }
    std::uint32_t getOptionsLength() const { return m_lengthOptions; }
    void setEntriesLength(std::uint32_t length) { m_lengthEntries = length; }
    void setOptionsLength(std::uint32_t length) { m_lengthOptions = length; }

    /// In wire order. Option runs of entries are indices into the options.
    const EntryContainer& getEntries() const { return m_entries; }
    const OptionContainer& getOptions() const { return m_options; }
    void setEntries(const EntryContainer& entries) { m_entries = entries; }
    void setOptions(const OptionContainer& options) { m_options = options; }

    /// Appends the element and adds its size to the array's length. Logs an error and returns false when the
    /// element is null, when it is invalid and `acceptInvalid` is false, or when the length exceeds its
    /// field.
    bool addEntry(const SOME_IP_SD_Entry::Ptr& entry, bool acceptInvalid);
    bool addOption(const SOME_IP_SD_Option::Ptr& option, bool acceptInvalid);

    /// Size on the wire in bytes.
    std::size_t getSize() const;
    static constexpr std::size_t emptySize = 12;  ///< flags, reserved, the two array lengths

    /// The payload as several lines for the log, each after `indent` tabs.
    std::string toString(unsigned int indent) const;

private:
    friend std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD& payload);
    friend std::istream& operator>>(std::istream& stream, SOME_IP_SD& payload);
    friend std::streamsize deserialiseEntries(std::istream& stream, SOME_IP_SD& payload, bool& error);
    friend std::streamsize deserialiseOptions(std::istream& stream, SOME_IP_SD& payload, bool& error);

    std::streamsize bytesLeft() const;

    SOME_IP_SD_Types::MetaData* m_metaData;
    bool m_valid;
    std::uint8_t m_flags;
    std::uint32_t m_reserved00 = 0;
    std::uint32_t m_lengthEntries = 0;
    EntryContainer m_entries;
    std::uint32_t m_lengthOptions = 0;
    OptionContainer m_options;
};

/// Writes the payload. Logs an error for an element that does not fit its type, and leaves it out.
std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD& payload);
void serialiseEntries(std::ostream& stream, const SOME_IP_SD& payload);
void serialiseOptions(std::ostream& stream, const SOME_IP_SD& payload);

/// Reads a payload. The metadata holds the number of bytes that are left of the packet; lengths that
/// contradict it or each other make the payload invalid. Entries of an unknown type are left out; an option
/// of an unknown type leaves a placeholder.
std::istream& operator>>(std::istream& stream, SOME_IP_SD& payload);

/// Read the arrays, whose lengths the payload already has. They return the size of the elements that were
/// read whole, and set `error` when the rest of the payload cannot be read.
std::streamsize deserialiseEntries(std::istream& stream, SOME_IP_SD& payload, bool& error);
std::streamsize deserialiseOptions(std::istream& stream, SOME_IP_SD& payload, bool& error);

}  // namespace Nubo::ServiceDiscovery
