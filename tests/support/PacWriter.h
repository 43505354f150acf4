#pragma once
// PAC packages for tests and the fuzz corpus (packages/PacWriter.h), and typical layouts.

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

}  // namespace quorvel::test
