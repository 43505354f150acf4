// The simulated phone driven in-process: a host that frames commands as the engine does
// and reads the phone's replies back through the same codec.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engines/sprd/PhoneCodes.h"
#include "engines/sprd/PhoneModel.h"

using namespace quorvel::sprd;
using namespace quorvel::sprd::phone;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes Be32(std::uint32_t a, std::uint32_t b) {
    Bytes out;
    for (std::uint32_t v : {a, b})
        for (int i = 3; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return out;
}

void PutLe32(Bytes& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

Bytes Named(const std::string& name, std::uint32_t value) {
    Bytes out;
    for (std::size_t i = 0; i < kNameUnits; ++i) {
        out.push_back(i < name.size() ? static_cast<std::uint8_t>(name[i]) : 0);
        out.push_back(0);
    }
    PutLe32(out, value);
    return out;
}

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<std::uint8_t>(seed + i * 7 + (i >> 8));
    return out;
}

// The engine's side of the wire, reduced to what the phone's tests need.
struct Host {
    PhoneModel phone;
    Check check = Check::BOOT_ROM_CRC;
    bool escape = true;
    std::size_t piece = 0;             // feed the phone in pieces of this many bytes (0: whole writes)
    std::vector<PhoneAction> actions;  // everything but SEND from the last exchange
    int logs = 0;

    explicit Host(PhoneConfig c = {}) : phone(std::move(c)) {}

    std::vector<Frame> Deliver(const Bytes& wire) {
        std::vector<PhoneAction> got;
        if (piece == 0) {
            got = phone.Receive(wire);
        } else {
            for (std::size_t i = 0; i < wire.size(); i += piece) {
                auto part =
                    phone.Receive(std::span<const std::uint8_t>(wire).subspan(i, std::min(piece, wire.size() - i)));
                got.insert(got.end(), part.begin(), part.end());
            }
        }
        actions.clear();
        FrameDecoder dec(check);
        dec.SetEscaping(escape);
        for (auto& a : got) {
            if (a.kind == PhoneAction::SEND)
                dec.Feed(a.bytes);
            else
                actions.push_back(a);
        }
        std::vector<Frame> frames;
        while (auto d = dec.Next()) {
            EXPECT_EQ(d->kind, Decoded::FRAME) << DecodedKindName(d->kind);
            if (d->frame.type == rep::LOG)
                ++logs;
            else
                frames.push_back(std::move(d->frame));
        }
        return frames;
    }
    // The one reply's type to a command, or -1 when the phone stayed silent.
    int Send(std::uint16_t type, const Bytes& payload = {}) {
        const auto frames = Deliver(EncodeFrame(type, payload, check, escape));
        EXPECT_LE(frames.size(), 1u);
        return frames.empty() ? -1 : frames[0].type;
    }
    std::vector<Frame> Call(std::uint16_t type, const Bytes& payload = {}) {
        return Deliver(EncodeFrame(type, payload, check, escape));
    }
    std::string Baud(std::size_t flags) {
        const auto frames = Deliver(Bytes(flags, kFlag));
        if (frames.empty()) return "";
        EXPECT_EQ(frames[0].type, rep::VER);
        return std::string(frames[0].payload.begin(), frames[0].payload.end() - 1);
    }
    // START, chunks, END: the first reply that is not ACK, else ACK.
    int Download(const Bytes& start, const Bytes& data, std::size_t chunk) {
        if (int r = Send(cmd::START_DATA, start); r != rep::ACK) return r;
        for (std::size_t i = 0; i < data.size(); i += chunk)
            if (int r = Send(cmd::MIDST_DATA, Bytes(data.begin() + i, data.begin() + std::min(data.size(), i + chunk)));
                r != rep::ACK)
                return r;
        return Send(cmd::END_DATA);
    }
    void ToSecondLoader() {
        ASSERT_EQ(Baud(1), "SPRD3");
        ASSERT_EQ(Send(cmd::CONNECT), rep::ACK);
        ASSERT_EQ(Download(Be32(0x5000, 1000), Pattern(1000, 1), 528), rep::ACK);
        ASSERT_EQ(Send(cmd::EXEC_DATA), rep::ACK);
        check = Check::LOADER_SUM;
        std::string ver;
        for (int tries = 0; tries < 10 && ver.empty(); ++tries) ver = Baud(4);
        ASSERT_EQ(ver, "Spreadtrum Boot Block version 1.1");
        ASSERT_EQ(Send(cmd::CONNECT), rep::ACK);
        ASSERT_EQ(Download(Be32(0x9efffe00, 3001), Pattern(3001, 2), 2112), rep::ACK);
        const int exec = Send(cmd::EXEC_DATA);
        ASSERT_TRUE(exec == rep::ACK || exec == rep::INCOMPATIBLE_PARTITION);
        ASSERT_EQ(phone.GetStage(), PhoneModel::Stage::FDL2);
    }
    Bytes ReadBack(const std::string& name, std::uint32_t size, std::uint32_t chunk) {
        Bytes out;
        EXPECT_EQ(Send(cmd::READ_START, Named(name, size)), rep::ACK);
        for (std::uint32_t off = 0; off < size; off += chunk) {
            Bytes req;
            PutLe32(req, std::min(chunk, size - off));
            PutLe32(req, off);
            const auto frames = Call(cmd::READ_MIDST, req);
            EXPECT_EQ(frames.size(), 1u);
            if (frames.size() != 1 || frames[0].type != rep::READ_DATA) break;
            out.insert(out.end(), frames[0].payload.begin(), frames[0].payload.end());
        }
        EXPECT_EQ(Send(cmd::READ_END), rep::ACK);
        return out;
    }
};

std::string ReportField(const std::string& report, const std::string& name, const std::string& field) {
    const std::size_t at = report.find("{\"name\":\"" + name + "\"");
    if (at == std::string::npos) return "";
    const std::size_t f = report.find("\"" + field + "\":", at);
    const std::size_t end = report.find_first_of(",}", f);
    std::string v = report.substr(f + field.size() + 3, end - f - field.size() - 3);
    if (!v.empty() && v.front() == '"') v = v.substr(1, v.size() - 2);
    return v;
}

}  // namespace

