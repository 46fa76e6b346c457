#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"

#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_Placeholder_Pimpl : public SOME_IP_SD_Option_Pimpl
{
public:
    explicit SOME_IP_SD_Option_Placeholder_Pimpl(std::uint16_t length)
        : SOME_IP_SD_Option_Pimpl(OptionType::NONE, length)
    {
        setValid(false);
    }

    std::ostream& serialise(std::ostream& stream) const override
    {
        SD_LOG(Warning) << "Trying to serialise Placeholder-Option!";
        return stream;
    }

    std::streamsize deserialise(std::istream&) override
    {
        SD_LOG(Warning) << "Trying to deserialise Placeholder-Option!";
        return 0;
    }

    const char* kind() const override { return "Placeholder Option: "; }
};

SOME_IP_SD_Option_Placeholder::SOME_IP_SD_Option_Placeholder(std::uint16_t length)
    : ImplementedBy(new SOME_IP_SD_Option_Placeholder_Pimpl(length), toBeRead("Placeholder Option"))
{}

}  // namespace Nubo::ServiceDiscovery
