#include "engines/sprd/PhoneModel.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "engines/sprd/PhoneCodes.h"
#include "platform/JsonText.h"

namespace quorvel::sprd {

using namespace phone;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr std::uint64_t kMib = std::uint64_t{1024} * 1024;
// Loaders are small; anything larger sent to the boot ROM or first loader is refused.
constexpr std::uint64_t kMaxLoaderBytes = 64 * kMib;

std::uint32_t Be32(std::span<const std::uint8_t> p, std::size_t at) {
    return (std::uint32_t{p[at]} << 24) | (std::uint32_t{p[at + 1]} << 16) | (std::uint32_t{p[at + 2]} << 8) |
           p[at + 3];
}
std::uint32_t Le32(std::span<const std::uint8_t> p, std::size_t at) {
    return (std::uint32_t{p[at + 3]} << 24) | (std::uint32_t{p[at + 2]} << 16) | (std::uint32_t{p[at + 1]} << 8) |
           p[at];
}
void PutLe32(Bytes& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void PutLe16(Bytes& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
}

// Names are ASCII in practice; other code units become '?' so a report stays printable.
std::string ReadName(std::span<const std::uint8_t> p) {
    std::string name;
    for (std::size_t i = 0; i + 1 < kNameBytes && i + 1 < p.size(); i += 2) {
        const std::uint16_t u = static_cast<std::uint16_t>(p[i] | (p[i + 1] << 8));
        if (u == 0) break;
        name.push_back(u >= 0x20 && u < 0x7F ? static_cast<char>(u) : '?');
    }
    return name;
}
void PutName(Bytes& out, const std::string& name) {
    for (std::size_t i = 0; i < kNameUnits; ++i) PutLe16(out, i < name.size() ? static_cast<std::uint8_t>(name[i]) : 0);
}

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return std::tolower(x) == std::tolower(y); });
}

std::string Hex(std::span<const std::uint8_t> data) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(data.size() * 2);
    for (std::uint8_t b : data) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

// An NV image without its erased tail, for the report.
std::span<const std::uint8_t> TrimErased(std::span<const std::uint8_t> image) {
    std::size_t n = image.size();
    while (n > 0 && image[n - 1] == 0xFF) --n;
    return image.first(n);
}

std::vector<NvItem> FactoryCalibration(std::uint32_t seed) {
    std::mt19937 rng(seed ^ 0x5eedu);
    NvItem calib{2, Bytes(512)};
    for (auto& b : calib.data) b = static_cast<std::uint8_t>(rng());
    NvItem imei{5, Bytes(8)};
    for (auto& b : imei.data) b = static_cast<std::uint8_t>(rng());
    NvItem other{0x100, Bytes(32, 0x11)};  // an ordinary item a new image may replace
    return {calib, imei, other};
}

const struct {
    const char* name;
    PhoneFault::Kind kind;
} kFaultNames[] = {
    {"bad-frame", PhoneFault::BAD_FRAME},
    {"overrun", PhoneFault::OVERRUN},
    {"early-end", PhoneFault::EARLY_END},
    {"signature", PhoneFault::SIGNATURE},
    {"no-check-baud", PhoneFault::NO_CHECK_BAUD},
    {"fdl1-misses", PhoneFault::FDL1_MISSES},
    {"slow", PhoneFault::SLOW},
    {"unplug", PhoneFault::UNPLUG},
    {"no-read-partition", PhoneFault::NO_READ_PARTITION},
};

const char* FaultName(PhoneFault::Kind kind) {
    for (const auto& f : kFaultNames)
        if (f.kind == kind) return f.name;
    return "?";
}

}  // namespace

std::vector<PartitionSpec> DefaultPartitions() {
    return {{"splloader", 1}, {"prodnv", 5},     {"miscdata", 1}, {"fixnv1", 1},
            {"fixnv2", 1},    {"runtimenv1", 1}, {"boot", 32},    {"recovery", 32},
            {"system", 2048}, {"vendor", 512},   {"cache", 256},  {"userdata", kRestOfStorage}};
}

const char* PhoneFaultNames() {
    return "bad-frame[@N] overrun[@N] early-end[@N] signature@PARTITION no-check-baud fdl1-misses[@N] "
           "slow[@N] unplug[@N] no-read-partition";
}

