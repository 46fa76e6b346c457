#include "services/ServiceJson.h"

#include "services/ServiceEntry.h"
#include "text/Text.h"
#include "unit/ServiceEvent.h"

#include <nlohmann/json.hpp>

namespace NuboSd {

nlohmann::ordered_json eventJson(const ServiceEvent& event, bool withTime)
{
    nlohmann::ordered_json json;
    if (withTime)
        json["time"] = jsonTime(event.time);
    json["event"] = kindName(event.kind);
    const ServiceEntry service = ServiceEntry::of(event.service);
    visitService(service, [&](const char* key, const auto& value) { json[key] = value; });
    return json;
}

}  // namespace NuboSd
