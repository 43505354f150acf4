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
    std::map<std::string, std::string> seeds;
    seeds["typical.pac"] = test::BuildPac(test::TypicalSprdPac());
    PacSpec noCrc = test::TypicalSprdPac();
    noCrc.withCrc = false;
    seeds["no_crc.pac"] = test::BuildPac(noCrc);
    PacSpec dup;
    dup.entries = {{"", "a", "1"}, {"B", "a", "2"}, {"", "z", ""}, {"NV", "n", std::string("x\0", 2)}};
    seeds["duplicates.pac"] = test::BuildPac(dup);
    PacSpec refused;
    refused.entries = {{"A", "../up", "1"}};
    seeds["refused_name.pac"] = test::BuildPac(refused);
    PacSpec repartition = test::TypicalSprdPac();
    repartition.repartitionFlag = 1;
    repartition.repartitionMode = 0;
    repartition.entries[4].checkFlag = 0;
    seeds["repartition.pac"] = test::BuildPac(repartition);
    return seeds;
}

// Seeds of the extraction: names repeated, dotted, and a configuration file last.
std::map<std::string, std::string> ExtractSeeds() {
    std::map<std::string, std::string> seeds;
    seeds["typical.pac"] = test::BuildPac(test::TypicalSprdPac());
    PacSpec names;
    names.entries = {{"A", "same", "1"}, {"B", "same(1)", "2"}, {"C", "same", "3"},
                     {"D", "boot..img", "4"}, {"", "config.xml", std::string("<c/>\0", 5)}};
    seeds["names.pac"] = test::BuildPac(names);
    PacSpec noCrc = names;
    noCrc.withCrc = false;
    seeds["names_no_crc.pac"] = test::BuildPac(noCrc);
    return seeds;
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
