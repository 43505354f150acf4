// The native SPRD engine's pieces driven by dialogue files (tests/sprd/dialogues/): what
// the host sends and what the simulated phone answers or does, the engine's session
// against it, the frame codec, the check values and the NV merge; one behaviour a file.
// A line:
//
//   phone [OPTION...]             a fresh phone with quorvel-sprd-phone's options that shape
//                                 it (--fault, --reenumerate, --log-frames, --partitions, ...);
//                                 a file may hold several dialogues
//   program ARGS...               quorvel-sprd-phone with these arguments instead (`@`: a fresh
//                                 folder, `$DATA/`: this folder), reached on its --listen path
//   reconnect                     once the program says "ready" again
//   check crc|sum                 the check value the host sends (the program's stage is unseen)
//   term                          SIGTERM to the program
//   refuse OPTION [VALUE] -> "text"  a phone option the program refuses, saying that
//   exit CODE ["text"]            the program ended so, its standard error holding the text
//   fdl2                          boot ROM and both loaders, as the engine loads them
//   baud N -> REPLY               N flags in one write: a check-baud try
//   send CMD [PAYLOAD] -> REPLY   one frame; CMD by name (CONNECT, START_DATA, ...)
//   damaged CMD -> REPLY          that frame with a bit of its check value flipped
//   raw HEX                       bytes as they are; what comes back is not looked at
//   hangup                        the host closes its end
//   pieces N                      later writes reach the phone N bytes at a time
//   load TARGET SIZE [seed=S] [chunk=C] [sum|sum=N] -> REPLY
//                                 START (TARGET @ADDR: the address form; sum: the byte sum,
//                                 or N, appended), MIDST chunks of a pattern, END; REPLY is
//                                 the first reply that is not a plain ACK
//   nv NVIMAGE -> REPLY           that NV image to the NV partition, its byte sum appended
//   backup NAME SIZE CHUNK        READ_START/MIDST/END: the factory NV image, then 0xFF,
//                                 its CRC valid
//   flash [phases=1,2] [table=phone] [system=BYTES] [swap=TYPE:TYPE] [garbage-after=TYPE]
//         -> ok | "error"         the engine's session with the test package: both phases in
//                                 one run or one each, the phone's own partition table, a
//                                 system image of that size, a reply swapped for another type,
//                                 garbage before every reply after one type (TYPE: a reply's
//                                 name or number)
//   expect stage boot-rom|fdl1|fdl2 | escaping on|off | logs some|none | calibration kept|lost
//          | nv-item ID           (the package's NV item arrived)
//   report NAME|- FIELD=VALUE...  the phone's report (-: its top level); sha256=last: of the
//                                 bytes last loaded there (by flash: the package's)
//   encode crc|sum escape|raw TYPE [PAYLOAD HEX] -> WIRE HEX
//                                 and the wire decoded back, whole and byte by byte
//   decode crc|sum|detect WIRE HEX -> KIND[:crc|:sum]...
//                                 KIND: frame, bad-check, bad-escape, bad-end, garbage
//   value crc16|nvcrc|sum|bytesum HEX -> N      a check value of these bytes
//   value sum-matches HEX -> N yes|no           whether N is a loader sum of them in some form
//   value sha256 HEX -> DIGEST                  whole and streamed in uneven pieces
//   merge PACKAGE PHONE [limit=N] [poke=OFFSET:BYTE] [recrc] -> SIZE bytes, N notes: ID:LEN:FILL...
//                                 the NV merge of two NVIMAGEs (a byte of the phone's changed,
//                                 its CRC fixed again), or -> "error"
//
// HEX: bytes in words, `HH*N` for N of them.
// PAYLOAD: `part NAME N` (the 76-byte form), `le32 N`, `zeros N`, in any sequence.
// REPLY: `silent`, or a reply's name with `"text"` (VER) and `len=N`; then the phone's other
// actions in order: reset, unplug, reenumerate, delay=MS.
// NVIMAGE: `ID:LEN:FILL,...` items (`factory`: the phone's own), `/SIZE` padding the image;
// or `blank` (erased flash), or `bytes:HEX`.
// A dialogue stops at its first failing line; the next `phone` or `program` starts the next.
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "engines/sprd/PhoneCodes.h"
#include "engines/sprd/PhoneModel.h"
#include "engines/sprd/Session.h"
#include "engines/sprd/Sha256.h"
#include "platform/ChildProcess.h"
#include "sprd/PackageFixture.h"
#include "support/RunTool.h"
#include "support/TempDir.h"

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::string>;