TEST(SprdSha256, KnownDigests) {
    const std::string abc = "abc";
    EXPECT_EQ(Sha256::HexOf({reinterpret_cast<const std::uint8_t*>(abc.data()), abc.size()}),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha256::HexOf({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    const Bytes million(1000000, 'a');
    EXPECT_EQ(Sha256::HexOf(million), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    // Streamed in uneven pieces, across block boundaries.
    const Bytes data = Pattern(1000, 9);
    Sha256 s;
    for (std::size_t i = 0; i < data.size(); i += 63)
        s.Update(std::span<const std::uint8_t>(data).subspan(i, std::min<std::size_t>(63, data.size() - i)));
    EXPECT_EQ(s.Hex(), Sha256::HexOf(data));
}

// A whole flash as the engine makes it, once plain and once with every reply preceded by a
// log frame and the host's writes arriving in small pieces after check baud (a read made only
// of flags between frames is check baud, so pieces start with more than a flag).
TEST(SprdPhone, WholeFlash) {
    for (int noisy = 0; noisy < 2; ++noisy) {
        SCOPED_TRACE(noisy ? "noisy" : "plain");
        PhoneConfig config;
        config.logChance = noisy ? 1.0 : 0.0;
        Host host(config);
        host.ToSecondLoader();
        host.piece = noisy ? 7 : 0;
        ASSERT_EQ(host.Send(cmd::DISABLE_TRANSCODE), rep::ACK);
        host.escape = false;
        EXPECT_FALSE(host.phone.Escaping());

        const auto table = host.Call(cmd::READ_PARTITION);
        ASSERT_EQ(table.size(), 1u);
        EXPECT_EQ(table[0].type, rep::PARTITION_TABLE);
        EXPECT_EQ(table[0].payload.size(), DefaultPartitions().size() * kEntryBytes);

        Bytes layout;
        for (auto [name, mib] : std::vector<std::pair<std::string, std::uint32_t>>{
                 {"fixnv1", 1}, {"boot", 32}, {"system", 64}, {"userdata", kRestOfStorage}}) {
            const Bytes e = Named(name, mib);
            layout.insert(layout.end(), e.begin(), e.end());
        }
        EXPECT_EQ(host.Send(cmd::REPARTITION, layout), rep::ACK);

        // NV backup: the factory image, erased flash after it, and a CRC that checks out.
        const Bytes factory = host.phone.NvContent();
        const Bytes nv = host.ReadBack("fixnv1", 70000, 65535);
        ASSERT_EQ(nv.size(), 70000u);
        EXPECT_TRUE(std::equal(factory.begin(), factory.end(), nv.begin()));
        EXPECT_EQ(nv.back(), 0xFF);
        EXPECT_TRUE(NvCrcValid(nv));

        EXPECT_EQ(host.Send(cmd::ERASE_FLASH, Named("boot", 0)), rep::ACK);
        // The data holds 0x7E and 0x7D; an odd-sized last chunk tests the odd check forms.
        const Bytes system = Pattern(40001, 0x7D);
        EXPECT_EQ(host.Download(Named("system", 40001), system, 4096), rep::ACK);
        // A merged NV image with the sum of its bytes appended to START_DATA.
        std::vector<NvItem> items;
        std::string error;
        ASSERT_TRUE(ReadNvItems(factory, items, error)) << error;
        items.push_back({0x200, Bytes(10, 0x42)});
        const Bytes merged = MakeNvImage(items);
        std::uint32_t sum = 0;
        for (std::uint8_t b : merged) sum += b;
        Bytes start = Named("fixnv1", static_cast<std::uint32_t>(merged.size()));
        PutLe32(start, sum);
        EXPECT_EQ(host.Download(start, merged, 4096), rep::ACK);

        EXPECT_EQ(host.Send(cmd::NORMAL_RESET), rep::ACK);
        ASSERT_EQ(host.actions.size(), 1u);
        EXPECT_EQ(host.actions[0].kind, PhoneAction::RESET);
        EXPECT_EQ(host.phone.GetStage(), PhoneModel::Stage::BOOT_ROM);
        EXPECT_EQ(host.logs > 0, noisy == 1);

        EXPECT_TRUE(host.phone.CalibrationKept());
        const std::string report = host.phone.ReportJson();
        EXPECT_EQ(ReportField(report, "system", "sha256"), Sha256::HexOf(system));
        EXPECT_EQ(ReportField(report, "system", "written"), "40001");
        EXPECT_EQ(ReportField(report, "system", "size"), std::to_string(64u << 20));
        EXPECT_EQ(ReportField(report, "boot", "erased"), "true");
        EXPECT_EQ(ReportField(report, "@0x00005000", "sha256"), Sha256::HexOf(Pattern(1000, 1)));
        EXPECT_NE(report.find("\"calibration\":\"kept\""), std::string::npos);
    }
}

// Replies a well-behaved phone gives to a host that gets things wrong.
TEST(SprdPhone, RefusesWhatARealPhoneRefuses) {
    struct Row {
        const char* what;
        std::vector<std::pair<std::uint16_t, Bytes>> before;  // each must be acknowledged
        std::uint16_t type;
        Bytes payload;
        int reply;
    };
    const std::vector<Row> rows = {
        {"data before START_DATA", {}, cmd::MIDST_DATA, Bytes(16), rep::DOWN_NOT_START},
        {"past the announced size",
         {{cmd::START_DATA, Named("boot", 10)}},
         cmd::MIDST_DATA,
         Bytes(11),
         rep::DOWN_SIZE_ERROR},
        {"ended early",
         {{cmd::START_DATA, Named("boot", 10)}, {cmd::MIDST_DATA, Bytes(9)}},
         cmd::END_DATA,
         {},
         rep::DOWN_EARLY_END},
        {"unknown partition", {}, cmd::START_DATA, Named("nosuch", 10), rep::DOWN_DEST_ERROR},
        {"image larger than the partition", {}, cmd::START_DATA, Named("boot", 33u << 20), rep::DOWN_SIZE_ERROR},
        {"wrong byte sum appended", {}, cmd::END_DATA, {}, -2},
        {"short START_DATA", {}, cmd::START_DATA, Bytes(5), rep::INVALID_CMD},
        {"repartition past the storage", {}, cmd::REPARTITION, Named("huge", 9000), rep::DOWN_SIZE_ERROR},
        {"erase of an unknown partition", {}, cmd::ERASE_FLASH, Named("nosuch", 0), rep::DOWN_DEST_ERROR},
        {"read of a hashed-only partition", {}, cmd::READ_START, Named("system", 100), rep::OPERATION_FAILED},
        {"read chunk past the requested size",
         {{cmd::READ_START, Named("fixnv1", 100)}},
         cmd::READ_MIDST,
         Be32(0x64000000, 0x01000000),
         rep::DOWN_SIZE_ERROR},
        {"EXEC in the second loader", {}, cmd::EXEC_DATA, {}, rep::UNKNOWN_CMD},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Host host;
        host.ToSecondLoader();
        if (row.reply == -2) {  // a merged NV image whose appended sum is wrong
            Bytes start = Named("fixnv1", 4);
            PutLe32(start, 12345);
            ASSERT_EQ(host.Send(cmd::START_DATA, start), rep::ACK);
            ASSERT_EQ(host.Send(cmd::MIDST_DATA, Bytes{1, 2, 3, 4}), rep::ACK);
            EXPECT_EQ(host.Send(cmd::END_DATA), rep::CHECKSUM_ERROR);
            EXPECT_TRUE(host.phone.CalibrationKept());
            continue;
        }
        for (const auto& [type, payload] : row.before) ASSERT_EQ(host.Send(type, payload), rep::ACK);
        EXPECT_EQ(host.Send(row.type, row.payload), row.reply);
    }

    // A damaged frame, and the boot ROM's answers before and after check baud.
    Host host;
    EXPECT_EQ(host.Send(cmd::CONNECT), -1);
    EXPECT_EQ(host.Baud(1), "SPRD3");
    Bytes wire = EncodeFrame(cmd::CONNECT, {}, Check::BOOT_ROM_CRC, true);
    wire[wire.size() - 2] ^= 1;
    const auto frames = host.Deliver(wire);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].type, rep::VERIFY_ERROR);
    EXPECT_EQ(host.Send(cmd::READ_PARTITION), rep::UNKNOWN_CMD);
    EXPECT_EQ(host.Send(cmd::EXEC_DATA), rep::OPERATION_FAILED);  // nothing loaded yet
}

// Each fault as the engine meets it; without @N it strikes first after the second loader runs.
TEST(SprdPhone, Faults) {
    struct Row {
        const char* fault;
        std::function<void(Host&)> check;
    };
    const Bytes image = Pattern(10000, 3);
    const std::vector<Row> rows = {
        {"bad-frame",
         [](Host& h) {
             EXPECT_EQ(h.Send(cmd::CONNECT), rep::VERIFY_ERROR);
             EXPECT_EQ(h.Send(cmd::CONNECT), rep::ACK);
         }},
        {"overrun", [&](Host& h) { EXPECT_EQ(h.Download(Named("boot", 10000), image, 4096), rep::DOWN_SIZE_ERROR); }},
        {"early-end", [&](Host& h) { EXPECT_EQ(h.Download(Named("boot", 10000), image, 4096), rep::DOWN_EARLY_END); }},
        {"signature@system",
         [&](Host& h) {
             EXPECT_EQ(h.Download(Named("boot", 10000), image, 4096), rep::ACK);
             EXPECT_EQ(h.Download(Named("system", 10000), image, 4096), rep::SIGNATURE_REFUSED);
         }},
        {"slow",
         [](Host& h) {
             EXPECT_EQ(h.Send(cmd::CONNECT), rep::ACK);
             ASSERT_EQ(h.actions.size(), 1u);
             EXPECT_EQ(h.actions[0].kind, PhoneAction::DELAY);
             EXPECT_EQ(h.actions[0].ms, 20000u);
         }},
        {"unplug",
         [&](Host& h) {
             ASSERT_EQ(h.Send(cmd::START_DATA, Named("boot", 10000)), rep::ACK);
             EXPECT_EQ(h.Send(cmd::MIDST_DATA, image), -1);
             ASSERT_EQ(h.actions.size(), 1u);
             EXPECT_EQ(h.actions[0].kind, PhoneAction::UNPLUG);
             EXPECT_EQ(h.Send(cmd::CONNECT), -1);  // and stays gone
         }},
        {"no-read-partition", [](Host& h) { EXPECT_EQ(h.Send(cmd::READ_PARTITION), rep::UNSUPPORTED); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.fault);
        std::string error;
        auto fault = ParsePhoneFault(row.fault, error);
        ASSERT_TRUE(fault) << error;
        PhoneConfig config;
        config.faults = {*fault};
        Host host(config);
        host.ToSecondLoader();
        row.check(host);
    }

    // Check baud: a phone that never answers, and a first loader that misses its first tries.
    PhoneConfig deaf;
    deaf.faults = {PhoneFault{PhoneFault::NO_CHECK_BAUD, std::nullopt, {}}};
    Host mute(deaf);
    EXPECT_EQ(mute.Baud(1), "");
    EXPECT_EQ(mute.Send(cmd::CONNECT), -1);
    PhoneConfig late;
    std::string error;
    late.faults = {*ParsePhoneFault("fdl1-misses@3", error)};
    Host slow(late);
    ASSERT_EQ(slow.Baud(1), "SPRD3");
    ASSERT_EQ(slow.Send(cmd::CONNECT), rep::ACK);
    ASSERT_EQ(slow.Download(Be32(0x5000, 100), Bytes(100), 528), rep::ACK);
    ASSERT_EQ(slow.Send(cmd::EXEC_DATA), rep::ACK);
    slow.check = Check::LOADER_SUM;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(slow.Baud(4), "") << i;
    EXPECT_EQ(slow.Baud(4), "Spreadtrum Boot Block version 1.1");

    // Counted faults strike where the count says, from the phone's first frame or byte.
    Host early([] {
        PhoneConfig c;
        std::string e;
        c.faults = {*ParsePhoneFault("bad-frame@2", e)};
        return c;
    }());
    ASSERT_EQ(early.Baud(1), "SPRD3");
    EXPECT_EQ(early.Send(cmd::CONNECT), rep::ACK);
    EXPECT_EQ(early.Send(cmd::CONNECT), rep::VERIFY_ERROR);
    EXPECT_EQ(early.Send(cmd::CONNECT), rep::ACK);
    // Unplug at a given byte: the phone takes the bytes before it and nothing after.
    Host cut([] {
        PhoneConfig c;
        std::string e;
        c.faults = {*ParsePhoneFault("unplug@3", e)};
        return c;
    }());
    EXPECT_EQ(cut.Baud(1), "SPRD3");
    EXPECT_EQ(cut.Send(cmd::CONNECT), -1);
    ASSERT_EQ(cut.actions.size(), 1u);
    EXPECT_EQ(cut.actions[0].kind, PhoneAction::UNPLUG);

    for (const char* bad : {"nosuch", "overrun@0", "overrun@x", "signature", "no-check-baud@2"})
        EXPECT_FALSE(ParsePhoneFault(bad, error)) << bad;
}

// A phone that leaves after a loader runs keeps its state; so does one whose host closes.
TEST(SprdPhone, ReenumerationKeepsState) {
    for (auto shape : {Reenumerate::FDL1, Reenumerate::FDL2}) {
        PhoneConfig config;
        config.reenumerate = shape;
        config.incompatibleAfterFdl2 = true;
        Host host(config);
        ASSERT_EQ(host.Baud(1), "SPRD3");
        ASSERT_EQ(host.Send(cmd::CONNECT), rep::ACK);
        ASSERT_EQ(host.Download(Be32(0x5000, 8), Bytes(8), 528), rep::ACK);
        EXPECT_EQ(host.Send(cmd::EXEC_DATA), rep::ACK);
        EXPECT_EQ(host.actions.size(), shape == Reenumerate::FDL1 ? 1u : 0u);
        host.phone.HostClosed();
        host.check = Check::LOADER_SUM;
        ASSERT_EQ(host.Baud(4), "Spreadtrum Boot Block version 1.1");
        ASSERT_EQ(host.Send(cmd::CONNECT), rep::ACK);
        ASSERT_EQ(host.Download(Be32(0x9efffe00, 8), Bytes(8), 528), rep::ACK);
        EXPECT_EQ(host.Send(cmd::EXEC_DATA), rep::INCOMPATIBLE_PARTITION);
        EXPECT_EQ(host.actions.size(), shape == Reenumerate::FDL2 ? 1u : 0u);
        if (!host.actions.empty()) {
            EXPECT_EQ(host.actions[0].kind, PhoneAction::REENUMERATE);
        }
        // Half a frame, then the host goes: the second loader answers the next host at once.
        host.Deliver(Bytes{kFlag, 0x00});
        host.phone.HostClosed();
        EXPECT_EQ(host.Send(cmd::CONNECT), rep::ACK);
    }
}

TEST(SprdPhone, CalibrationLostWhenNvIsErasedOrReplaced) {
    for (bool erase : {true, false}) {
        Host host;
        host.ToSecondLoader();
        if (erase) {
            EXPECT_EQ(host.Send(cmd::ERASE_FLASH, Named("FIXNV1", 0)), rep::ACK);  // names match without case
        } else {
            const Bytes fresh = MakeNvImage({{2, Bytes(512, 0)}, {5, Bytes(8, 0)}});
            EXPECT_EQ(host.Download(Named("fixnv1", static_cast<std::uint32_t>(fresh.size())), fresh, 4096), rep::ACK);
        }
        EXPECT_FALSE(host.phone.CalibrationKept());
        EXPECT_NE(host.phone.ReportJson().find("\"calibration\":\"lost\""), std::string::npos);
    }
}
