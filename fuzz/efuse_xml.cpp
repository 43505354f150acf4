// The efuse XML of an MTK package, as arbitrary bytes: no crash, and whatever chip name
// it yields selects one of the four download-agent folders.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzScratch.h"
#include "packages/MtkPreparation.h"
#include "platform/Clock.h"
#include "station/Station.h"
#include "support/FixedOptions.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Scratch scratch;
    static platform::ManualClock clock;
    static app::Station station(test::FixedOptions(scratch.Path()), clock);
    const std::string xml = scratch.Write("fw/efuse.xml", data, size);

    packages::MtkPreparation prep(station);
    prep.LoadChipName(xml);
    prep.SelectDaVariant();
    const int variant = prep.State().DaVariant;
    if (variant < 0 || variant > 3 || variant != packages::DaVariantOf(prep.State().ChipName)) std::abort();
    if (packages::DaFolderOf(station.ExeDir(), variant).rfind(station.ExeDir(), 0) != 0) std::abort();
    return 0;
}
