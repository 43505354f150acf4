// The whole flash against the simulated phone's device model over the socket transport:
// passing in every shape (staying connected, re-enumerating after a loader, two phases, a
// loader that misses check baud, log frames, an older second loader) and each fault ending
// with an error that names the step and the phone's reply, before NV where it must.
#include "engines/sprd/Session.h"

#include <gtest/gtest.h>

#include "engines/sprd/Codes.h"
#include "engines/sprd/FdTransport.h"
#include "engines/sprd/NvImage.h"
#include "sprd/ModelPhone.h"
#include "sprd/PackageFixture.h"

using namespace quorvel;
using namespace quorvel::sprd;
using test::ModelPhone;
using Bytes = std::vector<std::uint8_t>;

namespace {

struct Quiet : SessionObserver {
    void Step(int) override {}
    void Status(const std::string&) override {}
    void Progress(std::uint64_t done, std::uint64_t total) override { EXPECT_LE(done, total); }
    void Log(const std::string&) override {}
};

struct Bench {
    test::SprdPackage pkg;
    Plan plan;
    SessionOptions options;
    std::unique_ptr<ModelPhone> phone;

    explicit Bench(PhoneConfig config) {
        Scheme scheme;
        std::vector<ListedFile> files;
        std::string e;
        EXPECT_TRUE(ReadScheme(test::SprdPackage::Xml(), "", scheme, e) && ReadFileList(pkg.List(), files, e) &&
                    MakePlan(scheme, files, 0, plan, e))
            << e;
        options.replyMs = 400;
        options.baudIntervalMs = 40;
        options.baudTries = 4;
        options.reenumerateMs = 3000;
        config.slowMs = 1000;
        config.absenceMs = 50;
        phone = std::make_unique<ModelPhone>(pkg.dir.File("phone.sock"), std::move(config));
    }

    // One session per phase given; the error of the first that fails.
    std::string Flash(std::vector<SessionOptions::Phase> phases = {SessionOptions::ALL}) {
        phone->Start();
        for (auto phase : phases) {
            FdTransport link(FdTransport::UNIX, pkg.dir.File("phone.sock"));
            std::string e;
            if (!link.Open(3000, e)) return e;
            SessionOptions o = options;
            o.phase = phase;
            Quiet quiet;
            Session s(link, plan, o, quiet);
            if (!s.Run()) return s.Error().empty() ? "failed without an error" : s.Error();
        }
        return "";
    }

