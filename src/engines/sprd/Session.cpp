#include "engines/sprd/Session.h"

#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "engines/sprd/Codes.h"
#include "engines/sprd/NvImage.h"

namespace quorvel::sprd {
namespace {

using Clock = std::chrono::steady_clock;

void PutLe32(std::uint32_t v, std::vector<std::uint8_t>& out) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void PutBe32(std::uint32_t v, std::vector<std::uint8_t>& out) {
    for (int i = 3; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
std::uint32_t Le32(const std::uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

std::string Seconds(int ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", ms / 1000.0);
    return text;
}

// The text of a VER or log frame: printable up to the first NUL.
std::string Printable(const std::vector<std::uint8_t>& payload) {
    std::string s;
    for (std::uint8_t b : payload) {
        if (b == 0) break;
        s += (b >= 0x20 && b < 0x7F) ? static_cast<char>(b) : '.';
    }
    return s;
}

bool IsReplyCode(std::uint16_t type) {
    return type >= 0x82 && type != rep::READ_DATA && type != rep::PARTITION_TABLE;
}

std::string WrongReply(std::uint16_t type) {
    return IsReplyCode(type) ? ReplyText(type) : "phone answered out of turn: " + ReplyText(type);
}

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f) std::fclose(f);
    }
};

}  // namespace

void PutPartitionName(const std::string& name, std::vector<std::uint8_t>& out) {
    // Partition names are ASCII; anything else would not match a phone's table anyway.
    for (std::size_t i = 0; i < 36; ++i) {
        const std::uint8_t c = i < name.size() && i < 35 ? static_cast<std::uint8_t>(name[i]) : 0;
        out.push_back(c);
        out.push_back(0);
    }
}

Session::Session(Transport& transport, const Plan& plan, SessionOptions options, SessionObserver& observer)
    : transport_(transport), plan_(plan), options_(options), observer_(observer) {
    options_.chunk = std::clamp<std::size_t>(options_.chunk & ~std::size_t{1}, 2, 0xFFFE);
    in_.resize(std::size_t{64} * 1024);
}

bool Session::Run() {
    try {
        if (options_.phase != SessionOptions::PHASE2) PhaseOne();
        if (options_.phase != SessionOptions::PHASE1) PhaseTwo(options_.phase == SessionOptions::ALL);
        return true;
    } catch (const Failure& f) {
        error_ = f.text;
        return false;
    }
}

void Session::Fail(const std::string& why) const {
    throw Failure{what_.empty() ? why : what_ + ": " + why};
}

void Session::Begin(int stepNumber, const std::string& what) {
    what_ = what;
    observer_.Step(stepNumber);
    observer_.Status(what);
}

void Session::Send(std::uint16_t type, std::span<const std::uint8_t> payload) {
    out_.clear();
    EncodeFrame(type, payload, sendCheck_, escape_, out_);
    if (!transport_.Write(out_)) Fail("the phone disappeared (unplugged?)");
}

Session::Wait Session::Receive(Frame& out, int timeoutMs, bool tolerateGarbage) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        while (auto d = decoder_.Next()) {
            if (d->kind == Decoded::FRAME) {
                if (d->frame.type == rep::LOG) {
                    observer_.Log("phone log: " + Printable(d->frame.payload));
                    continue;
                }
                out = std::move(d->frame);
                return Wait::FRAME;
            }
            if (!tolerateGarbage) Fail(std::string("garbage on the wire (") + DecodedKindName(d->kind) + ")");
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return Wait::TIMEOUT;
        const long n = transport_.Read(in_, static_cast<int>(left));
        if (n < 0) return Wait::GONE;
        if (n == 0) return Wait::TIMEOUT;
        decoder_.Feed(std::span<const std::uint8_t>(in_.data(), static_cast<std::size_t>(n)));
    }
}

