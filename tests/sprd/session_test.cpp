// The whole flash against a scripted phone over the socket transport: passing in both
// shapes (staying connected, re-enumerating after each loader; one run or two phases) and
// each fault ending with an error that names the step and the phone's reply.
#include "sprd/Session.h"

#include <gtest/gtest.h>

#include <fstream>

#include "sprd/Codes.h"
#include "sprd/FdTransport.h"
#include "sprd/MiniPhone.h"
#include "sprd/NvImage.h"
#include "sprd/PackageFixture.h"

using namespace quorvel;
using namespace quorvel::sprd;
using test::MiniPhone;

namespace {

struct Recorder : SessionObserver {
    std::vector<int> steps;
    std::uint64_t lastDone = 0, lastTotal = 0;
    void Step(int n) override { steps.push_back(n); }
    void Status(const std::string&) override {}
    void Progress(std::uint64_t done, std::uint64_t total) override {
        EXPECT_LE(done, total);
        lastDone = done;
        lastTotal = total;
    }
    void Log(const std::string&) override {}
};

std::vector<std::uint8_t> Calibration() {
    return test::SprdPackage::Pattern(64, 77);
}
std::vector<std::uint8_t> Imei() {
    return {0x35, 0x12, 0x34, 0x56, 0x78, 0x90, 0x12, 0x30};
}

class SprdSession : public ::testing::Test {
protected:
    SprdSession() : phone(pkg.dir.File("phone.sock")) {
        phone.nv = MakeNvImage({{2, Calibration()}, {5, Imei()}, {9, {1, 2, 3}}}, 8192);
        Scheme scheme;
        std::vector<ListedFile> files;
        std::string error;
        EXPECT_TRUE(ReadScheme(test::SprdPackage::Xml(), "", scheme, error)) << error;
        EXPECT_TRUE(ReadFileList(pkg.List(), files, error)) << error;
        EXPECT_TRUE(MakePlan(scheme, files, 0, plan, error)) << error;
        options.replyMs = 400;
        options.baudIntervalMs = 40;
        options.baudTries = 4;
        options.reenumerateMs = 2000;
        options.chunk = 4096;
    }

    bool Flash(SessionOptions::Phase phase = SessionOptions::ALL) {
        FdTransport link(FdTransport::UNIX, pkg.dir.File("phone.sock"));
        std::string openError;
        EXPECT_TRUE(link.Open(2000, openError)) << openError;
        SessionOptions o = options;
        o.phase = phase;
        Session s(link, plan, o, observer);
        const bool ok = s.Run();
        error = s.Error();
        return ok;
    }