    std::string Sha(const std::string& region) {
        return phone->With([&](const PhoneModel& m) {
            const auto* r = m.Find(region);
            return r ? r->sha256 : std::string("(none)");
        });
    }
    bool NvWritten() {
        return phone->With([](const PhoneModel& m) { return m.Find("fixnv1") && m.Find("fixnv1")->writes > 0; });
    }
};

PhoneFault Fault(const std::string& text) {
    std::string e;
    auto f = ParsePhoneFault(text, e);
    EXPECT_TRUE(f) << e;
    return f ? *f : PhoneFault{};
}

TEST(SprdSession, FlashesEveryShapeAndKeepsCalibration) {
    struct Row {
        const char* what;
        std::function<void(PhoneConfig&)> shape;
        std::vector<SessionOptions::Phase> phases;
    };
    const auto all = std::vector<SessionOptions::Phase>{SessionOptions::ALL};
    const auto split = std::vector<SessionOptions::Phase>{SessionOptions::PHASE1, SessionOptions::PHASE2};
    const std::vector<Row> rows = {
        {"stays connected", [](PhoneConfig&) {}, all},
        {"re-enumerates after the first loader", [](PhoneConfig& c) { c.reenumerate = Reenumerate::FDL1; }, all},
        {"two phases, re-enumerating after the second loader",
         [](PhoneConfig& c) { c.reenumerate = Reenumerate::FDL2; }, split},
        {"two phases, staying connected", [](PhoneConfig&) {}, split},
        {"first loader misses three check-baud tries", [](PhoneConfig& c) { c.faults = {Fault("fdl1-misses@3")}; },
         all},
        {"log frames between replies, 0x96 after the second loader",
         [](PhoneConfig& c) {
             c.logChance = 0.3;
             c.incompatibleAfterFdl2 = true;
         },
         all},
        {"second loader without READ_PARTITION", [](PhoneConfig& c) { c.faults = {Fault("no-read-partition")}; }, all},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        PhoneConfig config;
        r.shape(config);
        Bench b(config);
        ASSERT_EQ(b.Flash(r.phases), "");
        EXPECT_EQ(b.Sha("boot"), Sha256::HexOf(b.pkg.boot));
        EXPECT_EQ(b.Sha("system"), Sha256::HexOf(b.pkg.system));
        EXPECT_EQ(b.Sha("@0x00005000"), Sha256::HexOf(b.pkg.fdl));
        EXPECT_EQ(b.Sha("@0x9efffe00"), Sha256::HexOf(b.pkg.fdl2));
        b.phone->With([&](const PhoneModel& m) {
            EXPECT_TRUE(m.CalibrationKept());
            EXPECT_TRUE(m.Find("userdata") && m.Find("userdata")->erased);
            // The package's new item arrived beside the phone's calibration, under a valid CRC.
            const Bytes& nv = m.NvContent();
            std::vector<NvItem> items;
            std::string e;
            EXPECT_TRUE(NvCrcValid(nv));
            ASSERT_TRUE(ReadNvItems(nv, items, e)) << e;
            EXPECT_TRUE(std::any_of(items.begin(), items.end(), [](const NvItem& i) {
                return i.id == 9 && i.data == test::SprdPackage::Pattern(100, 5);
            }));
        });
    }
}

TEST(SprdSession, EachFaultEndsWithItsStepAndReply) {
    struct Row {
        const char* what;
        const char* fault;  // the phone's, or empty
        std::function<void(int, Bytes&)> tamper;
        const char* error;
        bool nvWritten;
    };
    auto replace = [](std::uint16_t from, std::uint16_t to) {
        return [=](int, Bytes& b) {
            if (b.size() > 2 && b[1] == 0 && b[2] == from) b = EncodeFrame(to, {}, Check::LOADER_SUM, false);
        };
    };
    auto seenTable = std::make_shared<bool>(false);
    const std::vector<Row> rows = {
        {"signature refused", "signature@system", nullptr, "Downloading system: phone refused the signature (0xA6)",
         true},
        {"unplugged mid-image", "unplug", nullptr, "Downloading fixnv1 (at byte 0 of", false},
        {"reply slower than the time-out", "slow", nullptr,
         "Connecting: the phone's loader did not answer CONNECT (4 tries)", false},
        {"overrun", "overrun", nullptr, "Downloading fixnv1 (at byte 0 of 4096): phone refused the size", false},
        {"early end", "early-end", nullptr, "Downloading fixnv1: phone says the download ended early (", false},
        {"bad frame", "bad-frame", nullptr, "phone received a damaged frame", false},
        {"never answers check baud", "no-check-baud", nullptr,
         "Checking baudrate: the phone did not answer check baud (4 tries)", false},
        {"reply of the wrong type", "", replace(rep::PARTITION_TABLE, rep::READ_DATA),
         "Reading the partition table: phone answered out of turn: phone sent read data (0x93)", false},
        {"garbage on the wire", "",
         [seenTable](int, Bytes& b) {
             if (*seenTable) b.insert(b.begin(), {1, 2, 3});
             *seenTable = *seenTable || (b.size() > 2 && b[2] == rep::PARTITION_TABLE);
         },
         "Switching escaping off: garbage on the wire (bytes outside a frame)", false},
        {"NV backup refused", "", replace(rep::READ_DATA, rep::OPERATION_FAILED),
         "Backing up NV fixnv1: phone reported the operation failed (0x84)", false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        PhoneConfig config;
        if (*r.fault) config.faults = {Fault(r.fault)};
        Bench b(config);
        b.phone->tamper = r.tamper;
        const std::string error = b.Flash();
        EXPECT_NE(error.find(r.error), std::string::npos) << error;
        EXPECT_EQ(b.NvWritten(), r.nvWritten);
        EXPECT_TRUE(b.phone->With([](const PhoneModel& m) { return m.CalibrationKept(); }));
    }
}

TEST(SprdSession, ImageLargerThanThePhonesPartitionIsNotStarted) {
    PhoneConfig config;
    config.partitions = {{"fixnv1", 1}, {"boot", 4}, {"system", 1}, {"userdata", kRestOfStorage}};
    Bench b(config);
    b.plan.partitions.clear();  // the phone's table stands
    const Bytes big = test::SprdPackage::Pattern((1 << 20) + 2, 9);
    b.pkg.Put("big.img", big);
    for (auto& s : b.plan.steps)
        if (s.id == "System") {
            s.path = b.pkg.dir.File("big.img");
            s.size = big.size();
        }
    EXPECT_EQ(b.Flash(),
              "Downloading system: the image (1048578 bytes) is larger than the phone's partition (1048576 bytes)");
    b.phone->With([](const PhoneModel& m) { EXPECT_EQ(m.Find("system")->writes, 0u); });
}

}  // namespace