Frame Session::Command(std::uint16_t type, std::span<const std::uint8_t> payload, int timeoutMs) {
    Send(type, payload);
    Frame f;
    for (;;) {
        switch (Receive(f, timeoutMs, false)) {
            case Wait::FRAME: break;
            case Wait::GONE: Fail("the phone disappeared (unplugged?)");
            case Wait::TIMEOUT: Fail(std::string("no reply to ") + CommandName(type) + " within " + Seconds(timeoutMs));
        }
        // A loader may answer each check-baud try; answers after the first are late, not wrong.
        if (f.type == rep::VER && lateVer_) continue;
        lateVer_ = false;
        return f;
    }
}

void Session::Drain(int quietMs) {
    Frame f;
    while (Receive(f, quietMs, true) == Wait::FRAME) observer_.Log("late reply dropped: " + ReplyText(f.type));
}

void Session::Ack(std::uint16_t type, std::span<const std::uint8_t> payload, int timeoutMs) {
    const Frame f = Command(type, payload, timeoutMs);
    if (f.type != rep::ACK) Fail(WrongReply(f.type));
}

void Session::Reconnect() {
    observer_.Step(13);
    observer_.Log("the phone went away; waiting up to " + Seconds(options_.reenumerateMs) + " for it on " +
                  transport_.Name());
    std::string error;
    if (!transport_.Reopen(options_.reenumerateMs, error))
        Fail("the phone went away and did not come back within " + Seconds(options_.reenumerateMs) + " (" + error +
             ")");
    decoder_.Reset();
    decoder_.SetEscaping(true);
    escape_ = true;
    observer_.Log("the phone is back on " + transport_.Name());
}

void Session::CheckBaud(bool bootRom) {
    Begin(step::CHECK_BAUD, "Checking baudrate");
    const std::vector<std::uint8_t> flags(bootRom ? 1 : 4, kFlag);
    const int tries = std::max(1, options_.baudTries);
    for (int i = 1; i <= tries; ++i) {
        if (!transport_.Write(flags)) {
            Reconnect();
            continue;
        }
        // Until VER comes, stale or half bytes are expected: the phone is only starting.
        const auto deadline = Clock::now() + std::chrono::milliseconds(options_.baudIntervalMs);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            Frame f;
            const Wait w = Receive(f, static_cast<int>(left), true);
            if (w == Wait::GONE) {
                Reconnect();
                break;
            }
            if (w == Wait::TIMEOUT) break;
            if (f.type == rep::VER) {
                lateVer_ = true;
                observer_.Log("phone version \"" + Printable(f.payload) + "\" after " + std::to_string(i) +
                              (i == 1 ? " try" : " tries"));
                return;
            }
        }
    }
    Fail("the phone did not answer check baud (" + std::to_string(tries) + " tries)");
}

void Session::ConnectLoader() {
    Begin(step::CONNECT, "Connecting");
    const int tries = std::max(1, options_.baudTries);
    const std::vector<std::uint8_t> flags(4, kFlag);
    for (int i = 1; i <= tries; ++i) {
        out_.clear();
        EncodeFrame(cmd::CONNECT, {}, sendCheck_, escape_, out_);
        if (!transport_.Write(out_)) {
            Reconnect();
            continue;
        }
        Frame f;
        switch (Receive(f, options_.baudIntervalMs, true)) {
            case Wait::GONE: Reconnect(); continue;
            case Wait::TIMEOUT: transport_.Write(flags); continue;  // a loader that wants check baud first
            case Wait::FRAME: break;
        }
        if (f.type == rep::ACK) {
            if (i > 1) Drain(options_.baudIntervalMs);  // the earlier tries may still be answered
            return;
        }
        if (f.type == rep::VER) continue;  // it took the frame's flag for check baud
        Fail(WrongReply(f.type));
    }
    Fail("the phone's loader did not answer CONNECT (" + std::to_string(tries) + " tries)");
}

