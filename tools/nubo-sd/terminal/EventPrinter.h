#pragma once

#include <iosfwd>

namespace NuboSd {

struct ServiceEvent;

/// Writes events as text or JSON, one per line.
class EventPrinter
{
public:
    EventPrinter(std::ostream& stream, bool json, bool withTime);

    /// False when the line could not be written: the reader is gone.
    bool print(const ServiceEvent& event);

private:
    std::ostream& m_stream;
    const bool m_json;
    const bool m_withTime;
};

}  // namespace NuboSd
