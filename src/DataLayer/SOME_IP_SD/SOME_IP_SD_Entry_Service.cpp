#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"

#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/WireStream.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Service_Pimpl : public SOME_IP_SD_Entry_Pimpl
{
public:
    explicit SOME_IP_SD_Entry_Service_Pimpl(EntryType::Type_t type) : SOME_IP_SD_Entry_Pimpl(type)
    {
        checkType();
    }

    SOME_IP_SD_Entry_Service_Pimpl(const CommonFields& fields, std::uint32_t minorVersion)
        : SOME_IP_SD_Entry_Pimpl(fields)
        , m_minorVersion(minorVersion)
    {
        checkType();
    }

    std::ostream& serialise(std::ostream& stream) const override
    {
        SOME_IP_SD_Entry_Pimpl::serialise(stream);
        WireWriter writer(stream);
        writer.write(m_minorVersion);
        writer.checkWritten("SOME_IP_SD_Entry_Service", specificSize);
        return stream;
    }

    std::streamsize deserialise(std::istream& stream) override
    {
        SOME_IP_SD_Entry_Pimpl::deserialise(stream);
        std::uint32_t minorVersion = 0;
        WireReader reader(stream);
        reader.read(minorVersion);
        if (reader.checkRead("SOME_IP_SD_Entry_Service", specificSize)) {
            m_minorVersion = minorVersion;
            const CommonFields& fields = commonFields();
            noteUnusedIndex("1st", fields.fstOptionRunIndex, fields.fstOptionRunNum);
            noteUnusedIndex("2nd", fields.sndOptionRunIndex, fields.sndOptionRunNum);
            setValid(true);
        }
        return reader.count();
    }

    const char* kind() const override { return "Service Entry: "; }

    void printSpecific(std::ostream& stream) const override
    {
        stream << "MinorVersion(" << m_minorVersion << ")";
    }

    std::uint32_t m_minorVersion = 0;

private:
    void checkType()
    {
        const EntryType::Type_t type = commonFields().type;
        if (type != EntryType::FIND_SERVICE && type != EntryType::OFFER_SERVICE)
            refuseType("Service", "{FIND_SERVICE=0x00, OFFER_SERVICE=0x01}, ");
    }

    /// Senders need not set the index of an empty run to 0; the entry is valid anyway.
    static void noteUnusedIndex(const char* run, std::uint8_t index, std::uint8_t number)
    {
        if (number == 0 && index != 0) {
            // Kept for compatibility: the index is written as one raw character.
            SD_LOG(Error) << "SOME_IP_SD_Entry_Service syntactically incorrect, " << run
                          << " OptionRun number ==0, but index != 0 (" << static_cast<char>(index) << ")!";
        }
    }
};

SOME_IP_SD_Entry_Service::SOME_IP_SD_Entry_Service(EntryType::Type_t type)
    : ImplementedBy(new SOME_IP_SD_Entry_Service_Pimpl(type), toBeRead("Service Entry"))
{}

SOME_IP_SD_Entry_Service::SOME_IP_SD_Entry_Service(const CommonFields& fields, std::uint32_t minorVersion)
    : ImplementedBy(new SOME_IP_SD_Entry_Service_Pimpl(fields, minorVersion), ofValues("", "Service Entry"))
{}

std::uint32_t SOME_IP_SD_Entry_Service::getMinorVersion() const
{
    return m_thisImplementation->m_minorVersion;
}

bool SOME_IP_SD_Entry_Service::setMinorVersion(std::uint32_t minorVersion)
{
    m_thisImplementation->m_minorVersion = minorVersion;
    return true;
}

}  // namespace Nubo::ServiceDiscovery
