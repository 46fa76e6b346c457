#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ElementKinds.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"
#include "DataLayer/WireStream.h"

#include <sstream>

namespace Nubo::ServiceDiscovery {

namespace {

constexpr std::streamsize commonSize = 4;

}  // namespace

SOME_IP_SD_Option_Pimpl::SOME_IP_SD_Option_Pimpl(OptionType::Type_t type, std::uint16_t length)
    : m_length(length)
    , m_type(type)
{}

SOME_IP_SD_Option_Pimpl::~SOME_IP_SD_Option_Pimpl() = default;

std::ostream& SOME_IP_SD_Option_Pimpl::serialise(std::ostream& stream) const
{
    WireWriter writer(stream);
    writer.write(m_length, static_cast<std::uint8_t>(m_type), m_reserved00);
    writer.checkWritten("SOME_IP_SD_Option", commonSize);
    return stream;
}

std::streamsize SOME_IP_SD_Option_Pimpl::deserialise(std::istream& stream)
{
    constexpr std::streamsize reservedSize = 1;
    WireReader reader(stream);
    reader.read(m_reserved00);
    if (!reader.checkRead("SOME_IP_SD_Option", reservedSize, reservedSize, ""))
        setValid(false);
    return reader.count();
}

SOME_IP_SD_Option::SOME_IP_SD_Option(SOME_IP_SD_Option_Pimpl* implementation)
    : m_implementation(implementation)
{
    if (!implementation)
        SD_LOG(Error) << "SOME_IP_SD_Option::SOME_IP_SD_Option: given Implementation is nullptr!";
}

SOME_IP_SD_Option::~SOME_IP_SD_Option() = default;

bool SOME_IP_SD_Option::isValid() const
{
    return m_implementation && m_implementation->isValid();
}

OptionType::Type_t SOME_IP_SD_Option::getType() const
{
    return m_implementation ? m_implementation->getType() : OptionType::NONE;
}

std::uint16_t SOME_IP_SD_Option::getLength() const
{
    return m_implementation ? m_implementation->getLength() : std::uint16_t{0};
}

std::uint32_t SOME_IP_SD_Option::getSize() const
{
    return getLength() + prefixSize;
}

void SOME_IP_SD_Option::setLength(std::uint16_t length)
{
    if (m_implementation)
        m_implementation->setLength(length);
}

std::string SOME_IP_SD_Option::toString(unsigned int indent) const
{
    std::ostringstream text;
    text << std::string(indent, '\t')
         << (m_implementation ? m_implementation->kind() : "<UNKNOWN OPTION TYPE>");
    if (m_implementation)
        m_implementation->printSpecific(text);
    return text.str();
}

SOME_IP_SD_Option::Ptr SOME_IP_SD_Option::makeReceived(OptionType::Type_t type, std::uint16_t length)
{
    const OptionKind* const kind = kindOf(type);
    Ptr option = kind ? kind->makeEmpty(type, length) : new SOME_IP_SD_Option_Placeholder(length);
    option->setLength(length);
    return option;
}

std::uint16_t SOME_IP_SD_Option::shortestLength(OptionType::Type_t type)
{
    const OptionKind* const kind = kindOf(type);
    return kind ? kind->shortestLength : std::uint16_t{SOME_IP_SD_Types::OptionLength::MIN};
}

std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Option& option)
{
    return option.m_implementation ? option.m_implementation->serialise(stream) : stream;
}

std::istream& operator>>(std::istream& stream, SOME_IP_SD_Option& option)
{
    if (option.m_implementation)
        option.m_implementation->deserialise(stream);
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
