#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"

#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/WireStream.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_LoadBalancing_Pimpl : public SOME_IP_SD_Option_Pimpl
{
public:
    SOME_IP_SD_Option_LoadBalancing_Pimpl(std::uint16_t priority, std::uint16_t weight, bool valid)
        : SOME_IP_SD_Option_Pimpl(OptionType::LOAD_BALANCING, SOME_IP_SD_Types::OptionLength::LOAD_BALANCING)
        , m_priority(priority)
        , m_weight(weight)
    {
        setValid(valid);
    }

    std::ostream& serialise(std::ostream& stream) const override
    {
        SOME_IP_SD_Option_Pimpl::serialise(stream);
        WireWriter writer(stream);
        writer.write(m_priority, m_weight);
        writer.checkWritten("SOME_IP_SD_Option_LoadBalancing", specificSize());
        return stream;
    }

    std::streamsize deserialise(std::istream& stream) override
    {
        SOME_IP_SD_Option_Pimpl::deserialise(stream);
        std::uint16_t priority = 0;
        std::uint16_t weight = 0;
        WireReader reader(stream);
        reader.read(priority, weight);
        if (reader.checkRead("SOME_IP_SD_Option_LoadBalancing", specificSize())) {
            m_priority = priority;
            m_weight = weight;
            setValid(true);
        }
        return reader.count();
    }

    const char* kind() const override { return "LoadBalancing Option: "; }

    void printSpecific(std::ostream& stream) const override
    {
        stream << "Priority(" << m_priority << "), Weight(" << m_weight << ")";
    }

    std::uint16_t m_priority;
    std::uint16_t m_weight;
};

SOME_IP_SD_Option_LoadBalancing::SOME_IP_SD_Option_LoadBalancing()
    : ImplementedBy(new SOME_IP_SD_Option_LoadBalancing_Pimpl(0, 0, false), toBeRead("LoadBalancing Option"))
{}

SOME_IP_SD_Option_LoadBalancing::SOME_IP_SD_Option_LoadBalancing(std::uint16_t priority, std::uint16_t weight)
    : ImplementedBy(new SOME_IP_SD_Option_LoadBalancing_Pimpl(priority, weight, true),
                    ofValues("", "LoadBalancing Option"))
{}

std::uint16_t SOME_IP_SD_Option_LoadBalancing::getPriority() const
{
    return m_thisImplementation->m_priority;
}

std::uint16_t SOME_IP_SD_Option_LoadBalancing::getWeight() const
{
    return m_thisImplementation->m_weight;
}

}  // namespace Nubo::ServiceDiscovery
