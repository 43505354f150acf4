// Job history lines of arbitrary bytes: no crash, and whatever is read writes back as one
// line that reads back to the same record. The same bytes as a broker's jobs message or a
// gathered line (what the collector and the fleet history read) must not crash either.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "history/FleetHistory.h"
#include "history/JobHistory.h"
#include "history/JobHistoryReader.h"

using namespace quorvel::app;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (const auto job = ParseJobsPayload(input); job && !ValidStationName(job->station)) std::abort();
    (void)ParseGatheredLine(input);
    const auto first = ParseJobLine(input);
    if (!first) return 0;
    // Bytes that are not UTF-8 are replaced on the first write; from then on it is exact.
    const std::string line = JobLine(*first);
    if (line.find('\n') != line.size() - 1) std::abort();
    const auto second = ParseJobLine(std::string_view(line).substr(0, line.size() - 1));
    if (!second || JobLine(*second) != line) std::abort();
    if (second->slot != first->slot || second->start != first->start || second->end != first->end ||
        second->result != first->result || second->bytesSent != first->bytesSent)
        std::abort();
    return 0;
}
