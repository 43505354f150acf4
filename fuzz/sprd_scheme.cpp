// An SPRD package's download configuration and the station's file list, as arbitrary
// bytes (the XML, then after a NUL byte the list): no crash, and a plan that is made
// holds both loaders and only entries it can carry out.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "FuzzScratch.h"
#include "engines/sprd/Plan.h"
#include "engines/sprd/Scheme.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Scratch scratch;
    static const std::string loader = [] {
        const std::uint8_t bytes[4] = {1, 2, 3, 4};
        return scratch.Write("img.bin", bytes, sizeof bytes);
    }();
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    const std::size_t nul = all.find('\0');
    const std::string_view xml = all.substr(0, nul);
    std::string list = nul == std::string_view::npos
                           ? "FDL\t" + loader + "\t4\t1\nFDL2\t" + loader + "\t4\t1\nSYSTEM\t" + loader + "\t4\t1\n"
                           : std::string(all.substr(nul + 1));

    sprd::Scheme scheme;
    std::vector<sprd::ListedFile> files;
    sprd::Plan plan;
    std::string error;
    const bool ok = sprd::ReadScheme(xml, "demo", scheme, error) && sprd::ReadFileList(list, files, error) &&
                    sprd::MakePlan(scheme, files, size & 1, plan, error);
    if (!ok && error.empty()) std::abort();  // every refusal says why
    if (!ok) return 0;
    if (plan.fdl.path.empty() || plan.fdl2.path.empty() || plan.fdl.size == 0) std::abort();
    for (const auto& s : plan.steps) {
        if (s.kind == sprd::PlanStep::IMAGE && s.path.empty()) std::abort();
        if (s.nv && (s.partition.empty() || (plan.keepCalibration && plan.nvItems.empty()))) std::abort();
    }
    return 0;
}