namespace {

bool ParseUint(const char* s, unsigned long long& out) {
    if (!s || !*s || *s == '-') return false;
    char* end = nullptr;
    out = std::strtoull(s, &end, 10);
    return *end == '\0';
}

bool ParsePartitions(const std::string& text, std::vector<PartitionSpec>& out) {
    out.clear();
    std::size_t at = 0;
    while (at <= text.size()) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        const std::string item = text.substr(at, comma - at);
        const std::size_t colon = item.find(':');
        if (colon == std::string::npos || colon == 0 || colon > 35) return false;
        PartitionSpec s{item.substr(0, colon), 0};
        const std::string size = item.substr(colon + 1);
        unsigned long long mib = 0;
        if (size == "rest")
            s.mib = 0xFFFFFFFF;
        else if (ParseUint(size.c_str(), mib) && mib < 0xFFFFFFFF)
            s.mib = static_cast<std::uint32_t>(mib);
        else
            return false;
        out.push_back(std::move(s));
        at = comma + 1;
    }
    return !out.empty();
}

}  // namespace

int ParsePhoneOption(const std::string& a, const char* v, PhoneConfig& config, std::string& error) {
    static const char* const kValued[] = {"--fault",       "--reenumerate",  "--absence-ms", "--slow-ms",   "--seed",
                                          "--storage-mib", "--nv-partition", "--log-frames", "--partitions"};
    if (a == "--incompatible") {
        config.incompatibleAfterFdl2 = true;
        return 1;
    }
    if (std::find(std::begin(kValued), std::end(kValued), a) == std::end(kValued)) return 0;
    if (!v) {
        error = a + " needs a value";
        return -1;
    }
    const std::string s = v;
    unsigned long long n = 0;
    if (a == "--fault") {
        auto f = ParsePhoneFault(s, error);
        if (!f) return -1;
        config.faults.push_back(*f);
    } else if (a == "--reenumerate") {
        if (s != "none" && s != "fdl1" && s != "fdl2") {
            error = "--reenumerate takes none, fdl1 or fdl2";
            return -1;
        }
        config.reenumerate = s == "fdl1" ? Reenumerate::FDL1 : s == "fdl2" ? Reenumerate::FDL2 : Reenumerate::NONE;
    } else if (a == "--absence-ms" && ParseUint(v, n) && n < 600000) {
        config.absenceMs = static_cast<std::uint32_t>(n);
    } else if (a == "--slow-ms" && ParseUint(v, n) && n < 3600000) {
        config.slowMs = static_cast<std::uint32_t>(n);
    } else if (a == "--seed" && ParseUint(v, n)) {
        config.seed = static_cast<std::uint32_t>(n);
    } else if (a == "--storage-mib" && ParseUint(v, n) && n > 0) {
        config.storageMib = n;
    } else if (a == "--nv-partition") {
        config.nvPartition = s;
    } else if (a == "--log-frames") {
        char* end = nullptr;
        config.logChance = std::strtod(v, &end);
        if (*end || !(config.logChance >= 0 && config.logChance <= 1)) {
            error = "--log-frames takes a chance from 0 to 1";
            return -1;
        }
    } else if (a == "--partitions") {
        if (!ParsePartitions(s, config.partitions)) {
            error = "--partitions takes NAME:MIB[,NAME:MIB...]";
            return -1;
        }
    } else {
        error = "bad option or value: " + a + " " + s;
        return -1;
    }
    return 2;
}

std::optional<PhoneFault> ParsePhoneFault(const std::string& text, std::string& error) {
    const std::size_t at = text.find('@');
    const std::string name = text.substr(0, at);
    const std::string arg = at == std::string::npos ? std::string() : text.substr(at + 1);
    for (const auto& f : kFaultNames) {
        if (name != f.name) continue;
        PhoneFault fault;
        fault.kind = f.kind;
        if (f.kind == PhoneFault::SIGNATURE) {
            if (arg.empty()) {
                error = "signature needs a partition: signature@NAME";
                return std::nullopt;
            }
            fault.partition = arg;
            return fault;
        }
        if (at == std::string::npos) return fault;
        if (f.kind == PhoneFault::NO_CHECK_BAUD || f.kind == PhoneFault::NO_READ_PARTITION) {
            error = name + " takes no @N";
            return std::nullopt;
        }
        char* end = nullptr;
        const unsigned long long n = std::strtoull(arg.c_str(), &end, 10);
        if (arg.empty() || *end != '\0' || arg[0] == '-' || (n == 0 && f.kind != PhoneFault::FDL1_MISSES)) {
            error = "bad count in " + text + ": want a whole number from 1";
            return std::nullopt;
        }
        fault.n = n;
        return fault;
    }
    error = "unknown fault " + name + "; known: " + PhoneFaultNames();
    return std::nullopt;
}