namespace {

// clang-format off
const std::map<std::string, std::uint16_t> kReplies = {
    {"ACK", rep::ACK}, {"VER", rep::VER}, {"INVALID_CMD", rep::INVALID_CMD}, {"UNKNOWN_CMD", rep::UNKNOWN_CMD},
    {"OPERATION_FAILED", rep::OPERATION_FAILED}, {"DOWN_NOT_START", rep::DOWN_NOT_START},
    {"DOWN_EARLY_END", rep::DOWN_EARLY_END}, {"DOWN_DEST_ERROR", rep::DOWN_DEST_ERROR},
    {"DOWN_SIZE_ERROR", rep::DOWN_SIZE_ERROR}, {"VERIFY_ERROR", rep::VERIFY_ERROR}, {"READ_DATA", rep::READ_DATA},
    {"INCOMPATIBLE_PARTITION", rep::INCOMPATIBLE_PARTITION}, {"CHECKSUM_ERROR", rep::CHECKSUM_ERROR},
    {"SIGNATURE_REFUSED", rep::SIGNATURE_REFUSED}, {"PARTITION_TABLE", rep::PARTITION_TABLE},
    {"UNSUPPORTED", rep::UNSUPPORTED}};
// clang-format on
const std::string kDir = std::string(QUORVEL_SOURCE_DIR) + "/tests/sprd/dialogues";
const char* const kKinds[] = {"frame", "bad-check", "bad-escape", "bad-end", "garbage"};

using Bad = std::runtime_error;

std::uint64_t Num(const std::string& s) {
    std::size_t used = 0;
    const auto v = std::stoull(s, &used, 0);
    if (used != s.size()) throw Bad("not a number: " + s);
    return v;
}

// The bytes of the hex words w[at..end).
Bytes HexFrom(const Words& w, std::size_t at, std::size_t end) {
    std::string s;
    for (; at < end; ++at)  // HH*N: N times HH
        for (std::uint64_t n = w[at].find('*') == std::string::npos ? 1 : Num(w[at].substr(w[at].find('*') + 1)); n--;)
            s += w[at].substr(0, w[at].find('*'));
    if (s.size() % 2) throw Bad("odd hex: " + s);
    Bytes out;
    for (std::size_t i = 0; i < s.size(); i += 2) out.push_back(static_cast<std::uint8_t>(Num("0x" + s.substr(i, 2))));
    return out;
}
std::string HexText(const Bytes& b) {
    std::string s;
    for (auto v : b) s += "0123456789abcdef"[v >> 4], s += "0123456789abcdef"[v & 15];
    return s;
}

void Put32(Bytes& out, std::uint64_t v, bool big) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * (big ? 3 - i : i))));
}
void PutName(Bytes& out, const std::string& name, std::uint64_t value) {
    PutPartitionName(name, out);
    Put32(out, value, false);
}
Bytes Payload(const Words& w, std::size_t at, std::size_t end) {
    Bytes out;
    for (; at < end; at += 2) {
        const std::string& k = w[at];
        if (k == "part")
            PutName(out, w.at(at + 1), Num(w.at(at + 2))), ++at;
        else if (k == "le32")
            Put32(out, Num(w.at(at + 1)), false);
        else if (k == "zeros")
            out.resize(out.size() + Num(w.at(at + 1)));
        else
            throw Bad("unknown payload word " + k);
    }
    return out;
}
// A reply by its name, or by its number.
std::uint16_t Reply(const std::string& s) {
    return kReplies.count(s) ? kReplies.at(s) : static_cast<std::uint16_t>(Num(s));
}
// `"text"` as text; a word without quotes as it stands.
std::string Unquoted(const std::string& s) {
    return s.size() >= 2 && s.front() == '"' && s.back() == '"' ? s.substr(1, s.size() - 2) : s;
}

// `key=value` and bare `key` words from w[at]; each key one of `known` (any when empty).
std::map<std::string, std::string> Options(const Words& w, std::size_t at, const std::set<std::string>& known) {
    std::map<std::string, std::string> out;
    for (; at < w.size(); ++at) {
        const auto eq = w[at].find('=');
        if (!known.empty() && !known.count(w[at].substr(0, eq))) throw Bad("unknown option " + w[at]);
        out[w[at].substr(0, eq)] = eq == std::string::npos ? "" : w[at].substr(eq + 1);
    }
    return out;
}

