// Device and socket texts as the backends hand them over (instance IDs, friendly names,
// serial node names, socket locations, COM names), one per line of arbitrary bytes: no
// crash, and the mappings keep their own promises.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "devices/DeviceBackend.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceText.h"
#include "engines/EngineRecords.h"
#include "station/BindingTable.h"

using namespace quorvel;
using namespace quorvel::devices;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines;
    for (std::size_t start = 0; start <= input.size();) {
        std::size_t end = input.find('\n', start);
        if (end == std::string::npos) end = input.size();
        lines.push_back(input.substr(start, end - start));
        start = end + 1;
    }

    PortTable table;
    app::BindingTable bindings;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i];
        const PidClass c = ClassOf(text);
        if (c < PidClass::BROM || c > PidClass::OTHER) std::abort();
        const std::string port = PortNameOf(text);
        if (port.size() > text.size()) std::abort();
        (void)PortNumberOf(port);
        // A serial node maps to a COM number that maps back to an equivalent node.
        if (const int com = ComNumberOfNode(text); com != 0) {
            if (com < 1 || ComNumberOfNode(NodeOfComNumber(com)) != com) std::abort();
        }
        const std::string key = LookupKey(text);
        if (key.find('#') != std::string::npos || LookupKey(key) != key) std::abort();

        if (i + 1 < lines.size()) table.Add(text, lines[i + 1]);
        const int slot = static_cast<int>(i % app::kSlotCount);
        bindings.SetHsLocation(slot, text);
        bindings.SetComName(slot, port);
        if (bindings.Get(slot).hs != text) std::abort();

        std::string kept = text.substr(0, kEventIdChars);
        kept = kept.substr(0, kept.find('\0'));
        if (EventText(text, kEventIdChars) != kept) std::abort();
        (void)EventText(LocationIn(table, text), kEventLocationChars);
    }
    for (const auto& id : lines) {
        const std::string location = LocationIn(table, id);
        if (!location.empty() &&
            std::find(table.locations.begin(), table.locations.end(), location) == table.locations.end())
            std::abort();
    }
    const std::size_t half = lines.size() / 2;
    const std::vector<std::string> previous(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(half));
    const std::vector<std::string> current(lines.begin() + static_cast<std::ptrdiff_t>(half), lines.end());
    const ListDiff diff = DiffLists(previous, current);
    if (diff.removed.size() > previous.size() || diff.arrived.size() > current.size()) std::abort();
    const MonitorChoice choice = MonitorChoiceOf(size > 0 ? data[0] % 6 : 0, lines.back());
    (void)EventKindOf(choice.contextKind);
    return 0;
}