void Session::LoadLoader(const Loader& loader, const char* name, std::size_t chunk, bool second) {
    Begin(step::DOWNLOAD, std::string("Downloading ") + name);
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(loader.path.c_str(), "rb"));
    if (!file) Fail("cannot read " + loader.path);
    std::vector<std::uint8_t> p;
    PutBe32(loader.address, p);
    PutBe32(static_cast<std::uint32_t>(loader.size), p);
    Ack(cmd::START_DATA, p, options_.replyMs);
    observer_.Progress(0, loader.size);
    chunk_.resize(chunk);
    for (std::uint64_t done = 0; done < loader.size;) {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(chunk, loader.size - done));
        if (std::fread(chunk_.data(), 1, n, file.get()) != n) Fail(loader.path + " is shorter than it was");
        Ack(cmd::MIDST_DATA, std::span<const std::uint8_t>(chunk_.data(), n), options_.replyMs);
        done += n;
        observer_.Progress(done, loader.size);
    }
    Ack(cmd::END_DATA, {}, options_.replyMs);
    what_ = std::string("Running ") + name;
    Send(cmd::EXEC_DATA, {});
    Frame f;
    switch (Receive(f, options_.replyMs, false)) {
        case Wait::GONE: observer_.Log(std::string(name) + " runs; the phone re-enumerates"); return;
        case Wait::TIMEOUT: Fail("no reply to EXEC_DATA within " + Seconds(options_.replyMs));
        case Wait::FRAME: break;
    }
    if (f.type == rep::ACK) return;
    if (second && f.type == rep::INCOMPATIBLE_PARTITION) {
        observer_.Log(std::string(name) + " runs (device information, " + std::to_string(f.payload.size()) + " bytes)");
        return;
    }
    Fail(WrongReply(f.type));
}

void Session::PhaseOne() {
    sendCheck_ = Check::BOOT_ROM_CRC;
    CheckBaud(true);
    Begin(step::CONNECT, "Connecting");
    Ack(cmd::CONNECT, {}, options_.replyMs);
    LoadLoader(plan_.fdl, "FDL", 528, false);
    sendCheck_ = Check::LOADER_SUM;
    CheckBaud(false);
    Begin(step::CONNECT, "Connecting");
    Ack(cmd::CONNECT, {}, options_.replyMs);
    LoadLoader(plan_.fdl2, "FDL2", 2112, true);
}

void Session::ReadPartitionTable() {
    Begin(step::READ_FLASH, "Reading the partition table");
    const Frame f = Command(cmd::READ_PARTITION, {}, options_.replyMs);
    if (f.type == rep::UNSUPPORTED || f.type == rep::UNKNOWN_CMD || f.type == rep::INVALID_CMD) {
        observer_.Log("the second loader has no partition table command (" + ReplyText(f.type) +
                      "): partition sizes are left to the phone");
        haveTable_ = false;
        return;
    }
    if (f.type != rep::PARTITION_TABLE) Fail(WrongReply(f.type));
    if (f.payload.size() % 76) Fail("the phone's partition table is not a whole number of entries");
    table_.clear();
    for (std::size_t at = 0; at < f.payload.size(); at += 76) {
        PhonePartition p;
        for (std::size_t i = 0; i < 36; ++i) {
            const std::uint16_t unit =
                static_cast<std::uint16_t>(f.payload[at + 2 * i] | (f.payload[at + 2 * i + 1] << 8));
            if (unit == 0) break;
            p.name += unit < 0x80 ? static_cast<char>(unit) : '?';
        }
        p.bytes = std::uint64_t{Le32(&f.payload[at + 72])} << 20;
        table_.push_back(std::move(p));
    }
    haveTable_ = true;
    observer_.Log("the phone has " + std::to_string(table_.size()) + " partitions");
}

const PhonePartition* Session::PhonePart(const std::string& name) const {
    for (const auto& p : table_)
        if (::strcasecmp(p.name.c_str(), name.c_str()) == 0) return &p;
    return nullptr;
}

