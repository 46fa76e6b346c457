#pragma once

#include "services/ServiceEntry.h"

#include <string>
#include <vector>

namespace NuboSd {

/// A list of services: a JSON array of objects with the keys of a "discovered" event.
struct ServicesFile
{
    std::vector<ServiceEntry> services;
    /// "services.json:3:14: service 2: unknown key "prot"", in the order of the file. A file that is not
    /// JSON has exactly one.
    std::vector<std::string> mistakes;
};

/// Reads and checks a list of services. Throws UsageError when the file cannot be read.
ServicesFile readServicesFile(const std::string& path);

}  // namespace NuboSd
