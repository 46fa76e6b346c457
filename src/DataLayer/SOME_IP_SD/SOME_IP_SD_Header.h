#pragma once

#include "DataLayer/SOME_IP/SOME_IP.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// One complete service-discovery message: the SOME/IP header and the payload, and the count of remaining
/// bytes that both share. Nothing throws. Not thread-safe.
class SOME_IP_SD_Header
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Header>;

    /// Flags of every packet that this library makes.
    static constexpr std::uint8_t defaultFlags = SOME_IP_SD::REBOOT | SOME_IP_SD::UNICAST | SOME_IP_SD::EIDCF;

    /// One entry with the options that it refers to: first run, then second run.
    struct EntryData
    {
        SOME_IP_SD_Entry::Ptr entry;  ///< null when there is none
        std::vector<SOME_IP_SD_Option::Ptr> options;
    };

    /// An empty message. `size` is the size of the datagram to be read; for a message to be sent, any value.
    explicit SOME_IP_SD_Header(std::size_t size);
    virtual ~SOME_IP_SD_Header();

    SOME_IP_SD_Header(SOME_IP_SD_Header&& other) noexcept;
    SOME_IP_SD_Header& operator=(SOME_IP_SD_Header&& other) noexcept;
    SOME_IP_SD_Header(const SOME_IP_SD_Header&) = delete;
    SOME_IP_SD_Header& operator=(const SOME_IP_SD_Header&) = delete;

    /// Pass the element to the payload, update the SOME/IP length and return the payload's answer.
    bool addEntry(const SOME_IP_SD_Entry::Ptr& entry, bool acceptInvalid);
    bool addOption(const SOME_IP_SD_Option::Ptr& option, bool acceptInvalid);

    /// Sets the SOME/IP length from the size of the payload.
    void updateLength();

    void setSessionID(std::uint16_t sessionID);

    const SOME_IP& getSomeIP() const { return m_someIP; }
    const SOME_IP_SD& getSomeIP_SD() const { return m_someIP_SD; }

    /// Size of the whole message in bytes.
    std::size_t getSize() const { return m_someIP.getSize(); }

    std::size_t getNumOfEntries() const { return m_someIP_SD.getEntries().size(); }

    /// The entry at that index with its options; empty when there is none or, with a warning, when it is
    /// invalid. An option that the payload lacks is left out, also with a warning.
    EntryData getEntryData(std::uint16_t index) const;

    /// The message as several lines for the log, each after `indent` tabs.
    std::string toString(unsigned int indent) const;

protected:
    void extractOptionRun(SOME_IP_SD_Types::OptionRun run, std::vector<SOME_IP_SD_Option::Ptr>& out) const;

private:
    friend std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Header& packet);
    friend std::istream& operator>>(std::istream& stream, SOME_IP_SD_Header& packet);

    SOME_IP_SD_Types::MetaData m_metaData;
    SOME_IP m_someIP;
    SOME_IP_SD m_someIP_SD;
};

/// Writes header and payload.
std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Header& packet);

/// Reads header and payload. After a failure the header or the payload is invalid, or the stream is no longer
/// good.
std::istream& operator>>(std::istream& stream, SOME_IP_SD_Header& packet);

}  // namespace Nubo::ServiceDiscovery