Check CheckOf(const std::string& s) {
    return std::map<std::string, Check>{
        {"crc", Check::BOOT_ROM_CRC}, {"sum", Check::LOADER_SUM}, {"detect", Check::DETECT}}
        .at(s);
}
std::string Field(const std::string& report, const std::string& name, const std::string& field) {
    const std::size_t at = name == "-" ? 0 : report.find("{\"name\":\"" + name + "\"");
    const std::size_t f = at == std::string::npos ? at : report.find("\"" + field + "\":", at);
    if (f == std::string::npos) return "(none)";
    const std::size_t from = f + field.size() + 3;
    std::string v = report.substr(from, report.find_first_of(",}", from) - from);
    if (!v.empty() && v.front() == '"') v = v.substr(1, v.size() - 2);
    return v;
}

// The host's session against the phone in-process: replies come at once, unless the phone
// holds them back longer than the session waits; a reply may be swapped for another type,
// or garbage put before every reply after one type.
class ModelLink : public Transport {
public:
    explicit ModelLink(PhoneModel& phone) : phone_(phone) {}
    std::optional<std::pair<std::uint16_t, std::uint16_t>> swap;
    std::optional<std::uint16_t> garbageAfter;

    bool Write(std::span<const std::uint8_t> bytes) override {
        if (gone_) return false;
        for (auto& a : phone_.Receive(bytes)) {
            if (a.kind == PhoneAction::SEND) {
                auto typed = [&](std::uint16_t t) { return a.bytes.size() > 2 && a.bytes[1] == 0 && a.bytes[2] == t; };
                if (swap && typed(swap->first)) a.bytes = EncodeFrame(swap->second, {}, Check::LOADER_SUM, false);
                if (garbageAfter && seen_) a.bytes.insert(a.bytes.begin(), {1, 2, 3});
                seen_ = seen_ || (garbageAfter && typed(*garbageAfter));
                inbox_.insert(inbox_.end(), a.bytes.begin(), a.bytes.end());
            } else if (a.kind == PhoneAction::DELAY) {
                delay_ += a.ms;
            } else if (a.kind != PhoneAction::RESET) {
                gone_ = true;
                back_ = a.kind == PhoneAction::REENUMERATE;
                phone_.HostClosed();
            }
        }
        return true;
    }
    long Read(std::span<std::uint8_t> buffer, int timeoutMs) override {
        if (delay_ > static_cast<std::uint64_t>(timeoutMs)) {
            delay_ -= static_cast<std::uint64_t>(timeoutMs);
            return 0;
        }
        delay_ = 0;
        if (inbox_.empty()) return gone_ ? -1 : 0;
        const std::size_t n = std::min(buffer.size(), inbox_.size());
        std::copy_n(inbox_.begin(), n, buffer.begin());
        inbox_.erase(inbox_.begin(), inbox_.begin() + static_cast<long>(n));
        return static_cast<long>(n);
    }
    bool Reopen(int, std::string& error) override {
        gone_ = !back_;
        back_ = false;
        error = "the phone stays gone";
        return !gone_;
    }
    std::string Name() const override { return "model"; }

private:
    PhoneModel& phone_;
    Bytes inbox_;
    std::uint64_t delay_ = 0;
    bool gone_ = false, back_ = false, seen_ = false;
};

struct Quiet : SessionObserver {
    void Step(int) override {}
    void Status(const std::string&) override {}
    void Progress(std::uint64_t done, std::uint64_t total) override { EXPECT_LE(done, total); }
    void Log(const std::string&) override {}
};

struct Exchange {
    std::vector<Frame> frames;
    std::vector<PhoneAction> actions;
    bool Acked() const { return frames.size() == 1 && frames[0].type == rep::ACK && actions.empty(); }
};