PhoneModel::PhoneModel(PhoneConfig config) : config_(std::move(config)), rng_(config_.seed) {
    if (config_.nv.empty()) config_.nv = FactoryCalibration(config_.seed);
    for (const PhoneFault& f : config_.faults) faults_.push_back({f, false});
    ApplyTable(config_.partitions);
    if (Region* nv = FindMutable(config_.nvPartition)) {
        // Past the image the area reads as erased flash; the image's CRC stops at its end marker.
        nv->content = MakeNvImage(config_.nv);
        nv->written = nv->content.size();
        nv->sha256 = Sha256::HexOf(nv->content);
    }
}

void PhoneModel::ApplyTable(const std::vector<PartitionSpec>& specs) {
    std::uint64_t fixed = 0;
    for (const auto& s : specs)
        if (s.mib != kRestOfStorage) fixed += s.mib;
    std::vector<Region> next;
    for (const auto& s : specs) {
        const std::uint64_t mib =
            s.mib == kRestOfStorage ? (config_.storageMib > fixed ? config_.storageMib - fixed : 0) : s.mib;
        Region r;
        r.name = s.name;
        r.size = mib * kMib;
        r.keep = SameName(s.name, config_.nvPartition);
        // A partition that keeps its name and size keeps its content.
        if (const Region* old = Find(s.name); old && old->size == r.size) r = *old;
        next.push_back(std::move(r));
    }
    partitions_ = std::move(next);
}

PhoneModel::Region* PhoneModel::FindMutable(const std::string& name) {
    for (Region& r : partitions_)
        if (SameName(r.name, name)) return &r;
    return nullptr;
}

const PhoneModel::Region* PhoneModel::Find(const std::string& name) const {
    for (const Region& r : partitions_)
        if (SameName(r.name, name)) return &r;
    for (const Region& r : loads_)
        if (r.name == name) return &r;
    return nullptr;
}

bool PhoneModel::HasFault(PhoneFault::Kind kind) const {
    return std::any_of(faults_.begin(), faults_.end(), [&](const FaultState& f) { return f.fault.kind == kind; });
}

bool PhoneModel::Fires(PhoneFault::Kind kind, std::uint64_t count, const std::string& partition) {
    for (FaultState& f : faults_) {
        if (f.spent || f.fault.kind != kind) continue;
        bool hit;
        if (kind == PhoneFault::SIGNATURE)
            hit = SameName(f.fault.partition, partition);
        else if (f.fault.n)
            hit = count >= *f.fault.n;
        else
            hit = stage_ == Stage::FDL2;
        if (!hit) continue;
        f.spent = true;
        fired_.push_back(std::string(FaultName(kind)) + (f.fault.n ? "@" + std::to_string(*f.fault.n) : ""));
        return true;
    }
    return false;
}

const std::vector<std::uint8_t>& PhoneModel::NvContent() const {
    static const Bytes none;
    const Region* nv = Find(config_.nvPartition);
    return nv ? nv->content : none;
}

bool PhoneModel::CalibrationKept() const {
    std::vector<NvItem> items;
    std::string error;
    if (!NvCrcValid(NvContent()) || !ReadNvItems(NvContent(), items, error)) return false;
    for (std::uint16_t id : config_.calibrationIds) {
        const auto want =
            std::find_if(config_.nv.begin(), config_.nv.end(), [&](const NvItem& i) { return i.id == id; });
        if (want == config_.nv.end()) continue;
        const auto got = std::find_if(items.begin(), items.end(), [&](const NvItem& i) { return i.id == id; });
        if (got == items.end() || got->data != want->data) return false;
    }
    return true;
}

void PhoneModel::HostClosed() {
    decoder_.Reset();
    missedTries_ = 0;
}

