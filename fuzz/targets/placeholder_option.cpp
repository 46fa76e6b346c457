// Input: an option of a type that the library does not know.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"
#include "common/Options.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (input.size() < lengthAndTypeSize)
        return;
    SOME_IP_SD_Option::Ptr option = SOME_IP_SD_Option::makeReceived(typeOf(input), lengthOf(input));
    if (option.cast<SOME_IP_SD_Option_Placeholder>().isNull())
        return;  // a known type, which another target covers

    Poco::MemoryInputStream stream(input.data(), static_cast<std::streamsize>(input.size()));
    stream >> *option;
    require(stream.tellg() == std::streampos(0), "a placeholder takes no byte: its reader skips them");
    require(!option->isValid(), "a placeholder is never valid");
    require(option->getType() == OptionType::NONE, "a placeholder has no type");
    require(option->getSize() == lengthAndTypeSize + lengthOf(input), "a placeholder has its option's size");
    require(written(*option).empty(), "a placeholder is not written");
    require(!option->toString(1).empty(), "a placeholder can be shown in the log");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