class Dialogue {
public:
    void Line(const Words& all) {
        const auto arrow = std::find(all.begin(), all.end(), "->");
        const Words w(all.begin(), arrow), e(arrow == all.end() ? arrow : arrow + 1, all.end());
        const std::string& v = w.at(0);
        if (v == "phone") return NewPhone(w);
        if (v == "program") return NewProgram(w);
        if (v == "encode" || v == "decode") return Codec(w, e);
        if (v == "value") {
            const Bytes b = HexFrom(w, 2, w.size());
            std::string got, want = e.at(0);
            if (w.at(1) == "sha256") {
                Sha256 pieces;  // uneven pieces, across block boundaries
                for (std::size_t i = 0; i < b.size(); i += 63)
                    pieces.Update(std::span<const std::uint8_t>(b).subspan(i, std::min<std::size_t>(63, b.size() - i)));
                got = Sha256::HexOf(b) == pieces.Hex() ? pieces.Hex() : "not the same in pieces: " + pieces.Hex();
            } else if (w[1] == "sum-matches") {
                got = LoaderSumMatches(b, static_cast<std::uint16_t>(Num(want))) ? "yes" : "no", want = e.at(1);
            } else {
                const std::map<std::string, std::uint64_t> values = {
                    {"crc16", Crc16Xmodem(b)}, {"nvcrc", NvCrc16(b)}, {"sum", LoaderSum(b)}, {"bytesum", ByteSum(b)}};
                got = std::to_string(values.at(w[1])), want = std::to_string(Num(want));
            }
            if (got != want) throw Bad("it is " + got);
            return;
        }
        if (v == "refuse") {
            PhoneConfig config;
            std::string error;
            if (ParsePhoneOption(w.at(1), w.size() > 2 ? w[2].c_str() : nullptr, config, error) != -1 ||
                error.find(Unquoted(e.at(0))) == std::string::npos)
                throw Bad("it said \"" + error + "\"");
            return;
        }
        if (!phone_ && !child_) NewPhone({"phone"});
        if (v == "fdl2") {
            const std::string exec = config_.incompatibleAfterFdl2 ? "INCOMPATIBLE_PARTITION" : "ACK";
            for (const char* line :
                 {"baud 1 -> VER \"SPRD3\"", "send CONNECT -> ACK", "load @0x00005000 1000 seed=1 chunk=528 -> ACK",
                  "send EXEC_DATA -> ACK", "baud 4 -> VER \"Spreadtrum Boot Block version 1.1\"", "send CONNECT -> ACK",
                  "load @0x9efffe00 3001 seed=2 chunk=2112 -> ACK"})
                Line(Split(line));
            return Line(Split("send EXEC_DATA -> " + exec));
        } else if (v == "baud") {
            Expect(Deliver(Bytes(Num(w.at(1)), kFlag)), e);
        } else if (v == "send" || v == "damaged") {
            Bytes wire = EncodeFrame(Command(w.at(1)), Payload(w, 2, w.size()), check_, escape_);
            if (v == "damaged") wire[wire.size() - 2] ^= 1;
            Expect(Deliver(wire), e);
        } else if (v == "raw") {
            Deliver(HexFrom(w, 1, w.size()));
        } else if (v == "hangup") {
            child_ ? Hangup() : phone_->HostClosed();
        } else if (v == "reconnect") {
            Connect();
        } else if (v == "check") {
            check_ = CheckOf(w.at(1));
        } else if (v == "term") {
            child_->Signal(SIGTERM);
        } else if (v == "exit") {
            const int code = child_->Reap().code;
            std::string err;
            char buf[512];
            for (long n; (n = child_->ReadErr(buf, sizeof buf)) > 0;) err.append(buf, static_cast<std::size_t>(n));
            if (static_cast<std::uint64_t>(code) != Num(w.at(1)) ||
                (w.size() > 2 && err.find(Unquoted(w[2])) == std::string::npos))
                throw Bad("it ended with " + std::to_string(code) + ": " + err);
        } else if (v == "pieces") {
            piece_ = Num(w.at(1));
        } else if (v == "load") {
            auto o = Options(w, 3, {"seed", "chunk", "sum"});
            o.emplace("seed", "0"), o.emplace("chunk", "4096");
            const Bytes data = quorvel::test::SprdPackage::Pattern(Num(w.at(2)), static_cast<unsigned>(Num(o["seed"])));
            std::optional<std::uint64_t> sum;
            if (o.count("sum")) sum = o["sum"].empty() ? ByteSum(data) : Num(o["sum"]);
            Expect(Load(w.at(1), data, Num(o["chunk"]), sum), e);
        } else if (v == "nv") {
            const Bytes image = NvImageFrom(w.at(1));
            Expect(Load(config_.nvPartition, image, 4096, ByteSum(image)), e);
        } else if (v == "merge") {
            Merge(w, e);
        } else if (v == "flash") {
            Flash(w, e);
        } else if (v == "backup") {
            Backup(w.at(1), Num(w.at(2)), Num(w.at(3)));
        } else if (v == "expect") {
            ExpectState(w.at(1), w.at(2));
        } else if (v == "report") {
            std::ifstream file(report_);
            const std::string report =
                child_ ? std::string(std::istreambuf_iterator<char>(file), {}) : phone_->ReportJson();
            for (const auto& [key, value] : Options(w, 2, {})) {
                const std::string want = value == "last" ? Sha256::HexOf(loaded_[w[1]]) : value;
                if (Field(report, w[1], key) != want)
                    throw Bad(w[1] + " " + key + " is " + Field(report, w[1], key) + ", not " + want);
            }
        } else {
            throw Bad("unknown word " + v);
        }
    }