std::vector<PhoneAction> PhoneModel::Receive(std::span<const std::uint8_t> bytes) {
    std::vector<PhoneAction> out;
    if (gone_) return out;
    for (FaultState& f : faults_) {
        if (f.spent || f.fault.kind != PhoneFault::UNPLUG) continue;
        // Without a count the phone leaves in the middle of the first image chunk.
        const std::uint64_t at =
            f.fault.n ? *f.fault.n
                      : (stage_ == Stage::FDL2 && download_.active ? hostBytes_ + bytes.size() / 2 + 1 : 0);
        if (at == 0 || hostBytes_ + bytes.size() < at) continue;
        bytes = bytes.first(at - 1 > hostBytes_ ? at - 1 - hostBytes_ : 0);
        f.spent = true;
        fired_.push_back(std::string("unplug") + (f.fault.n ? "@" + std::to_string(*f.fault.n) : ""));
        gone_ = true;
    }
    hostBytes_ += bytes.size();
    decoder_.Feed(bytes);
    bool any = false;
    while (auto d = decoder_.Next()) {
        any = true;
        if (d->kind == Decoded::GARBAGE) continue;
        ++hostFrames_;
        if (d->kind != Decoded::FRAME) {
            if (synced_ || stage_ == Stage::FDL2) Reply(rep::VERIFY_ERROR, out);
            continue;
        }
        OnFrame(d->frame, out);
        if (!out.empty() && (out.back().kind == PhoneAction::REENUMERATE || out.back().kind == PhoneAction::RESET)) {
            decoder_.Reset();
            break;
        }
    }
    const bool allFlags =
        !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == kFlag; });
    if (!any && allFlags && decoder_.AtFlag() && !gone_) OnCheckBaud(out);
    if (gone_) out.push_back({PhoneAction::UNPLUG, {}, 0});
    return out;
}

void PhoneModel::OnCheckBaud(std::vector<PhoneAction>& out) {
    if (HasFault(PhoneFault::NO_CHECK_BAUD)) {
        if (stage_ == Stage::BOOT_ROM && fired_.empty()) fired_.push_back("no-check-baud");
        if (stage_ == Stage::BOOT_ROM) return;
    }
    if (stage_ == Stage::FDL1 && !synced_) {
        for (const FaultState& f : faults_) {
            if (f.fault.kind != PhoneFault::FDL1_MISSES) continue;
            const std::uint64_t misses = f.fault.n.value_or(1);
            if (missedTries_ < misses) {
                ++missedTries_;
                return;
            }
        }
    }
    synced_ = true;
    const char* text = stage_ == Stage::BOOT_ROM ? "SPRD3"
                       : stage_ == Stage::FDL1   ? "Spreadtrum Boot Block version 1.1"
                                                 : "SPRD4-fdl2";
    const std::size_t n = std::strlen(text) + 1;
    Reply(rep::VER, {reinterpret_cast<const std::uint8_t*>(text), n}, out);
}

void PhoneModel::Reply(std::uint16_t type, std::span<const std::uint8_t> payload, std::vector<PhoneAction>& out) {
    const Check check = stage_ == Stage::BOOT_ROM ? Check::BOOT_ROM_CRC : Check::LOADER_SUM;
    PhoneAction send{PhoneAction::SEND, {}, 0};
    if (config_.logChance > 0 && std::uniform_real_distribution<double>(0, 1)(rng_) < config_.logChance) {
        char text[64];
        const int n = std::snprintf(text, sizeof text, "log %llu: stage %d ~}\n",
                                    static_cast<unsigned long long>(hostFrames_), static_cast<int>(stage_));
        EncodeFrame(rep::LOG, {reinterpret_cast<const std::uint8_t*>(text), static_cast<std::size_t>(n) + 1}, check,
                    escaping_, send.bytes);
    }
    EncodeFrame(type, payload, check, escaping_, send.bytes);
    out.push_back(std::move(send));
}

