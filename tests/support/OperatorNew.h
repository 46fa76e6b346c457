#pragma once

#include <cstddef>

namespace Nubo::ServiceDiscovery::Testing {

/// Memory for operator new, of at least one byte; null lets it fail. A program that links OperatorNew.cpp,
/// which has operator new and delete in place of the standard library's, defines it.
void* newMemory(std::size_t size) noexcept;

}  // namespace Nubo::ServiceDiscovery::Testing