    static Words Split(const std::string& line) {
        Words out;
        std::istringstream in(line);
        for (std::string word; in >> std::ws && in.peek() != EOF; out.push_back(word))
            if (in.peek() == '"' && in >> std::quoted(word))
                word = '"' + word + '"';
            else
                in >> word;
        return out;
    }

private:
    void NewProgram(const Words& w) {
        Hangup();
        phone_.reset();
        dir_ = std::make_unique<quorvel::test::TempDir>();
        std::vector<std::string> argv = {quorvel::test::ToolPath("quorvel-sprd-phone")};
        for (std::size_t i = 1; i < w.size(); ++i) {
            std::string a = w[i].rfind("$DATA/", 0) == 0 ? kDir + w[i].substr(5) : w[i];
            for (auto at = a.find('@'); at != std::string::npos; at = a.find('@')) a.replace(at, 1, dir_->Path());
            argv.push_back(a);
            if (w[i - 1] == "--listen") listen_ = a;
            if (w[i - 1] == "--report") report_ = a;
        }
        std::string error;
        child_ = quorvel::platform::ChildProcess::Spawn(argv, true, error);
        if (!child_) throw Bad(error);
        check_ = Check::BOOT_ROM_CRC;
        escape_ = true;
        Connect();
    }
    // Waits (10 s at most) until the program says it listens, and reaches it there.
    void Connect() {
        Hangup();
        char buf[512];
        for (int i = 0; out_.find("ready " + listen_ + "\n") == std::string::npos && i < 100; ++i) {
            pollfd p{child_->OutFd(), POLLIN, 0};
            ::poll(&p, 1, 100);
            for (long n; (n = child_->ReadOut(buf, sizeof buf)) > 0;) out_.append(buf, static_cast<std::size_t>(n));
        }
        std::string error;
        link_ = OpenTransport(listen_, "", "", 0, error);
        if (!link_) throw Bad(error + "; the program said: " + out_);
        out_.clear();
    }
    void Hangup() { link_.reset(); }
    // The first frame back within 2 s, or none when the program stays silent or leaves.
    Exchange Talk(const Bytes& wire) {
        if (!link_ || !link_->Write(wire)) throw Bad("cannot write to the program");
        FrameDecoder dec(check_);
        dec.SetEscaping(escape_);
        Exchange x;
        std::uint8_t buf[4096];
        for (int i = 0; i < 20 && x.frames.empty(); ++i) {
            const long n = link_->Read(buf, 100);
            if (n < 0) break;
            dec.Feed({buf, static_cast<std::size_t>(n)});
            while (auto d = dec.Next())
                if (d->kind == Decoded::FRAME && d->frame.type != rep::LOG) x.frames.push_back(std::move(d->frame));
        }
        return x;
    }

    void NewPhone(const Words& w) {
        config_ = PhoneConfig{};
        for (std::size_t i = 1; i < w.size();) {
            std::string error;
            const int took = ParsePhoneOption(w[i], i + 1 < w.size() ? w[i + 1].c_str() : nullptr, config_, error);
            if (took <= 0) throw Bad(took ? error : "not a phone option: " + w[i]);
            i += static_cast<std::size_t>(took);
        }
        Hangup();
        child_.reset();
        phone_ = std::make_unique<PhoneModel>(config_);
        check_ = Check::BOOT_ROM_CRC;
        piece_ = 0;
        logs_ = 0;
        factory_.clear();
        loaded_.clear();
    }
    const Bytes& Factory() {
        if (factory_.empty()) factory_ = PhoneModel(config_).NvContent();
        return factory_;
    }

    static std::uint16_t Command(const std::string& name) {
        for (std::uint16_t t = 0; t < 0x100; ++t)
            if (name == CommandName(t)) return t;
        throw Bad("unknown command " + name);
    }

    Exchange Deliver(const Bytes& wire) {
        if (child_) return Talk(wire);
        std::vector<PhoneAction> got;
        const std::size_t step = piece_ ? piece_ : std::max<std::size_t>(1, wire.size());
        for (std::size_t i = 0; i < wire.size(); i += step) {
            auto part =
                phone_->Receive(std::span<const std::uint8_t>(wire).subspan(i, std::min(step, wire.size() - i)));
            got.insert(got.end(), part.begin(), part.end());
        }
        Exchange x;
        FrameDecoder dec(check_);
        dec.SetEscaping(escape_);
        for (auto& a : got) {
            if (a.kind == PhoneAction::SEND)
                dec.Feed(a.bytes);
            else
                x.actions.push_back(a);
        }
        while (auto d = dec.Next()) {
            if (d->kind != Decoded::FRAME) throw Bad(std::string("phone sent a ") + DecodedKindName(d->kind));
            if (d->frame.type == rep::LOG)
                ++logs_;
            else
                x.frames.push_back(std::move(d->frame));
        }
        // The host follows the phone: the loaders' check once one runs, raw once transcoding is off.
        check_ = phone_->GetStage() == PhoneModel::Stage::BOOT_ROM ? Check::BOOT_ROM_CRC : Check::LOADER_SUM;
        escape_ = phone_->Escaping();
        return x;
    }
    Exchange Send(std::uint16_t type, const Bytes& payload) {
        return Deliver(EncodeFrame(type, payload, check_, escape_));
    }