void PhoneModel::OnFrame(const Frame& f, std::vector<PhoneAction>& out) {
    // The boot ROM and the first loader wait for check baud; a running second loader answers
    // at once (a host coming back after a re-enumeration may start with CONNECT).
    if (!synced_ && stage_ != Stage::FDL2) return;
    if (HasFault(PhoneFault::NO_CHECK_BAUD) && stage_ == Stage::BOOT_ROM) return;
    if (Fires(PhoneFault::SLOW, hostFrames_)) out.push_back({PhoneAction::DELAY, {}, config_.slowMs});
    if (Fires(PhoneFault::BAD_FRAME, hostFrames_)) {
        Reply(rep::VERIFY_ERROR, out);
        return;
    }
    const std::span<const std::uint8_t> p = f.payload;
    switch (f.type) {
        case cmd::CONNECT: Reply(rep::ACK, out); return;
        case cmd::START_DATA: Reply(StartData(p), out); return;
        case cmd::MIDST_DATA:
            ++midstFrames_;
            Reply(MidstData(p), out);
            return;
        case cmd::END_DATA:
            ++endFrames_;
            Reply(EndData(), out);
            return;
        case cmd::EXEC_DATA:
            if (stage_ == Stage::FDL2) break;
            if (loads_.empty() || download_.active) {
                Reply(rep::OPERATION_FAILED, out);
                return;
            }
            if (stage_ == Stage::BOOT_ROM) {
                Reply(rep::ACK, out);
                stage_ = Stage::FDL1;
                synced_ = false;
                missedTries_ = 0;
                decoder_.SetCheck(Check::LOADER_SUM);
                if (config_.reenumerate == Reenumerate::FDL1)
                    out.push_back({PhoneAction::REENUMERATE, {}, config_.absenceMs});
            } else {
                Reply(config_.incompatibleAfterFdl2 ? rep::INCOMPATIBLE_PARTITION : rep::ACK, out);
                stage_ = Stage::FDL2;
                if (config_.reenumerate == Reenumerate::FDL2)
                    out.push_back({PhoneAction::REENUMERATE, {}, config_.absenceMs});
            }
            return;
        case cmd::NORMAL_RESET:
        case cmd::POWER_OFF:
            if (stage_ == Stage::BOOT_ROM) break;
            Reply(rep::ACK, out);
            Reboot();
            out.push_back({PhoneAction::RESET, {}, 0});
            return;
        default: break;
    }
    if (stage_ != Stage::FDL2) {
        Reply(rep::UNKNOWN_CMD, out);
        return;
    }
    switch (f.type) {
        case cmd::DISABLE_TRANSCODE:
            Reply(rep::ACK, out);
            escaping_ = false;
            decoder_.SetEscaping(false);
            return;
        case cmd::READ_PARTITION:
            if (HasFault(PhoneFault::NO_READ_PARTITION)) {
                Fires(PhoneFault::NO_READ_PARTITION, hostFrames_);
                Reply(rep::UNSUPPORTED, out);
                return;
            }
            Reply(rep::PARTITION_TABLE, PartitionTable(), out);
            return;
        case cmd::REPARTITION: Reply(Repartition(p), out); return;
        case cmd::ERASE_FLASH: Reply(Erase(p), out); return;
        case cmd::READ_START: ReadStart(p, out); return;
        case cmd::READ_MIDST: ReadMidst(p, out); return;
        case cmd::READ_END:
            reading_ = {};
            Reply(rep::ACK, out);
            return;
        default: Reply(rep::UNKNOWN_CMD, out); return;
    }
}

std::uint16_t PhoneModel::StartData(std::span<const std::uint8_t> p) {
    download_ = {};
    Download d;
    if (p.size() == 8) {
        const std::uint32_t address = Be32(p, 0);
        d.announced = Be32(p, 4);
        char name[16];
        std::snprintf(name, sizeof name, "@0x%08x", address);
        d.target = name;
        if (stage_ != Stage::FDL2 && d.announced > kMaxLoaderBytes) return rep::DOWN_SIZE_ERROR;
    } else if (stage_ == Stage::FDL2 && (p.size() == kEntryBytes || p.size() == kEntryBytes + 4 ||
                                         p.size() == kLongEntryBytes || p.size() == kLongEntryBytes + 4)) {
        d.partitionForm = true;
        d.target = ReadName(p);
        d.announced = Le32(p, kNameBytes);
        std::size_t sumAt = kEntryBytes;
        if (p.size() >= kLongEntryBytes) {
            d.announced |= std::uint64_t{Le32(p, kEntryBytes)} << 32;
            sumAt = kLongEntryBytes;
        }
        if (p.size() == sumAt + 4) d.byteSum = Le32(p, sumAt);
        const Region* r = Find(d.target);
        if (!r || !d.partitionForm) return rep::DOWN_DEST_ERROR;
        if (d.announced > r->size) return rep::DOWN_SIZE_ERROR;
        d.target = r->name;
    } else {
        return rep::INVALID_CMD;
    }
    d.active = true;
    download_ = std::move(d);
    return rep::ACK;
}

