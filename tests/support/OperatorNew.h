#pragma once

#include <cstddef>

namespace Nubo::ServiceDiscovery::Testing {

/// Returns memory for operator new, of at least one byte; null makes it fail. To be defined by programs that
/// link OperatorNew.cpp, which replaces operator new and delete.
void* newMemory(std::size_t size) noexcept;

}  // namespace Nubo::ServiceDiscovery::Testing