    Exchange Load(const std::string& target, const Bytes& data, std::size_t chunk, std::optional<std::uint64_t> sum) {
        Bytes start;
        if (target[0] == '@')
            Put32(start, Num(target.substr(1)), true), Put32(start, data.size(), true);
        else
            PutName(start, target, data.size());
        if (sum) Put32(start, *sum, false);
        loaded_[target] = data;
        Exchange x = Send(cmd::START_DATA, start);
        for (std::size_t i = 0; i < data.size() && x.Acked(); i += chunk)
            x = Send(cmd::MIDST_DATA, Bytes(data.begin() + i, data.begin() + std::min(data.size(), i + chunk)));
        return x.Acked() ? Send(cmd::END_DATA, {}) : x;
    }

    // `ID:LEN:FILL,...` items (`factory`: the phone's own) as an NV image, `/SIZE` padding it;
    // `blank`: erased flash; `bytes:HEX`: these bytes.
    Bytes NvImageFrom(const std::string& text) {
        if (text == "blank") return Bytes(64, 0xFF);
        if (text.rfind("bytes:", 0) == 0) return HexFrom({text.substr(6)}, 0, 1);
        std::vector<NvItem> items;
        std::string error;
        std::istringstream in(text.substr(0, text.find('/')));
        for (std::string item; std::getline(in, item, ',');) {
            if (item == "factory" && !ReadNvItems(Factory(), items, error)) throw Bad(error);
            const auto a = item.find(':'), b = item.rfind(':');
            if (a != b)
                items.push_back(
                    {static_cast<std::uint16_t>(Num(item.substr(0, a))),
                     Bytes(Num(item.substr(a + 1, b - a - 1)), static_cast<std::uint8_t>(Num(item.substr(b + 1))))});
        }
        return MakeNvImage(items, text.find('/') == std::string::npos ? 0 : Num(text.substr(text.find('/') + 1)));
    }

    // The phone's calibration (2) and IMEI (5), and an item neither has (0x77), kept.
    void Merge(const Words& w, const Words& e) {
        Bytes package = NvImageFrom(w.at(1)), phone = NvImageFrom(w.at(2)), out;
        auto o = Options(w, 3, {"limit", "poke", "recrc"});
        const std::string& poke = o["poke"];
        if (!poke.empty())
            phone.at(Num(poke.substr(0, poke.find(':')))) =
                static_cast<std::uint8_t>(Num(poke.substr(poke.find(':') + 1)));
        const std::uint16_t crc = NvCrc16(std::span<const std::uint8_t>(phone).subspan(2));
        if (o.count("recrc")) phone[0] = static_cast<std::uint8_t>(crc >> 8), phone[1] = static_cast<std::uint8_t>(crc);
        const std::size_t limit = o.count("limit") ? Num(o["limit"]) : 0;
        std::vector<std::string> notes;
        std::vector<NvItem> items;
        std::string error, got, want;
        if (MergeNv(package, phone, {{"Calibration", 2}, {"IMEI", 5}, {"Missing", 0x77}}, limit, out, notes, error) &&
            NvCrcValid(out) && ReadNvItems(out, items, error)) {
            got = std::to_string(out.size()) + " bytes, " + std::to_string(notes.size()) + " notes:";
            for (const auto& i : items)
                got += " " + std::to_string(i.id) + ":" + std::to_string(i.data.size()) + ":" +
                       (std::count(i.data.begin(), i.data.end(), i.data.at(0)) == static_cast<long>(i.data.size())
                            ? "0x" + HexText({i.data[0]})
                            : "mixed");
        }
        for (const auto& word : e) want += (want.empty() ? "" : " ") + word;
        if (want[0] == '"' ? error.find(Unquoted(want)) == std::string::npos : got != want)
            throw Bad(got.empty() ? error : got);
    }

