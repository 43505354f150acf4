// The package's download scheme and the plan made of it with the station's file list:
// tolerant reading, the choice among several schemes, and hostile or incomplete input
// refused with a message that names what is missing.
#include "engines/sprd/Scheme.h"

#include <gtest/gtest.h>

#include "engines/sprd/Codes.h"
#include "engines/sprd/Plan.h"
#include "sprd/PackageFixture.h"
#include "support/TableFile.h"

using namespace quorvel::sprd;

namespace {

std::string Replace(std::string s, const std::string& from, const std::string& to) {
    const auto at = s.find(from);
    if (at != std::string::npos) s.replace(at, from.size(), to);
    return s;
}

TEST(SprdScheme, PlanFollowsTheSchemeAndTheSelection) {
    quorvel::test::SprdPackage pkg;
    Scheme scheme;
    std::vector<ListedFile> files;
    Plan plan;
    std::string error;
    ASSERT_TRUE(ReadScheme(pkg.Xml(), "", scheme, error)) << error;
    ASSERT_TRUE(ReadFileList(pkg.List(), files, error)) << error;
    ASSERT_TRUE(MakePlan(scheme, files, 0, plan, error)) << error;
    EXPECT_EQ(plan.fdl.address, 0x5000u);
    EXPECT_EQ(plan.fdl2.size, pkg.fdl2.size());
    ASSERT_EQ(plan.partitions.size(), 4u);
    EXPECT_EQ(plan.partitions[3].sizeMiB, kRestOfStorage);
    ASSERT_EQ(scheme.nvItems.size(), 2u);
    EXPECT_EQ(scheme.nvItems[1].id, 5u);
    std::vector<std::string> order;
    for (const auto& s : plan.steps) order.push_back(s.id + (s.kind == PlanStep::ERASE ? "-" : ""));
    EXPECT_EQ(order, (std::vector<std::string>{"NV_W", "BOOT", "EraseUserdata-", "System"}));
    EXPECT_TRUE(plan.steps[0].nv);

    // A factory download erases NV as the package asks; an unselected file is left out.
    files[4].checkFlag = 0;
    ASSERT_TRUE(MakePlan(scheme, files, 1, plan, error)) << error;
    order.clear();
    for (const auto& s : plan.steps) order.push_back(s.id + (s.kind == PlanStep::ERASE ? "-" : ""));
    EXPECT_EQ(order, (std::vector<std::string>{"NV_W", "EraseNV-", "BOOT", "EraseUserdata-"}));
}

TEST(SprdScheme, HostileAndIncompleteInputIsRefusedByName) {
    quorvel::test::SprdPackage pkg;
    for (const auto& row : quorvel::test::ReadTable("sprd-scheme.txt")) {
        std::string xml = pkg.Xml(), list = pkg.List();
        const auto& w = row.words;
        for (std::size_t i = 1; i < w.size(); i += 2) {
            if (w[i] == "xml=") xml = w[i + 1];
            if (w[i] == "nest") xml = std::string(std::stoul(w[i + 1]), '<') + "a>";
            if (w[i] == "list+") list += w[i + 1];
            if (w[i] == "xml" || w[i] == "list") {
                xml = w[i] == "xml" ? Replace(xml, w[i + 1], w.at(i + 2)) : xml;
                list = w[i] == "list" ? Replace(list, w[i + 1], w.at(i + 2)) : list;
                ++i;
            }
        }
        Scheme scheme;
        std::vector<ListedFile> files;
        Plan plan;
        std::string error;
        const bool ok = ReadScheme(xml, "demo", scheme, error) && ReadFileList(list, files, error) &&
                        MakePlan(scheme, files, 0, plan, error);
        EXPECT_EQ(ok, w[0] == "ok") << row.where << ": " << error;
        EXPECT_TRUE(w[0] == "ok" || error.find(w[0]) != std::string::npos) << row.where << ": " << error;
    }
}

TEST(SprdCodes, EveryReplyHasWordsAndItsCode) {
    EXPECT_EQ(ReplyText(rep::SIGNATURE_REFUSED), "phone refused the signature (0xA6)");
    EXPECT_EQ(ReplyText(0x42), "phone sent an unknown reply (0x42)");
    for (unsigned t = 0x80; t <= 0xFF; ++t)
        EXPECT_EQ(ReplyText(static_cast<std::uint16_t>(t)).find("(0x"),
                  ReplyText(static_cast<std::uint16_t>(t)).size() - 6);
}

}  // namespace