    test::SprdPackage pkg;
    MiniPhone phone;
    Plan plan;
    SessionOptions options;
    Recorder observer;
    std::string error;
};

TEST_F(SprdSession, FlashesEveryShapeAndKeepsCalibration) {
    struct Row {
        const char* what;
        bool reenumerate;
        bool split;  // two phases, two sessions
        bool noTable;
    };
    for (const Row& r : {Row{"stays connected", false, false, false}, Row{"re-enumerates", true, false, false},
                         Row{"two phases, re-enumerating", true, true, false},
                         Row{"second loader without READ_PARTITION", false, false, true}}) {
        SCOPED_TRACE(r.what);
        test::SprdPackage fresh;
        MiniPhone p(fresh.dir.File("phone.sock"));
        p.nv = phone.nv;
        p.reenumerateAfterFdl = r.reenumerate;
        if (r.noTable)
            p.hook = [](const MiniPhone::Seen& s) {
                return s.type == cmd::READ_PARTITION ? int(rep::UNSUPPORTED) : int(MiniPhone::NORMAL);
            };
        p.Start();
        Scheme scheme;
        std::vector<ListedFile> files;
        std::string e;
        ASSERT_TRUE(ReadScheme(test::SprdPackage::Xml(), "", scheme, e) && ReadFileList(fresh.List(), files, e) &&
                    MakePlan(scheme, files, 0, plan, e))
            << e;
        FdTransport link(FdTransport::UNIX, fresh.dir.File("phone.sock"));
        ASSERT_TRUE(link.Open(2000, e)) << e;
        bool ok;
        if (r.split) {
            SessionOptions one = options, two = options;
            one.phase = SessionOptions::PHASE1;
            two.phase = SessionOptions::PHASE2;
            Session first(link, plan, one, observer);
            ok = first.Run();
            EXPECT_TRUE(ok) << first.Error();
            FdTransport again(FdTransport::UNIX, fresh.dir.File("phone.sock"));
            ASSERT_TRUE(again.Open(2000, e)) << e;
            Session second(again, plan, two, observer);
            ok = ok && second.Run();
            EXPECT_TRUE(ok) << second.Error();
        } else {
            Session s(link, plan, options, observer);
            ok = s.Run();
            EXPECT_TRUE(ok) << s.Error();
        }
        if (!ok) continue;
        auto written = p.Written();
        EXPECT_EQ(written["boot"], fresh.boot);
        EXPECT_EQ(written["system"], fresh.system);
        EXPECT_EQ(written["@20480"], fresh.fdl);
        EXPECT_EQ(written["@" + std::to_string(0x9efffe00)], fresh.fdl2);
        EXPECT_FALSE(written.count("userdata")) << "erased";
        // NV: the phone's calibration and IMEI, the package's new item, a valid CRC, the byte sum.
        const auto nv = written["fixnv1"];
        std::vector<NvItem> items;
        ASSERT_TRUE(ReadNvItems(nv, items, e)) << e;
        EXPECT_TRUE(NvCrcValid(nv));
        ASSERT_EQ(items.size(), 3u);
        EXPECT_EQ(items[0].data, Calibration());
        EXPECT_EQ(items[1].data, Imei());
        EXPECT_EQ(items[2].data, test::SprdPackage::Pattern(100, 5));
        const auto start = p.NvStartData();
        ASSERT_EQ(start.size(), 80u);
        EXPECT_EQ(start[76] | start[77] << 8 | start[78] << 16 | std::uint32_t(start[79]) << 24, ByteSum(nv));
        const auto cmds = p.Commands();
        EXPECT_EQ(std::count(cmds.begin(), cmds.end(), cmd::ERASE_FLASH), 1) << "the NV erase entry is skipped";
        EXPECT_EQ(cmds.back(), cmd::NORMAL_RESET);
    }
}

TEST_F(SprdSession, EachFaultEndsWithItsStepAndReply) {
    struct Row {
        const char* what;
        std::function<int(const MiniPhone::Seen&)> hook;
        const char* error;
        bool nvWritten;  // whether the fault comes after NV was written
    };
    auto on = [](std::uint16_t type, const char* partition, std::size_t index, int act) {
        return [=](const MiniPhone::Seen& s) {
            if (s.type == type && (!partition || s.partition == partition) && (index == SIZE_MAX || s.index == index))
                return act;
            return int(MiniPhone::NORMAL);
        };
    };
    // MIDST frames: FDL 6, FDL2 3, NV 1, boot 18, then system from index 28.
    const std::vector<Row> rows = {
        {"signature refused", on(cmd::END_DATA, nullptr, 4, rep::SIGNATURE_REFUSED),
         "Downloading system: phone refused the signature (0xA6)", true},
        {"unplugged mid-image", on(cmd::MIDST_DATA, nullptr, 30, MiniPhone::UNPLUG),
         "Downloading system (at byte 8192 of 200001): the phone disappeared", true},
        {"garbage on the wire", on(cmd::MIDST_DATA, nullptr, 30, MiniPhone::GARBAGE),
         "Downloading system (at byte 8192 of 200001): garbage on the wire", true},
        {"reply of the wrong type", on(cmd::START_DATA, "boot", SIZE_MAX, rep::VER),
         "Downloading boot: phone answered out of turn: phone sent its version (0x81)", true},
        {"reply slower than the time-out", on(cmd::MIDST_DATA, nullptr, 7, MiniPhone::SILENT),
         "Downloading FDL2: no reply to MIDST_DATA within 0.4 s", false},
        {"overrun", on(cmd::MIDST_DATA, nullptr, 2, rep::DOWN_SIZE_ERROR), "Downloading FDL: phone refused the size",
         false},
        {"bad frame", on(cmd::CONNECT, nullptr, 0, rep::VERIFY_ERROR), "Connecting: phone received a damaged frame",
         false},
        {"early end", on(cmd::END_DATA, nullptr, 0, rep::DOWN_EARLY_END),
         "Downloading FDL: phone says the download ended early", false},
        {"NV backup refused", on(cmd::READ_MIDST, nullptr, 0, rep::OPERATION_FAILED),
         "Backing up NV fixnv1: phone reported the operation failed (0x84)", false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        test::SprdPackage fresh;
        MiniPhone p(fresh.dir.File("phone.sock"));
        p.nv = phone.nv;
        p.hook = r.hook;
        p.Start();
        FdTransport link(FdTransport::UNIX, fresh.dir.File("phone.sock"));
        std::string e;
        ASSERT_TRUE(link.Open(2000, e));
        Session s(link, plan, options, observer);
        EXPECT_FALSE(s.Run());
        EXPECT_NE(s.Error().find(r.error), std::string::npos) << s.Error();
        EXPECT_EQ(p.Written().count("fixnv1") != 0, r.nvWritten);
    }
}

TEST_F(SprdSession, RefusesBeforeWritingWhatTheBenchCannotTake) {
    // A phone whose system partition is smaller than the image; a dead NV backup; a mute phone.
    phone.partitions["system"] = 1 << 16;
    phone.Start();
    EXPECT_FALSE(Flash());
    EXPECT_NE(error.find("Downloading system: the image (200001 bytes) is larger than the phone's partition (0 bytes)"),
              std::string::npos)
        << error;
    EXPECT_FALSE(phone.Written().count("system"));
}

TEST_F(SprdSession, DamagedBackupOrMutePhoneFailsBeforeAnyWrite) {
    for (int row = 0; row < 2; ++row) {
        test::SprdPackage fresh;
        MiniPhone p(fresh.dir.File("phone.sock"));
        if (row == 0) {
            p.nv = phone.nv;
            p.nv[10] ^= 0xFF;  // the CRC no longer matches
        } else {
            p.answerCheckBaud = false;
        }
        p.Start();
        FdTransport link(FdTransport::UNIX, fresh.dir.File("phone.sock"));
        std::string e;
        ASSERT_TRUE(link.Open(2000, e));
        Session s(link, plan, options, observer);
        EXPECT_FALSE(s.Run());
        EXPECT_NE(s.Error().find(row == 0 ? "fails its CRC: calibration cannot be kept; nothing was written"
                                          : "Checking baudrate: the phone did not answer check baud (4 tries)"),
                  std::string::npos)
            << s.Error();
        EXPECT_FALSE(p.Written().count("boot"));
        EXPECT_FALSE(p.Written().count("fixnv1"));
    }
}

}  // namespace
