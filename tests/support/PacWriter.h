#pragma once
// PAC packages for tests and the fuzz corpus (packages/PacWriter.h), and typical layouts.

#include <string>
#include <vector>

#include "packages/PacWriter.h"

namespace quorvel::test {

using packages::BuildPac;
using packages::PacEntrySpec;
using packages::PacSpec;
using packages::WriteBytes;
using packages::WritePac;

// A typical SPRD package: FDL files, NV, a FLASH image, a system image and the
// unnamed configuration file at the end.
inline PacSpec TypicalSprdPac() {
    PacSpec layout;
    layout.productName = "SC9863A";
    layout.entries = {
        {"FDL", "fdl1.bin", std::string(300, '\x11')},          {"FDL2", "fdl2.bin", std::string(500, '\x22')},
        {"NV_W", "nvitem.bin", std::string(200, '\x33')},       {"FLASH", "flash.img", std::string(1000, '\x44')},
        {"System", "system.img", std::string(4096, '\x55')},    {"PhaseCheck", "", "", 1, 1},
        {"", "product.xml", std::string("<config/>\n") + '\0'},
    };
    return layout;
}

// The smallest package whose selection passes: FDL, NV and a system image.
inline PacSpec SmallSprdPac() {
    PacSpec layout;
    layout.entries = {{"FDL", "fdl.bin", "f"}, {"NV", "nv.bin", "n"}, {"System", "sys.img", "s"}};
    return layout;
}

// Changes `layout` by words[from...], in order, as the tables under tests/tables/ write
// a package:
//   typical | small                 start again from that layout
//   version V | product P | product-of N C (N times C) | nv-backup N | repartition FLAG MODE
//   no-crc | bad-header-crc | bad-data-crc | no-entries
//   entry ID NAME DATA [check=N] [omit=N] [flags=N]
//   id I ID | name I NAME | name-of I N C | data-of I N C | check I N   (entry I, from 0)
//   cut N | flip N                  keep N bytes | flip a bit N bytes before the end
// and fields that lie: file-count N, package-size+ N, file-size I N|package,
// fill-name I C, fill-product C, name-unit I POS UNIT. False, with the word, when a word
// is not one of these.
bool ChangePac(PacSpec& layout, const std::vector<std::string>& words, std::size_t from, std::string& error);

}  // namespace quorvel::test
