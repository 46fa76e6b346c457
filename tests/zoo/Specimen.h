#pragma once

#include "ServiceDiscovery.h"

#include <Poco/Message.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

/// Datagrams that are kept as data, in the JSON files beside this one: groups of
///
///     { "name": "…", "hex": […], "log": […], "handled": […] }
///
/// hex      the bytes in wire order, an element a field or a structure
/// log      what the unit says about them: its errors, warnings and notices, and the debug lines that tell
///          of something skipped; a byte outside 20 to 7e stands as \xNN
/// handled  what it does all the same: "+<service>" for a discovered one, "-<service>" for one that is gone,
///          a service being "<URI> <transport> v<version>… #<category>…"
///
/// In each list an element {"times": N, "of": […]} stands for N repetitions.
namespace Nubo::ServiceDiscovery::Testing {

struct Specimen
{
    std::string name;
    std::string bytes;
    std::vector<std::string> log;
    std::vector<std::string> handled;

    friend void PrintTo(const Specimen& specimen, std::ostream* stream) { *stream << specimen.name; }
};

using SpecimenGroups = std::map<std::string, std::vector<Specimen>>;

SpecimenGroups readSpecimens(const std::string& fileName);

/// The names of the groups, for a test that is run once with each.
std::vector<std::string> namesOf(const SpecimenGroups& groups);

/// An event as a specimen's "handled" has it.
std::string handledText(ServiceDiscovery::EventType type, const NuboServiceDescription& description);

/// Those lines that a specimen's "log" has.
std::vector<std::string> reportedLines(const std::vector<Poco::Message>& messages);

}  // namespace Nubo::ServiceDiscovery::Testing
