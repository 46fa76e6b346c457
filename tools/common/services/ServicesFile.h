#pragma once

#include "services/ServiceEntry.h"

#include <string>
#include <vector>

namespace NuboSd {

/// A list of services: a JSON array of objects with the keys of a "discovered" event.
struct ServicesFile
{
    std::vector<ServiceEntry> services;
    /// "services.json:3:14: service 2: unknown key "prot"", in the order of the file. A file that is no
    /// JSON has one.
    std::vector<std::string> mistakes;
};

/// Reads a list of services and looks for mistakes. Throws UsageError when the file cannot be read.
ServicesFile readServicesFile(const std::string& path);

}  // namespace NuboSd
