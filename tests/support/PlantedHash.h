#pragma once

#include "LogicLayer/KeyedHash.h"

namespace Nubo::ServiceDiscovery::Testing {

/// Makes the whole process hash with another function while it exists. Entries hashed meanwhile must be gone
/// before it ends, and earlier ones must not be looked up meanwhile.
class PlantedHash
{
public:
    explicit PlantedHash(KeyedHash::Function function) { KeyedHash::plant(function); }
    ~PlantedHash() { KeyedHash::plant(nullptr); }

    PlantedHash(const PlantedHash&) = delete;
    PlantedHash& operator=(const PlantedHash&) = delete;
};

}  // namespace Nubo::ServiceDiscovery::Testing
