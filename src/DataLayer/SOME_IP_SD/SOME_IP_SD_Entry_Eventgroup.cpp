#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"

#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/WireStream.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Entry_Eventgroup_Pimpl : public SOME_IP_SD_Entry_Pimpl
{
public:
    explicit SOME_IP_SD_Entry_Eventgroup_Pimpl(EntryType::Type_t type) : SOME_IP_SD_Entry_Pimpl(type)
    {
        checkType();
    }

    SOME_IP_SD_Entry_Eventgroup_Pimpl(const CommonFields& fields, bool initialDataRequest,
                                      std::uint8_t counter, std::uint16_t eventgroupID)
        : SOME_IP_SD_Entry_Pimpl(fields)
        , m_initialDataRequest(initialDataRequest)
        , m_eventgroupID(eventgroupID)
    {
        checkType();
        if (!setCounter(counter))
            setValid(false);
    }

    bool setCounter(std::uint8_t counter)
    {
        if (counter > largestCounter) {
            SD_LOG(Error) << "Eventgroup counter too large, given value '" << +counter << "' exceeds 4 Bit!";
            return false;
        }
        m_counter = counter;
        return true;
    }

    std::ostream& serialise(std::ostream& stream) const override
    {
        SOME_IP_SD_Entry_Pimpl::serialise(stream);
        const int flagAndCounter = (m_initialDataRequest ? requestFlag : 0) | (m_counter & largestCounter);
        WireWriter writer(stream);
        writer.write(m_reserved00, static_cast<std::uint8_t>(flagAndCounter), m_eventgroupID);
        writer.checkWritten("SOME_IP_SD_Entry", specificSize);
        return stream;
    }

    std::streamsize deserialise(std::istream& stream) override
    {
        SOME_IP_SD_Entry_Pimpl::deserialise(stream);
        std::uint8_t reserved = 0;
        std::uint8_t flagAndCounter = 0;
        std::uint16_t eventgroupID = 0;
        WireReader reader(stream);
        reader.read(reserved, flagAndCounter, eventgroupID);
        if (reader.checkRead("SOME_IP_SD_Entry_Eventgroup", specificSize)) {
            m_reserved00 = reserved;
            m_initialDataRequest = (flagAndCounter & requestFlag) != 0;
            m_counter = flagAndCounter & largestCounter;
            m_eventgroupID = eventgroupID;
            setValid(true);
        }
        return reader.count();
    }

    const char* kind() const override { return "Eventgroup Entry: "; }

    void printSpecific(std::ostream& stream) const override
    {
        stream << "Counter(" << +m_counter << "), InitialDataRequest("
               << (m_initialDataRequest ? "true" : "false") << "), EventgroupID(" << m_eventgroupID << ")";
    }

    std::uint8_t m_reserved00 = 0;
    bool m_initialDataRequest = false;
    std::uint8_t m_counter = 0;
    std::uint16_t m_eventgroupID = 0;

private:
    static constexpr std::uint8_t requestFlag = 0x80;
    static constexpr std::uint8_t largestCounter = 0x0F;

    void checkType()
    {
        const EntryType::Type_t type = commonFields().type;
        if (type != EntryType::SUBSCRIBE && type != EntryType::SUBSCRIBE_ACK)
            refuseType("Eventgroup", "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, ");
    }
};

SOME_IP_SD_Entry_Eventgroup::SOME_IP_SD_Entry_Eventgroup(EntryType::Type_t type)
    : ImplementedBy(new SOME_IP_SD_Entry_Eventgroup_Pimpl(type), toBeRead("Eventgroup Entry"))
{}

SOME_IP_SD_Entry_Eventgroup::SOME_IP_SD_Entry_Eventgroup(const CommonFields& fields, bool initialDataRequest,
                                                         std::uint8_t counter, std::uint16_t eventgroupID)
    : ImplementedBy(new SOME_IP_SD_Entry_Eventgroup_Pimpl(fields, initialDataRequest, counter, eventgroupID),
                    ofValues("", "Eventgroup Entry"))
{}

bool SOME_IP_SD_Entry_Eventgroup::getInitialDataRequest() const
{
    return m_thisImplementation->m_initialDataRequest;
}

std::uint8_t SOME_IP_SD_Entry_Eventgroup::getCounter() const
{
    return m_thisImplementation->m_counter;
}

std::uint16_t SOME_IP_SD_Entry_Eventgroup::getEventgroupID() const
{
    return m_thisImplementation->m_eventgroupID;
}

bool SOME_IP_SD_Entry_Eventgroup::setInitialDataRequest(bool initialDataRequest)
{
    m_thisImplementation->m_initialDataRequest = initialDataRequest;
    return true;
}

bool SOME_IP_SD_Entry_Eventgroup::setCounter(std::uint8_t counter)
{
    return m_thisImplementation->setCounter(counter);
}

bool SOME_IP_SD_Entry_Eventgroup::setEventgroupID(std::uint16_t eventgroupID)
{
    m_thisImplementation->m_eventgroupID = eventgroupID;
    return true;
}

}  // namespace Nubo::ServiceDiscovery
