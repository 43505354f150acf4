#pragma once
// A small SPRD package on disk for the engine's tests: loaders, images, an NV image, the
// configuration XML and the station's file list.

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engines/sprd/NvImage.h"
#include "support/TempDir.h"

namespace quorvel::test {

struct SprdPackage {
    TempDir dir;
    std::vector<std::uint8_t> fdl, fdl2, boot, system, nv;

    static std::vector<std::uint8_t> Pattern(std::size_t n, unsigned seed) {
        std::vector<std::uint8_t> v(n);
        std::uint32_t x = seed * 2654435761u + 1;
        for (auto& b : v) {
            x = x * 1664525u + 1013904223u;
            b = static_cast<std::uint8_t>(x >> 24);
        }
        return v;
    }

    SprdPackage() {
        fdl = Pattern(3000, 1);
        fdl2 = Pattern(5001, 2);  // odd: the last chunk is odd
        boot = Pattern(70000, 3);
        system = Pattern(200001, 4);
        // The package's NV: a blank calibration and IMEI, and a radio table it brings new.
        nv = sprd::MakeNvImage(
            {{2, std::vector<std::uint8_t>(64, 0)}, {5, std::vector<std::uint8_t>(8, 0)}, {9, Pattern(100, 5)}}, 4096);
        Put("fdl1.bin", fdl);
        Put("fdl2.bin", fdl2);
        Put("boot.img", boot);
        Put("system.img", system);
        Put("nv.bin", nv);
        dir.Write("config.xml", Xml());
        dir.Write("files.txt", List());
    }

    void Put(const std::string& name, const std::vector<std::uint8_t>& bytes) const {
        dir.Write(name, std::string(bytes.begin(), bytes.end()));
    }

    // The package's download configuration, kept beside this file.
    static std::string Xml() {
        std::ifstream in(std::string(QUORVEL_SOURCE_DIR) + "/tests/sprd/package.xml");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string List() const {
        auto line = [&](const char* id, const char* file, std::size_t size) {
            return std::string(id) + "\t" + dir.File(file) + "\t" + std::to_string(size) + "\t1\n";
        };
        return line("FDL", "fdl1.bin", fdl.size()) + line("FDL2", "fdl2.bin", fdl2.size()) +
               line("NV_W", "nv.bin", nv.size()) + line("BOOT", "boot.img", boot.size()) +
               line("SYSTEM", "system.img", system.size()) + "EraseUserdata\t\t0\t1\n";
    }
};

}  // namespace quorvel::test
