// The fuzz seed corpora for PAC parsing and extraction are made by the test package writer. This test
// checks the checked-in seeds still equal what the writer makes; run it with
// QUORVEL_WRITE_PAC_CORPUS=1 to write them again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "support/PacWriter.h"
#include "support/TempDir.h"

using namespace quorvel;
using quorvel::test::PacSpec;

namespace {

// Seeds of the table checks, by file name.
std::map<std::string, std::string> ParseSeeds() {
    PacSpec noCrc = test::TypicalSprdPac(), dup, refused, repartition = test::TypicalSprdPac();
    noCrc.withCrc = false;
    dup.entries = {{"", "a", "1"}, {"B", "a", "2"}, {"", "z", ""}, {"NV", "n", std::string("x\0", 2)}};
    refused.entries = {{"A", "../up", "1"}};
    repartition.repartitionFlag = 1;
    repartition.repartitionMode = 0;
    repartition.entries[4].checkFlag = 0;
    return {{"typical.pac", test::BuildPac(test::TypicalSprdPac())},
            {"no_crc.pac", test::BuildPac(noCrc)},
            {"duplicates.pac", test::BuildPac(dup)},
            {"refused_name.pac", test::BuildPac(refused)},
            {"repartition.pac", test::BuildPac(repartition)}};
}

// Seeds of the extraction: names repeated, dotted, and a configuration file last.
std::map<std::string, std::string> ExtractSeeds() {
    PacSpec names;
    names.entries = {{"A", "same", "1"},
                     {"B", "same(1)", "2"},
                     {"C", "same", "3"},
                     {"D", "boot..img", "4"},
                     {"", "config.xml", std::string("<c/>\0", 5)}};
    PacSpec noCrc = names;
    noCrc.withCrc = false;
    return {{"typical.pac", test::BuildPac(test::TypicalSprdPac())},
            {"names.pac", test::BuildPac(names)},
            {"names_no_crc.pac", test::BuildPac(noCrc)}};
}

TEST(PacCorpus, SeedsMatchTheWriter) {
    const std::filesystem::path source = QUORVEL_SOURCE_DIR;
    const bool write = std::getenv("QUORVEL_WRITE_PAC_CORPUS") != nullptr;
    for (const auto& [target, seeds] : {std::pair{"pac_parse", ParseSeeds()}, {"pac_extract", ExtractSeeds()}}) {
        const std::string folder = (source / "fuzz/corpus" / target).string() + "/";
        if (write) std::filesystem::create_directories(folder);
        for (const auto& [name, bytes] : seeds) {
            if (write) test::WriteBytes(folder + name, bytes);
            std::ifstream in(folder + name, std::ios::binary);
            const std::string stored((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            EXPECT_TRUE(stored == bytes) << target << "/" << name
                                         << ": run with QUORVEL_WRITE_PAC_CORPUS=1 to write the seeds again";
        }
    }
}

}  // namespace
