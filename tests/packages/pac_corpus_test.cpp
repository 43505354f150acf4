// The fuzz seed corpus for PAC parsing is made by the test package writer. This test
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

std::map<std::string, std::string> Seeds() {
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

TEST(PacCorpus, SeedsMatchTheWriter) {
    const std::filesystem::path source = QUORVEL_SOURCE_DIR;
    const std::string folder = (source / "fuzz/corpus/pac_parse/").string();
    const bool write = std::getenv("QUORVEL_WRITE_PAC_CORPUS") != nullptr;
    if (write) std::filesystem::create_directories(folder);
    for (const auto& [name, bytes] : Seeds()) {
        if (write) test::WriteBytes(folder + name, bytes);
        std::ifstream in(folder + name, std::ios::binary);
        const std::string stored((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(stored, bytes) << name << ": run with QUORVEL_WRITE_PAC_CORPUS=1 to write the seeds again";
    }
}

}  // namespace
