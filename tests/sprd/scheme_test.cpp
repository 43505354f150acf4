// The package's download scheme and the plan made of it with the station's file list, as rows of
// tests/tables/sprd-scheme.txt: the plan in one line, or the error that names what is
// missing or unreadable.
#include "engines/sprd/Scheme.h"

#include <gtest/gtest.h>

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

// What a plan holds, in one line: loaders, repartition, NV items kept, steps in order.
std::string Summary(const Plan& plan) {
    std::string s = "FDL@" + std::to_string(plan.fdl.address) + " FDL2:" + std::to_string(plan.fdl2.size);
    for (const auto& p : plan.partitions) s += " " + p.name + ":" + std::to_string(p.sizeMiB);
    for (const auto& n : plan.nvItems) s += " keep:" + std::to_string(n.id);
    for (const auto& step : plan.steps)
        s += " " + step.id + (step.kind == PlanStep::ERASE ? "-" : step.nv ? "(nv)" : "");
    return s;
}

TEST(SprdScheme, PlansOrRefusesByName) {
    quorvel::test::SprdPackage pkg;
    for (const auto& row : quorvel::test::ReadTable("sprd-scheme.txt")) {
        std::string xml = pkg.Xml(), list = pkg.List();
        int type = 0;
        const auto& w = row.words;
        for (std::size_t i = 1; i < w.size(); i += 2) {
            if (w[i] == "xml=") xml = w[i + 1];
            if (w[i] == "nest") xml = std::string(std::stoul(w[i + 1]), '<') + "a>";
            if (w[i] == "list+") list += w[i + 1];
            if (w[i] == "type") type = std::stoi(w[i + 1]);
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
                        MakePlan(scheme, files, type, plan, error);
        EXPECT_TRUE(ok ? Summary(plan) == w[0] : error.find(w[0]) != std::string::npos)
            << row.where << ": " << (ok ? Summary(plan) : error);
    }
}

}  // namespace