    void Backup(const std::string& name, std::uint64_t size, std::uint64_t chunk) {
        Bytes start;
        PutName(start, name, size);
        Expect(Send(cmd::READ_START, start), {"ACK"});
        Bytes nv;
        for (std::uint64_t off = 0; off < size; off += chunk) {
            Bytes req;
            Put32(req, std::min(chunk, size - off), false);
            Put32(req, off, false);
            const Exchange x = Send(cmd::READ_MIDST, req);
            Expect(x, {"READ_DATA"});
            nv.insert(nv.end(), x.frames[0].payload.begin(), x.frames[0].payload.end());
        }
        Expect(Send(cmd::READ_END, {}), {"ACK"});
        const Bytes& factory = Factory();
        if (nv.size() != size || !std::equal(factory.begin(), factory.end(), nv.begin()) ||
            std::any_of(nv.begin() + static_cast<long>(factory.size()), nv.end(), [](auto b) { return b != 0xFF; }) ||
            !NvCrcValid(nv))
            throw Bad("the backup is not the factory image and 0xFF after it: " +
                      HexText(Bytes(nv.begin(), nv.begin() + 32)));
    }

    // The engine's whole session (or its two phases) with the test package.
    void Flash(const Words& w, const Words& e) {
        pkg_ = std::make_unique<quorvel::test::SprdPackage>();
        Scheme scheme;
        std::vector<ListedFile> files;
        Plan plan;
        std::string error;
        if (!ReadScheme(pkg_->Xml(), "", scheme, error) || !ReadFileList(pkg_->List(), files, error) ||
            !MakePlan(scheme, files, 0, plan, error))
            throw Bad(error);
        auto o = Options(w, 1, {"phases", "table", "system", "swap", "garbage-after"});
        if (o.count("table")) plan.partitions.clear();
        if (o.count("system")) {
            pkg_->system = quorvel::test::SprdPackage::Pattern(Num(o["system"]), 9);
            pkg_->Put("system.img", pkg_->system);
            for (auto& step : plan.steps)
                if (step.id == "System") step.size = pkg_->system.size();
        }
        loaded_ = {
            {"boot", pkg_->boot}, {"system", pkg_->system}, {"@0x00005000", pkg_->fdl}, {"@0x9efffe00", pkg_->fdl2}};
        std::string got = "ok";
        const std::string& swap = o["swap"];
        for (auto phase : o.count("phases") ? std::vector{SessionOptions::PHASE1, SessionOptions::PHASE2}
                                            : std::vector{SessionOptions::ALL}) {
            ModelLink link(*phone_);
            if (!swap.empty())
                link.swap = {Reply(swap.substr(0, swap.find(':'))), Reply(swap.substr(swap.find(':') + 1))};
            if (o.count("garbage-after")) link.garbageAfter = Reply(o["garbage-after"]);
            SessionOptions options;
            options.phase = phase;
            options.baudTries = 4;
            Quiet quiet;
            Session session(link, plan, options, quiet);
            const bool ok = session.Run();
            phone_->HostClosed();
            if (!ok) {
                got = session.Error().empty() ? "failed without an error" : session.Error();
                break;
            }
        }
        if (e.empty() || (e[0] == "ok" ? got != "ok" : got.find(Unquoted(e[0])) == std::string::npos))
            throw Bad("the session ended: " + got);
    }

    void ExpectState(const std::string& what, const std::string& want) {
        static const char* const kStages[] = {"boot-rom", "fdl1", "fdl2"};
        std::string seen;
        if (what == "stage") seen = kStages[static_cast<int>(phone_->GetStage())];
        if (what == "escaping") seen = phone_->Escaping() ? "on" : "off";
        if (what == "logs") seen = logs_ > 0 ? "some" : "none";
        if (what == "nv-item") {  // the package's item, found whole in the phone's NV
            std::vector<NvItem> items;
            std::string error;
            if (!pkg_ || !ReadNvItems(pkg_->nv, items, error)) throw Bad("the package's NV: " + error);
            const auto it =
                std::find_if(items.begin(), items.end(), [&](const NvItem& i) { return i.id == Num(want); });
            const Bytes& nv = phone_->NvContent();
            seen = it != items.end() && std::search(nv.begin(), nv.end(), it->data.begin(), it->data.end()) != nv.end()
                       ? want
                       : "not there";
        }
        if (what == "calibration") {
            seen = phone_->CalibrationKept() ? "kept" : "lost";
            if (phone_->ReportJson().find("\"calibration\":\"" + seen + "\"") == std::string::npos)
                throw Bad("the report does not say calibration " + seen);
        }
        if (seen != want) throw Bad(what + " is " + seen + ", not " + want);
    }

