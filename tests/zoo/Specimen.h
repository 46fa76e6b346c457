#pragma once

#include "ServiceDiscovery.h"

#include <Poco/Message.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

/// A datagram that is stored as data in the JSON files of this folder. The files contain groups of
///
///     { "name": "…", "hex": […], "log": […], "handled": […] }
///
/// hex      the bytes in wire order, with one element per field or structure
/// log      the lines that the unit logs: errors, warnings and notices, and debug lines about skipped parts.
///          A byte outside 20 to 7e is written as \xNN
/// handled  the resulting events: "+<service>" for a service that is discovered, "-<service>" for one that is
///          gone, where a service is "<URI> <transport> v<version>… #<category>…"
///
/// In each list, an element {"times": N, "of": […]} means N repetitions.
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

/// The names of the groups, for tests that run once per group.
std::vector<std::string> namesOf(const SpecimenGroups& groups);

/// An event in the notation of a specimen's "handled".
std::string handledText(ServiceDiscovery::EventType type, const NuboServiceDescription& description);

/// Selects the lines that a specimen's "log" would list.
std::vector<std::string> reportedLines(const std::vector<Poco::Message>& messages);

}  // namespace Nubo::ServiceDiscovery::Testing