std::uint16_t PhoneModel::MidstData(std::span<const std::uint8_t> p) {
    if (!download_.active) return rep::DOWN_NOT_START;
    if (Fires(PhoneFault::OVERRUN, midstFrames_)) return rep::DOWN_SIZE_ERROR;
    if (download_.received + p.size() > download_.announced) return rep::DOWN_SIZE_ERROR;
    const Region* r = download_.partitionForm ? Find(download_.target) : nullptr;
    if (r && r->keep) download_.data.insert(download_.data.end(), p.begin(), p.end());
    download_.sha.Update(p);
    for (std::uint8_t b : p) download_.runningSum += b;
    if (download_.partitionForm && writeSink_) writeSink_(download_.target, download_.received, p);
    download_.received += p.size();
    return rep::ACK;
}

std::uint16_t PhoneModel::EndData() {
    if (!download_.active) return rep::DOWN_NOT_START;
    Download d = std::move(download_);
    download_ = {};
    if (Fires(PhoneFault::EARLY_END, endFrames_)) return rep::DOWN_EARLY_END;
    if (d.received < d.announced) return rep::DOWN_EARLY_END;
    if (d.partitionForm && Fires(PhoneFault::SIGNATURE, endFrames_, d.target)) return rep::SIGNATURE_REFUSED;
    if (d.byteSum) {
        // Byte order of the appended sum is not settled: accept either.
        const std::uint32_t s = d.runningSum;
        const std::uint32_t swapped = (s >> 24) | ((s >> 8) & 0xFF00) | ((s << 8) & 0xFF0000) | (s << 24);
        if (*d.byteSum != s && *d.byteSum != swapped) return rep::CHECKSUM_ERROR;
    }
    Region* r = nullptr;
    if (d.partitionForm) {
        r = FindMutable(d.target);
    } else {
        auto it = std::find_if(loads_.begin(), loads_.end(), [&](const Region& x) { return x.name == d.target; });
        if (it == loads_.end()) {
            loads_.push_back(Region{});
            loads_.back().name = d.target;
            it = loads_.end() - 1;
        }
        r = &*it;
        r->size = d.announced;
    }
    if (!r) return rep::DOWN_DEST_ERROR;
    r->written = d.received;
    r->sha256 = d.sha.Hex();
    r->erased = false;
    ++r->writes;
    if (r->keep) r->content = std::move(d.data);
    return rep::ACK;
}

void PhoneModel::EraseRegion(Region& r) {
    r.written = 0;
    r.sha256.clear();
    r.erased = true;
    r.content.clear();
    if (eraseSink_) eraseSink_(r.name);
}

std::uint16_t PhoneModel::Erase(std::span<const std::uint8_t> p) {
    if (p.size() == 8) {
        // Address form: only "everything" (address 0, all ones) is modelled.
        if (Be32(p, 0) == 0 && Be32(p, 4) == 0xFFFFFFFF) {
            for (Region& r : partitions_) EraseRegion(r);
            return rep::ACK;
        }
        return rep::DOWN_DEST_ERROR;
    }
    if (p.size() != kEntryBytes && p.size() != kLongEntryBytes) return rep::INVALID_CMD;
    Region* r = FindMutable(ReadName(p));
    if (!r) return rep::DOWN_DEST_ERROR;
    if (Le32(p, kNameBytes) > r->size) return rep::DOWN_SIZE_ERROR;
    EraseRegion(*r);
    return rep::ACK;
}

std::uint16_t PhoneModel::Repartition(std::span<const std::uint8_t> p) {
    if (p.empty() || p.size() % kEntryBytes) return rep::INVALID_CMD;
    std::vector<PartitionSpec> specs;
    std::uint64_t fixed = 0;
    int rest = 0;
    for (std::size_t at = 0; at < p.size(); at += kEntryBytes) {
        PartitionSpec s{ReadName(p.subspan(at, kNameBytes)), Le32(p, at + kNameBytes)};
        if (s.name.empty()) return rep::INVALID_CMD;
        if (s.mib == kRestOfStorage)
            ++rest;
        else
            fixed += s.mib;
        specs.push_back(std::move(s));
    }
    if (fixed > config_.storageMib || rest > 1) return rep::DOWN_SIZE_ERROR;
    ApplyTable(specs);
    return rep::ACK;
}

