// PAC extraction of arbitrary bytes into a scratch folder: no crash, nothing written
// outside the extraction folder, and a success hands back a table of extracted paths
// inside it.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzScratch.h"
#include "console/ConsoleUi.h"
#include "packages/BinPack.h"
#include "packages/SprdDownloadConfig.h"
#include "platform/Clock.h"

using namespace quorvel;
using namespace quorvel::packages;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Scratch scratch;
    static const std::string base = scratch.Path() + "out";
    std::filesystem::create_directories(base);
    const std::string package = scratch.Write("pkg.pac", data, size);

    app::HeadlessConsoleUi ui;
    platform::ManualClock clock{7};
    CBinPack pack(ui.Teller(), clock);
    PacHeader header;
    std::vector<PacFileEntry> table;
    const int ok = pack.Open(package) ? pack.Unpack(base.c_str(), &header, &table) : 0;
    if (ui.Messages().size() != (ok ? 0u : 1u)) std::abort();  // each failure says why, once

    const std::string folder = pack.GetOutputFolder();
    for (const auto& entry : std::filesystem::directory_iterator(base))
        if (entry.path().string() != folder) std::abort();
    if (ok) {
        if (header.FileCount < 0 || table.size() != static_cast<std::size_t>(header.FileCount)) std::abort();
        for (const auto& e : table) {
            std::string name;
            if (e.FileSize == 0 || !ReadField(e.FileName, name)) continue;
            const std::string rest = name.substr(std::min(name.size(), folder.size() + 1));
            if (name.rfind(folder + "/", 0) != 0 || rest.empty() || rest.find('/') != std::string::npos) std::abort();
        }
        SprdSelection selection;
        std::string error;
        SelectSprdFiles(header, table, selection, error);
    }
    CBinPack::DeleteFolder(folder.c_str());
    return 0;
}
