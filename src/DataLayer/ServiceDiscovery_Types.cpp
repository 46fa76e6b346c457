#include "DataLayer/ServiceDiscovery_Types.h"

#include <iterator>

namespace Nubo::ServiceDiscovery {

namespace SOME_IP_Types {

namespace {

constexpr std::uint16_t serviceIDs[] = {HeaderValues::ServiceID_Reserved};
constexpr std::uint16_t methodIDs[] = {HeaderValues::MethodID_Reserved00, HeaderValues::MethodID_Reserved01,
                                       HeaderValues::MethodID_Reserved02, HeaderValues::MethodID_Reserved03};

}  // namespace

// Never destroyed: threads may still read datagrams while the process exits.
const std::set<std::uint16_t>& HeaderValues::Reserved_ServiceIDs =
    *new std::set<std::uint16_t>(std::begin(serviceIDs), std::end(serviceIDs));
const std::set<std::uint16_t>& HeaderValues::Reserved_MethodIDs =
    *new std::set<std::uint16_t>(std::begin(methodIDs), std::end(methodIDs));

}  // namespace SOME_IP_Types

namespace SOME_IP_SD_Types {

const std::string OptionKeywords::NonSOME_IP_ServiceName = "otherserv";
const std::string OptionKeywords::Hostname = "hostname";
const std::string OptionKeywords::Instancename = "instancename";
const std::string OptionKeywords::Servicename = "servicename";
const std::string OptionKeywords::NuBo_RecordVersionKey = "txtvers";
const std::string OptionKeywords::NuBo_RecordVersionValue = "1";
const std::string OptionKeywords::NuBo_ApplProtocolKey = "l6proto";
const std::string OptionKeywords::NuBo_ApplProtocolValue = "nubo";
const std::string OptionKeywords::NuBo_Servicename = NonSOME_IP_ServiceName;
const std::string OptionKeywords::NuBo_Category = "category";
const std::string OptionKeywords::NuBo_Version = "version";

}  // namespace SOME_IP_SD_Types

}  // namespace Nubo::ServiceDiscovery