void PhoneModel::ReadStart(std::span<const std::uint8_t> p, std::vector<PhoneAction>& out) {
    reading_ = {};
    if (p.size() != kEntryBytes && p.size() != kLongEntryBytes) return Reply(rep::INVALID_CMD, out);
    const Region* r = Find(ReadName(p));
    if (!r) return Reply(rep::DOWN_DEST_ERROR, out);
    std::uint64_t size = Le32(p, kNameBytes);
    if (p.size() == kLongEntryBytes) size |= std::uint64_t{Le32(p, kEntryBytes)} << 32;
    if (size > r->size) return Reply(rep::DOWN_SIZE_ERROR, out);
    // Only the NV area keeps its bytes; the rest are hashed on the fly.
    if (!r->keep) return Reply(rep::OPERATION_FAILED, out);
    reading_ = {true, r->name, size};
    Reply(rep::ACK, out);
}

void PhoneModel::ReadMidst(std::span<const std::uint8_t> p, std::vector<PhoneAction>& out) {
    if (!reading_.active) return Reply(rep::DOWN_NOT_START, out);
    if (p.size() != 8) return Reply(rep::INVALID_CMD, out);
    const std::uint64_t length = Le32(p, 0);
    const std::uint64_t offset = Le32(p, 4);
    if (length > kMaxPayload || offset + length > reading_.size) return Reply(rep::DOWN_SIZE_ERROR, out);
    const Region* r = Find(reading_.target);
    Bytes data(length, 0xFF);  // past the written image the area reads as erased flash
    if (r && offset < r->content.size()) {
        const std::size_t n = std::min<std::uint64_t>(length, r->content.size() - offset);
        std::copy_n(r->content.begin() + static_cast<std::ptrdiff_t>(offset), n, data.begin());
    }
    Reply(rep::READ_DATA, data, out);
}

Bytes PhoneModel::PartitionTable() const {
    Bytes out;
    for (const Region& r : partitions_) {
        PutName(out, r.name);
        PutLe32(out, static_cast<std::uint32_t>(r.size / kMib));
    }
    return out;
}

void PhoneModel::Reboot() {
    stage_ = Stage::BOOT_ROM;
    synced_ = false;
    escaping_ = true;
    decoder_.SetCheck(Check::BOOT_ROM_CRC);
    decoder_.SetEscaping(true);
    download_ = {};
    reading_ = {};
    ++resets_;
}

std::string PhoneModel::ReportJson() const {
    using platform::JsonQuote;
    auto region = [](const Region& r) {
        return "{\"name\":" + JsonQuote(r.name) + ",\"size\":" + std::to_string(r.size) +
               ",\"written\":" + std::to_string(r.written) + ",\"sha256\":" + JsonQuote(r.sha256) +
               ",\"writes\":" + std::to_string(r.writes) + ",\"erased\":" + (r.erased ? "true" : "false") + "}";
    };
    std::string s = "{\"stage\":";
    s += stage_ == Stage::BOOT_ROM ? "\"boot-rom\"" : stage_ == Stage::FDL1 ? "\"fdl1\"" : "\"fdl2\"";
    s += ",\"resets\":" + std::to_string(resets_) + ",\"unplugged\":" + (gone_ ? "true" : "false");
    s += ",\"loads\":[";
    for (std::size_t i = 0; i < loads_.size(); ++i) s += (i ? "," : "") + region(loads_[i]);
    s += "],\"partitions\":[";
    for (std::size_t i = 0; i < partitions_.size(); ++i) s += (i ? "," : "") + region(partitions_[i]);
    const Bytes& nv = NvContent();
    s += "],\"nv\":{\"partition\":" + JsonQuote(config_.nvPartition) + ",\"bytes\":" + std::to_string(nv.size()) +
         ",\"sha256\":" + JsonQuote(Sha256::HexOf(nv)) +
         ",\"calibration\":" + (CalibrationKept() ? "\"kept\"" : "\"lost\"") +
         ",\"hex\":" + JsonQuote(Hex(TrimErased(nv))) + "}";
    s += ",\"faults_fired\":[";
    for (std::size_t i = 0; i < fired_.size(); ++i) s += (i ? "," : "") + JsonQuote(fired_[i]);
    s += "]}\n";
    return s;
}

}  // namespace quorvel::sprd