std::vector<std::uint8_t> Session::BackUpNv(const PlanStep& nv) {
    Begin(step::READ_NV, "Backing up NV " + nv.partition);
    const PhonePartition* part = haveTable_ ? PhonePart(nv.partition) : nullptr;
    if (haveTable_ && !part) Fail("the phone has no partition " + nv.partition + " to back up");
    // The whole partition where the phone tells its size: the image on it may be longer than the package's.
    const std::uint64_t size = part ? std::min<std::uint64_t>(part->bytes, 64ull << 20) : nv.size;
    std::vector<std::uint8_t> p;
    PutPartitionName(nv.partition, p);
    PutLe32(static_cast<std::uint32_t>(size), p);
    Ack(cmd::READ_START, p, options_.replyMs);
    std::vector<std::uint8_t> backup;
    backup.reserve(static_cast<std::size_t>(size));
    observer_.Progress(0, size);
    while (backup.size() < size) {
        const std::uint32_t want =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(options_.chunk, size - backup.size()));
        p.clear();
        PutLe32(want, p);
        PutLe32(static_cast<std::uint32_t>(backup.size()), p);
        const Frame f = Command(cmd::READ_MIDST, p, options_.replyMs);
        if (f.type != rep::READ_DATA) Fail(WrongReply(f.type));
        if (f.payload.empty() || f.payload.size() > want)
            Fail("the phone sent " + std::to_string(f.payload.size()) + " bytes where " + std::to_string(want) +
                 " were asked");
        backup.insert(backup.end(), f.payload.begin(), f.payload.end());
        observer_.Progress(backup.size(), size);
    }
    Ack(cmd::READ_END, {}, options_.replyMs);
    return backup;
}

void Session::Repartition() {
    Begin(step::ERASE, "Repartitioning");
    std::vector<std::uint8_t> p;
    for (const auto& part : plan_.partitions) {
        PutPartitionName(part.name, p);
        PutLe32(part.sizeMiB, p);
    }
    if (p.size() > kMaxPayload) Fail("the package's partition list is too long for one frame");
    Ack(cmd::REPARTITION, p, options_.eraseMs);
}

void Session::Erase(const PlanStep& s) {
    Begin(step::ERASE, "Erasing " + s.Target());
    std::vector<std::uint8_t> p;
    if (s.partition.empty()) {
        PutBe32(s.address, p);
        PutBe32(static_cast<std::uint32_t>(s.eraseSize), p);
    } else {
        PutPartitionName(s.partition, p);
        PutLe32(static_cast<std::uint32_t>(s.eraseSize), p);
    }
    Ack(cmd::ERASE_FLASH, p, options_.eraseMs);
}

void Session::Download(const PlanStep& s, const std::vector<std::uint8_t>* content) {
    Begin(step::DOWNLOAD, "Downloading " + s.Target());
    const std::uint64_t size = content ? content->size() : s.size;
    if (!s.partition.empty() && haveTable_) {
        const PhonePartition* part = PhonePart(s.partition);
        if (!part) Fail("the phone has no partition " + s.partition + " (wrong package for this phone?)");
        if (size > part->bytes)
            Fail("the image (" + std::to_string(size) + " bytes) is larger than the phone's partition (" +
                 std::to_string(part->bytes) + " bytes)");
    }
    if (s.partition.empty() && size > 0xFFFFFFFF) Fail("the image is too large for an address-form download");
    std::unique_ptr<std::FILE, FileCloser> file;
    std::vector<char> buffer;
    if (!content) {
        file.reset(std::fopen(s.path.c_str(), "rb"));
        if (!file) Fail("cannot read " + s.path);
        buffer.resize(1 << 20);  // one read a MiB, not one per chunk
        std::setvbuf(file.get(), buffer.data(), _IOFBF, buffer.size());
    }
    std::vector<std::uint8_t> p;
    if (s.partition.empty()) {
        PutBe32(s.address, p);
        PutBe32(static_cast<std::uint32_t>(size), p);
    } else {
        PutPartitionName(s.partition, p);
        PutLe32(static_cast<std::uint32_t>(size), p);
        if (size > 0xFFFFFFFF) {
            PutLe32(static_cast<std::uint32_t>(size >> 32), p);
            p.resize(p.size() + 8, 0);
        } else if (s.nv && content) {
            PutLe32(ByteSum(*content), p);
        }
    }
    Ack(cmd::START_DATA, p, options_.replyMs);
    observer_.Progress(0, size);
    chunk_.resize(options_.chunk);
    const std::string what = what_;
    for (std::uint64_t done = 0; done < size;) {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(options_.chunk, size - done));
        std::span<const std::uint8_t> data;
        if (content) {
            data = std::span<const std::uint8_t>(content->data() + done, n);
        } else {
            if (std::fread(chunk_.data(), 1, n, file.get()) != n) Fail(s.path + " is shorter than it was");
            data = std::span<const std::uint8_t>(chunk_.data(), n);
        }
        what_ = what + " (at byte " + std::to_string(done) + " of " + std::to_string(size) + ")";
        Ack(cmd::MIDST_DATA, data, options_.replyMs);
        done += n;
        observer_.Progress(done, size);
    }
    what_ = what;
    Ack(cmd::END_DATA, {}, options_.replyMs);
}

