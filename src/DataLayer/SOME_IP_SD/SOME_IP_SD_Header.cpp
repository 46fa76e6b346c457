#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"

#include "DataLayer/Log.h"

#include <istream>
#include <sstream>

namespace Nubo::ServiceDiscovery {

namespace {

/// The names of the bits that are set, "eof|fail".
std::string stateText(const std::istream& stream)
{
    std::string text;
    const auto add = [&](bool isSet, const char* name) {
        if (isSet)
            text += (text.empty() ? "" : "|") + std::string(name);
    };
    add(stream.eof(), "eof");
    add((stream.rdstate() & std::ios::failbit) != 0, "fail");
    add(stream.bad(), "bad");
    return text;
}

/// Whether one of the header's identifiers is reserved, which is logged.
bool hasReservedID(const SOME_IP& header)
{
    if (SOME_IP::isReservedServiceID(header.getServiceID())) {
        SD_LOG(Error) << "SOME_IP-SD message with reserved Service-ID received: 0x" << std::hex
                      << header.getServiceID();
        return true;
    }
    if (SOME_IP::isReservedMethodID(header.getMethodID())) {
        SD_LOG(Error) << "SOME_IP-SD message with reserved Method-ID received: 0x" << std::hex
                      << header.getMethodID();
        return true;
    }
    return false;
}

}  // namespace

SOME_IP_SD_Header::SOME_IP_SD_Header(std::size_t size)
    : m_metaData(static_cast<std::streamsize>(size))
    , m_someIP(&m_metaData)
    , m_someIP_SD(&m_metaData, defaultFlags)
{}

SOME_IP_SD_Header::~SOME_IP_SD_Header() = default;

SOME_IP_SD_Header::SOME_IP_SD_Header(SOME_IP_SD_Header&& other) noexcept
    : m_metaData(other.m_metaData)
    , m_someIP(other.m_someIP)
    , m_someIP_SD(std::move(other.m_someIP_SD))
{
    m_someIP.setMetaData(&m_metaData);
    m_someIP_SD.setMetaData(&m_metaData);
}

SOME_IP_SD_Header& SOME_IP_SD_Header::operator=(SOME_IP_SD_Header&& other) noexcept
{
    m_metaData = other.m_metaData;
    m_someIP = other.m_someIP;
    m_someIP_SD = std::move(other.m_someIP_SD);
    m_someIP.setMetaData(&m_metaData);
    m_someIP_SD.setMetaData(&m_metaData);
    return *this;
}

bool SOME_IP_SD_Header::addEntry(const SOME_IP_SD_Entry::Ptr& entry, bool acceptInvalid)
{
    const bool added = m_someIP_SD.addEntry(entry, acceptInvalid);
    updateLength();
    return added;
}

bool SOME_IP_SD_Header::addOption(const SOME_IP_SD_Option::Ptr& option, bool acceptInvalid)
{
    const bool added = m_someIP_SD.addOption(option, acceptInvalid);
    updateLength();
    return added;
}

void SOME_IP_SD_Header::updateLength()
{
    m_someIP.updateLength(m_someIP_SD.getSize());
}

void SOME_IP_SD_Header::setSessionID(std::uint16_t sessionID)
{
    m_someIP.setSessionID(sessionID);
}

SOME_IP_SD_Header::EntryData SOME_IP_SD_Header::getEntryData(std::uint16_t index) const
{
    EntryData data;
    if (index >= getNumOfEntries())
        return data;
    const SOME_IP_SD_Entry::Ptr& entry = m_someIP_SD.getEntries()[index];
    if (entry.isNull() || !entry->isValid()) {
        SD_LOG(Warning) << "Entry #" << index << " is not valid, skipping Option extraction!";
        return data;
    }
    data.entry = entry;
    data.options.reserve(std::size_t{entry->getFstOptionRun().second} + entry->getSndOptionRun().second);
    extractOptionRun(data.entry->getFstOptionRun(), data.options);
    extractOptionRun(data.entry->getSndOptionRun(), data.options);
    return data;
}

void SOME_IP_SD_Header::extractOptionRun(SOME_IP_SD_Types::OptionRun run,
                                         std::vector<SOME_IP_SD_Option::Ptr>& out) const
{
    const auto& options = m_someIP_SD.getOptions();
    const std::size_t start = run.first;
    for (std::size_t k = 0; k < run.second; ++k) {
        if (start + k < options.size())
            out.push_back(options[start + k]);
        else
            SD_LOG(Warning) << "Cannot extract Option #" << k << "(=" << start + k << "/" << options.size()
                            << "): the Entry refers to an Option that is not there!";
    }
}

std::string SOME_IP_SD_Header::toString(unsigned int indent) const
{
    const std::string tabs(indent, '\t');
    return tabs + "SOME_IP_SD_Header[\n" + m_someIP.toString(indent + 1) + "\n" +
           m_someIP_SD.toString(indent + 1) + "\n" + tabs + "]";
}

std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Header& packet)
{
    return stream << packet.m_someIP << packet.m_someIP_SD;
}

std::istream& operator>>(std::istream& stream, SOME_IP_SD_Header& packet)
{
    stream >> packet.m_someIP;
    if (!stream.good()) {
        SD_LOG(Error)
            << "SOME_IP - SD message length-error: stream state not good after reading SOME/IP Header: ["
            << stateText(stream) << "]";
        return stream;
    }
    if (!packet.m_someIP.isValid())
        return stream;
    if (hasReservedID(packet.m_someIP)) {
        packet.m_someIP.makeInvalid();
        return stream;
    }

    // The bytes really taken from the stream reveal white space that formatted input has skipped.
    const std::streamsize before = stream.rdbuf()->in_avail();
    stream >> packet.m_someIP_SD;
    const std::streamsize parsed = before - stream.rdbuf()->in_avail();
    const auto expected = static_cast<std::streamsize>(packet.m_someIP_SD.getSize());
    if (packet.m_someIP_SD.isValid() && parsed != expected) {
        SD_LOG(Error) << "SOME_IP-SD message payload length-error: " << expected << " expected, but "
                      << parsed << " parsed!";
        packet.m_someIP_SD.makeInvalid();
    }
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