    static std::string Describe(const Exchange& x) {
        std::string s = x.frames.empty() ? "silent " : "";
        for (const auto& f : x.frames) {
            auto it = std::find_if(kReplies.begin(), kReplies.end(), [&](auto& r) { return r.second == f.type; });
            s += (it == kReplies.end() ? ReplyText(f.type) : it->first) + " ";
        }
        for (const auto& a : x.actions)
            s += a.kind == PhoneAction::RESET         ? "reset "
                 : a.kind == PhoneAction::UNPLUG      ? "unplug "
                 : a.kind == PhoneAction::REENUMERATE ? "reenumerate "
                                                      : "delay=" + std::to_string(a.ms) + " ";
        return s.substr(0, s.size() - 1);
    }

    void Expect(const Exchange& x, const Words& e) {
        if (e.empty()) throw Bad("no -> REPLY");
        std::string want;
        for (const std::string& word : e) {
            if (word[0] == '"') {
                const Bytes& p = x.frames.at(0).payload;
                std::string text(p.begin(), p.end());
                if (!text.empty() && text.back() == 0) text.pop_back();
                if ('"' + text + '"' != word) throw Bad("the phone said \"" + text + "\"");
            } else if (word.rfind("len=", 0) == 0) {
                if (x.frames.at(0).payload.size() != Num(word.substr(4)))
                    throw Bad("payload of " + std::to_string(x.frames[0].payload.size()) + " bytes");
            } else {
                want += (want.empty() ? "" : " ") + word;
            }
        }
        if (Describe(x) != want) throw Bad("the phone answered " + Describe(x));
    }

    void Codec(const Words& w, const Words& e) {
        const Check check = CheckOf(w.at(1));
        if (w[0] == "decode") {
            FrameDecoder d(check);
            d.Feed(HexFrom(w, 2, w.size()));
            std::string kinds, want;
            while (auto x = d.Next()) {
                kinds += std::string(kinds.empty() ? "" : " ") + kKinds[x->kind];
                if (x->kind == Decoded::FRAME && check == Check::DETECT)
                    kinds += x->matched == Check::BOOT_ROM_CRC ? ":crc" : ":sum";
            }
            for (const auto& k : e) want += (want.empty() ? "" : " ") + k;
            if (kinds != want) throw Bad("decoded " + kinds);
            return;
        }
        const bool escape = w.at(2) == "escape";
        const auto type = static_cast<std::uint16_t>(Num(w.at(3)));
        const Bytes payload = HexFrom(w, 4, w.size());
        const Bytes wire = EncodeFrame(type, payload, check, escape);
        if (wire != HexFrom(e, 0, e.size())) throw Bad("encoded " + HexText(wire));
        for (std::size_t piece : {wire.size(), std::size_t{1}}) {
            FrameDecoder d(check);
            d.SetEscaping(escape);
            for (std::size_t i = 0; i < wire.size(); i += piece)
                d.Feed({wire.data() + i, std::min(piece, wire.size() - i)});
            auto got = d.Next();
            if (!got || got->kind != Decoded::FRAME || got->frame.type != type || got->frame.payload != payload ||
                d.Next())
                throw Bad("did not decode back in pieces of " + std::to_string(piece));
        }
    }

    PhoneConfig config_;
    std::unique_ptr<PhoneModel> phone_;
    Check check_ = Check::BOOT_ROM_CRC;
    bool escape_ = true;
    std::size_t piece_ = 0;
    int logs_ = 0;
    Bytes factory_;
    std::unique_ptr<quorvel::test::SprdPackage> pkg_;
    std::map<std::string, Bytes> loaded_;
    std::unique_ptr<quorvel::test::TempDir> dir_;
    std::unique_ptr<quorvel::platform::ChildProcess> child_;
    std::string listen_, report_, out_;
    std::unique_ptr<Transport> link_;
};

std::vector<std::string> DialogueFiles() {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(kDir))
        if (e.path().extension() == ".txt") out.push_back(e.path().stem().string());
    std::sort(out.begin(), out.end());
    return out;
}

class DialogueFile : public ::testing::TestWithParam<std::string> {};

TEST_P(DialogueFile, Holds) {
    const std::string path = kDir + "/" + GetParam() + ".txt";
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    Dialogue d;
    bool failed = false;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const Words w = Dialogue::Split(line.substr(0, line.find('#')));
        static const Words kFresh = {"phone", "program", "value", "merge", "encode", "decode", "refuse"};
        if (w.empty() || (failed && std::find(kFresh.begin(), kFresh.end(), w[0]) == kFresh.end())) continue;
        try {
            failed = false;
            d.Line(w);
        } catch (const std::exception& x) {  // Bad, and a number or word missing
            ADD_FAILURE() << path << ":" << number << ": " << line << "\n  " << x.what();
            failed = true;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sprd, DialogueFile, ::testing::ValuesIn(DialogueFiles()),
                         [](const auto& info) { return info.param; });

}  // namespace
