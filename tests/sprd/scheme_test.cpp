// The package's download scheme and the plan made of it with the station's file list:
// tolerant reading, the choice among several schemes, and hostile or incomplete input
// refused with a message that names what is missing.
#include "engines/sprd/Scheme.h"

#include <gtest/gtest.h>

#include "engines/sprd/Codes.h"
#include "engines/sprd/Plan.h"
#include "sprd/PackageFixture.h"

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
    const std::string xml = pkg.Xml();
    struct Row {
        const char* what;
        std::string xml;
        std::string list;
        const char* error;  // empty: reads and plans
    };
    const std::string deep = std::string(20000, '<') + "a>";
    std::string twoSchemes =
        Replace(xml, "</SchemeList>", "<Scheme name=\"other\"><File><ID>X</ID></File></Scheme></SchemeList>");
    const std::vector<Row> rows = {
        {"names in any case, unknown elements",
         Replace(Replace(xml, "<SchemeList>", "<schemelist><Junk a='1'/>"), "</SchemeList>", "</schemelist>"),
         pkg.List(), ""},
        {"two schemes, matched by product", twoSchemes, pkg.List(), ""},
        {"two schemes, none for the product", Replace(twoSchemes, "<Scheme name=\"demo\">", "<Scheme name=\"x\">"),
         pkg.List(), "2 download schemes and none for product demo"},
        {"not XML", "<BMAConfig><oops", pkg.List(), "not readable XML"},
        {"nesting bomb", deep, pkg.List(), "not readable XML"},
        {"other root", "<Config/>", pkg.List(), "no BMAConfig root"},
        {"no scheme", "<BMAConfig><ProductList/></BMAConfig>", pkg.List(), "no SchemeList/Scheme"},
        {"entry without ID", Replace(xml, "<ID>BOOT</ID>", ""), pkg.List(), "entry 5 has no ID"},
        {"flag not a number",
         Replace(xml, "<Flag>1</Flag><CheckFlag>1</CheckFlag></File>\n   <File><ID>EraseNV",
                 "<Flag>x</Flag><CheckFlag>1</CheckFlag></File>\n   <File><ID>EraseNV"),
         pkg.List(), "NV_W: Flag is not a number"},
        {"address beyond 32 bits", Replace(xml, "0x9efffe00", "0x1ffffffff"), pkg.List(), "beyond 32 bits"},
        {"image without a block", Replace(xml, "<Block id=\"boot\"/>", ""), pkg.List(), "BOOT has no Block"},
        {"NV item without id", Replace(xml, "<ID>0x5</ID>", ""), pkg.List(),
         "NV item IMEI of product demo has no usable ID"},
        {"partition without size", Replace(xml, "<Partition id=\"boot\" size=\"4\"/>", "<Partition id=\"boot\"/>"),
         pkg.List(), "partition boot of product demo has no usable size"},
        {"no first loader", Replace(xml, "<ID>FDL</ID>", "<ID>LOADER</ID>"), pkg.List(), "no first loader (FDL)"},
        {"loader without address", Replace(xml, "<Base>0x5000</Base>", ""), pkg.List(), "FDL has no Block"},
        {"package lacks the second loader", xml, Replace(pkg.List(), "FDL2\t", "XFDL2\t"),
         "lacks its second loader (FDL2)"},
        {"scheme names a file the package lacks", xml, Replace(pkg.List(), "BOOT\t", "BOOTX\t"),
         "names file BOOT, which the package lacks"},
        {"file gone from disk", xml, Replace(pkg.List(), "boot.img", "gone.img"), "lacks file BOOT"},
        {"file list line broken", xml, pkg.List() + "only\tthree\tfields\n", "file list line 7"},
        {"NV without items to keep",
         Replace(xml,
                 "<NVItem name=\"Calibration\" backup=\"1\"><ID>0x2</ID></NVItem>\n    <NVItem name=\"IMEI\" "
                 "backup=\"1\"><ID>0x5</ID></NVItem>",
                 ""),
         pkg.List(), "names no NV items to keep"},
    };
    for (const auto& r : rows) {
        Scheme scheme;
        std::vector<ListedFile> files;
        Plan plan;
        std::string error;
        const bool ok = ReadScheme(r.xml, "demo", scheme, error) && ReadFileList(r.list, files, error) &&
                        MakePlan(scheme, files, 0, plan, error);
        if (*r.error == 0) {
            EXPECT_TRUE(ok) << r.what << ": " << error;
        } else {
            EXPECT_FALSE(ok) << r.what;
            EXPECT_NE(error.find(r.error), std::string::npos) << r.what << ": " << error;
        }
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
