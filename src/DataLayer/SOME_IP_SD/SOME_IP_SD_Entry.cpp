#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ElementKinds.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/WireStream.h"

#include <sstream>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionRun;

namespace {

constexpr std::uint8_t largestRun = 15;

std::string typeName(EntryType::Type_t type)
{
    if (const EntryKind* const kind = kindOf(type))
        return kind->name;
    std::ostringstream text;
    text << "UNKNOWN 0x" << std::hex << +type;
    return text.str();
}

bool setOptionRun(const char* operation, const OptionRun& run, std::uint8_t& index, std::uint8_t& number)
{
    if (run.second > largestRun) {
        // Kept for compatibility: the number is written as one raw character.
        SD_LOG(Error) << operation << ": OptionRun number '" << static_cast<char>(run.second)
                      << "' too large for 4 Bit!";
        return false;
    }
    index = run.first;
    number = run.second;
    return true;
}

}  // namespace

SOME_IP_SD_Entry_Pimpl::SOME_IP_SD_Entry_Pimpl(EntryType::Type_t type)
{
    m_commonFields.type = type;
}

SOME_IP_SD_Entry_Pimpl::SOME_IP_SD_Entry_Pimpl(const CommonFields& fields)
    : m_valid(true)
    , m_commonFields(fields)
{}

SOME_IP_SD_Entry_Pimpl::~SOME_IP_SD_Entry_Pimpl() = default;

std::ostream& SOME_IP_SD_Entry_Pimpl::serialise(std::ostream& stream) const
{
    const CommonFields& fields = m_commonFields;
    const int numbers = fields.fstOptionRunNum << 4 | (fields.sndOptionRunNum & 0x0F);
    WireWriter writer(stream);
    writer.write(static_cast<std::uint8_t>(fields.type), fields.fstOptionRunIndex, fields.sndOptionRunIndex,
                 static_cast<std::uint8_t>(numbers), fields.serviceID, fields.instanceID, fields.majorVersion,
                 Low24{fields.ttl});
    writer.checkWritten("SOME_IP_SD_Entry", commonSize);
    return stream;
}

std::streamsize SOME_IP_SD_Entry_Pimpl::deserialise(std::istream& stream)
{
    CommonFields fields = m_commonFields;
    std::uint8_t numbers = 0;
    WireReader reader(stream);
    reader.read(fields.fstOptionRunIndex, fields.sndOptionRunIndex, numbers, fields.serviceID,
                fields.instanceID, fields.majorVersion);
    reader.readFormatted24(fields.ttl);
    fields.fstOptionRunNum = numbers >> 4;
    fields.sndOptionRunNum = numbers & 0x0F;

    constexpr std::streamsize withoutType = commonSize - 1;
    if (reader.checkRead("SOME_IP_SD_Entry", withoutType, commonSize, ""))
        m_commonFields = fields;
    else
        setValid(false);
    return reader.count();
}

void SOME_IP_SD_Entry_Pimpl::refuseType(const char* kind, const char* types)
{
    setValid(false);
    SD_LOG(Error) << kind << " SOME_IP_SD_Entry needs to be of type " << types << "but 0x"
                  << typeName(m_commonFields.type) << " given!";
}

SOME_IP_SD_Entry::SOME_IP_SD_Entry(SOME_IP_SD_Entry_Pimpl* implementation) : m_implementation(implementation)
{
    if (!implementation)
        SD_LOG(Error) << "SOME_IP_SD_Entry::SOME_IP_SD_Entry: given Implementation is nullptr!";
}

SOME_IP_SD_Entry::~SOME_IP_SD_Entry() = default;

const SOME_IP_SD_Entry::CommonFields& SOME_IP_SD_Entry::fields() const
{
    static const CommonFields unusable;
    return m_implementation ? m_implementation->commonFields() : unusable;
}

template <class Field, class Value>
bool SOME_IP_SD_Entry::setField(Field CommonFields::*field, Value value)
{
    if (m_implementation)
        m_implementation->commonFields().*field = value;
    return m_implementation != nullptr;
}

bool SOME_IP_SD_Entry::isValid() const
{
    return m_implementation && m_implementation->isValid();
}

EntryType::Type_t SOME_IP_SD_Entry::getType() const
{
    return fields().type;
}

OptionRun SOME_IP_SD_Entry::getFstOptionRun() const
{
    return {fields().fstOptionRunIndex, fields().fstOptionRunNum};
}

OptionRun SOME_IP_SD_Entry::getSndOptionRun() const
{
    return {fields().sndOptionRunIndex, fields().sndOptionRunNum};
}

std::uint16_t SOME_IP_SD_Entry::getServiceID() const
{
    return fields().serviceID;
}

std::uint16_t SOME_IP_SD_Entry::getInstanceID() const
{
    return fields().instanceID;
}

std::uint8_t SOME_IP_SD_Entry::getMajorVersion() const
{
    return fields().majorVersion;
}

std::uint32_t SOME_IP_SD_Entry::getTTL() const
{
    return fields().ttl;
}

bool SOME_IP_SD_Entry::setFstOptionRun(const OptionRun& run)
{
    if (!m_implementation)
        return false;
    CommonFields& common = m_implementation->commonFields();
    return setOptionRun("setFstOptionRun", run, common.fstOptionRunIndex, common.fstOptionRunNum);
}

bool SOME_IP_SD_Entry::setSndOptionRun(const OptionRun& run)
{
    if (!m_implementation)
        return false;
    CommonFields& common = m_implementation->commonFields();
    return setOptionRun("setSndOptionRun", run, common.sndOptionRunIndex, common.sndOptionRunNum);
}

bool SOME_IP_SD_Entry::setServiceID(std::uint16_t serviceID)
{
    return setField(&CommonFields::serviceID, serviceID);
}

bool SOME_IP_SD_Entry::setInstanceID(std::uint16_t instanceID)
{
    return setField(&CommonFields::instanceID, instanceID);
}

bool SOME_IP_SD_Entry::setMajorVersion(std::uint8_t majorVersion)
{
    return setField(&CommonFields::majorVersion, majorVersion);
}

bool SOME_IP_SD_Entry::setTTL(std::uint32_t ttl)
{
    return setField(&CommonFields::ttl, ttl);
}

std::string SOME_IP_SD_Entry::toString(unsigned int indent) const
{
    const CommonFields& common = fields();
    std::ostringstream text;
    text << std::string(indent, '\t')
         << (m_implementation ? m_implementation->kind() : "<UNKNOWN ENTRY TYPE>") << std::hex;
    text << "Type(" << typeName(common.type) << "), ";
    text << "ServiceID(0x" << common.serviceID << "), InstanceID(0x" << common.instanceID << "), ";
    text << "FstOptionRun(0x" << +common.fstOptionRunIndex << "|0x" << +common.fstOptionRunNum << "), ";
    text << "SndOptionRun(0x" << +common.sndOptionRunIndex << "|0x" << +common.sndOptionRunNum << "), ";
    text << std::dec << "TTL(" << common.ttl << "), MajorVersion(" << +common.majorVersion << "), ";
    if (m_implementation)
        m_implementation->printSpecific(text);
    return text.str();
}

bool SOME_IP_SD_Entry::isReservedInstanceID(std::uint16_t instanceID)
{
    return instanceID == SOME_IP_SD_Types::EntryValues::InstanceID_Reserved;
}

std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Entry& entry)
{
    return entry.m_implementation ? entry.m_implementation->serialise(stream) : stream;
}

std::istream& operator>>(std::istream& stream, SOME_IP_SD_Entry& entry)
{
    if (entry.m_implementation)
        entry.m_implementation->deserialise(stream);
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