void Session::Reset() {
    Begin(step::RESET, "Resetting");
    Send(cmd::NORMAL_RESET, {});
    Frame f;
    switch (Receive(f, options_.replyMs, true)) {
        case Wait::GONE: return;  // already rebooting
        case Wait::TIMEOUT: Fail("no reply to NORMAL_RESET within " + Seconds(options_.replyMs));
        case Wait::FRAME: break;
    }
    if (f.type != rep::ACK) Fail(WrongReply(f.type));
}

void Session::PhaseTwo(bool sameProcess) {
    sendCheck_ = Check::LOADER_SUM;
    (void)sameProcess;  // either way the loader may have re-enumerated since EXEC
    ConnectLoader();
    ReadPartitionTable();

    if (options_.disableTranscode) {
        Begin(step::CONNECT, "Switching escaping off");
        const Frame f = Command(cmd::DISABLE_TRANSCODE, {}, options_.replyMs);
        if (f.type == rep::ACK) {
            escape_ = false;
            decoder_.SetEscaping(false);
        } else if (f.type == rep::UNSUPPORTED || f.type == rep::UNKNOWN_CMD || f.type == rep::INVALID_CMD) {
            observer_.Log("the loader keeps escaping (" + ReplyText(f.type) + ")");
        } else {
            Fail(WrongReply(f.type));
        }
    }

    // NV first: a backup that cannot be taken must fail the job before anything is written.
    const PlanStep* nvStep = nullptr;
    for (const auto& s : plan_.steps)
        if (s.kind == PlanStep::IMAGE && s.nv) nvStep = &s;
    std::vector<std::uint8_t> merged;
    if (nvStep && plan_.keepCalibration) {
        const std::vector<std::uint8_t> backup = BackUpNv(*nvStep);
        std::vector<std::uint8_t> package(static_cast<std::size_t>(nvStep->size));
        std::unique_ptr<std::FILE, FileCloser> file(std::fopen(nvStep->path.c_str(), "rb"));
        if (!file || std::fread(package.data(), 1, package.size(), file.get()) != package.size())
            Fail("cannot read the package's NV image " + nvStep->path);
        const PhonePartition* part = haveTable_ ? PhonePart(nvStep->partition) : nullptr;
        std::vector<std::string> notes;
        std::string error;
        if (!MergeNv(package, backup, plan_.nvItems, part ? static_cast<std::size_t>(part->bytes) : 0, merged, notes,
                     error))
            Fail(error + "; nothing was written");
        for (const auto& n : notes) observer_.Log(n);
    }

    if (!plan_.partitions.empty()) {
        Repartition();
        if (haveTable_) ReadPartitionTable();
    }
    for (const auto& s : plan_.steps) {
        if (s.kind == PlanStep::ERASE)
            Erase(s);
        else
            Download(s, &s == nvStep && plan_.keepCalibration ? &merged : nullptr);
    }
    Reset();
    Begin(step::FINISH, "Finished");
}

}  // namespace quorvel::sprd
