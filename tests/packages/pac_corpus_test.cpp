// The fuzz seed corpora for PAC parsing and extraction are made by the test package writer. This test
// checks the checked-in seeds still equal what the writer makes; run it with
// QUORVEL_WRITE_PAC_CORPUS=1 to write them again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/PacWriter.h"
#include "support/TableFile.h"

using namespace quorvel;
using quorvel::test::PacSpec;

namespace {

TEST(PacCorpus, SeedsMatchTheWriter) {
    const std::filesystem::path source = QUORVEL_SOURCE_DIR;
    const bool write = std::getenv("QUORVEL_WRITE_PAC_CORPUS") != nullptr;
    for (const auto& row : test::ReadTable("fuzz-seeds.txt")) {
        PacSpec layout;
        std::string error;
        ASSERT_TRUE(row.words.size() >= 2 && test::ChangePac(layout, row.words, 2, error)) << row.where << error;
        const std::string bytes = test::BuildPac(layout);
        const std::string folder = (source / "fuzz/corpus" / row.words[0]).string() + "/";
        if (write) std::filesystem::create_directories(folder);
        if (write) test::WriteBytes(folder + row.words[1], bytes);
        std::ifstream in(folder + row.words[1], std::ios::binary);
        const std::string stored((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_TRUE(stored == bytes) << row.where << ": run with QUORVEL_WRITE_PAC_CORPUS=1 to write the seeds again";
    }
}

}  // namespace
