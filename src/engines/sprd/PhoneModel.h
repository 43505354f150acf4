#pragma once
// The simulated SPRD phone as a state machine without I/O: boot ROM, first and second
// loader, partitions, an NV area with calibration, and faults on request. Host bytes go in,
// actions (bytes to send, pauses, disconnects) come out, so tests drive it in-process and
// quorvel-sprd-phone puts it behind a socket or a pseudo-terminal.
// Threads: one thread owns a PhoneModel and calls everything on it.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "engines/sprd/Frame.h"
#include "engines/sprd/NvImage.h"
#include "engines/sprd/Sha256.h"

namespace quorvel::sprd {

struct PartitionSpec {
    std::string name;
    std::uint32_t mib = 0;  // 0xFFFFFFFF: the rest of the storage
};

// The built-in table of a fresh phone, before any repartition.
std::vector<PartitionSpec> DefaultPartitions();

// One requested fault: NAME or NAME@ARG, as given to --fault.
struct PhoneFault {
    enum Kind {
        BAD_FRAME,          // a host frame answered 0x8B
        OVERRUN,            // a data chunk answered 0x8A
        EARLY_END,          // an END_DATA answered 0x88
        SIGNATURE,          // END_DATA of partition ARG answered 0xA6
        NO_CHECK_BAUD,      // the boot ROM never answers
        FDL1_MISSES,        // the first loader ignores the first N check-baud tries (default 1)
        SLOW,               // a reply held back longer than the engine waits
        UNPLUG,             // gone after N host bytes
        NO_READ_PARTITION,  // an older second loader: READ_PARTITION answered 0xFE
    };
    Kind kind = BAD_FRAME;
    std::optional<std::uint64_t> n;  // counted over the phone's life from 1; none: first after the second loader runs
    std::string partition;           // SIGNATURE
};
// Parses "name[@N]"; nullopt with `error` set for an unknown name or a bad N.
std::optional<PhoneFault> ParsePhoneFault(const std::string& text, std::string& error);
const char* PhoneFaultNames();

enum class Reenumerate { NONE, FDL1, FDL2 };

struct PhoneConfig {
    std::vector<PartitionSpec> partitions = DefaultPartitions();
    std::uint64_t storageMib = 8192;
    std::string nvPartition = "fixnv1";
    std::vector<NvItem> nv;                              // factory NV items; empty: built-in calibration
    std::vector<std::uint16_t> calibrationIds = {2, 5};  // items that must survive a flash
    std::vector<PhoneFault> faults;
    double logChance = 0;  // chance of a log frame before each reply
    std::uint32_t seed = 1;
    Reenumerate reenumerate = Reenumerate::NONE;
    std::uint32_t slowMs = 20000;
    std::uint32_t absenceMs = 300;
    bool incompatibleAfterFdl2 = false;  // EXEC of the second loader answered 0x96
};

// One of quorvel-sprd-phone's options that shape the phone (--fault, --reenumerate,
// --absence-ms, --slow-ms, --seed, --storage-mib, --nv-partition, --log-frames,
// --partitions, --incompatible), so the program and the tests' dialogues take the same
// words. `value` is the next argument or null. Returns how many arguments it took (1 or
// 2), 0 when `name` is none of these, -1 with `error` for a missing or bad value.
int ParsePhoneOption(const std::string& name, const char* value, PhoneConfig& config, std::string& error);

struct PhoneAction {
    enum Kind {
        SEND,         // bytes to the host
        DELAY,        // wait ms before the next action
        REENUMERATE,  // close the connection, be absent ms, accept again
        UNPLUG,       // close the connection and stay gone
        RESET,        // the phone rebooted (NORMAL_RESET or POWER_OFF acknowledged)
    };
    Kind kind = SEND;
    std::vector<std::uint8_t> bytes;
    std::uint32_t ms = 0;
};

class PhoneModel {
public:
    enum class Stage { BOOT_ROM, FDL1, FDL2 };

    explicit PhoneModel(PhoneConfig config);

    // Host bytes in, in arrival order; a read made only of flags is a check-baud try.
    std::vector<PhoneAction> Receive(std::span<const std::uint8_t> bytes);
    // The host closed its end: a half-read frame is dropped, everything else persists.
    void HostClosed();

    // Called for every accepted data chunk of a partition (offset within it); --dump uses it.
    using WriteSink =
        std::function<void(const std::string& partition, std::uint64_t offset, std::span<const std::uint8_t> data)>;
    using EraseSink = std::function<void(const std::string& partition)>;
    void SetSinks(WriteSink write, EraseSink erase) {
        writeSink_ = std::move(write);
        eraseSink_ = std::move(erase);
    }

    Stage GetStage() const { return stage_; }
    bool Escaping() const { return escaping_; }
    bool CalibrationKept() const;
    const std::vector<std::uint8_t>& NvContent() const;
    // What was written where, as one JSON object (see docs/sprd-engine.md).
    std::string ReportJson() const;

    struct Region {
        std::string name;
        std::uint64_t size = 0;     // bytes (partitions) or the announced size (address loads)
        std::uint64_t written = 0;  // bytes of the last completed download
        std::string sha256;         // of those bytes; empty when none
        std::uint32_t writes = 0;
        bool erased = false;
        bool keep = false;  // content kept in memory (the NV area)
        std::vector<std::uint8_t> content;
    };
    const Region* Find(const std::string& name) const;

private:
    struct FaultState {
        PhoneFault fault;
        bool spent = false;
    };
    struct Download {
        bool active = false;
        bool partitionForm = false;
        std::string target;
        std::uint64_t announced = 0;
        std::uint64_t received = 0;
        Sha256 sha;
        std::vector<std::uint8_t> data;  // kept regions only
        std::optional<std::uint32_t> byteSum;
        std::uint32_t runningSum = 0;
    };
    struct Reading {
        bool active = false;
        std::string target;
        std::uint64_t size = 0;
    };

    void OnFrame(const Frame& f, std::vector<PhoneAction>& out);
    void OnCheckBaud(std::vector<PhoneAction>& out);
    void Reply(std::uint16_t type, std::span<const std::uint8_t> payload, std::vector<PhoneAction>& out);
    void Reply(std::uint16_t type, std::vector<PhoneAction>& out) { Reply(type, {}, out); }
    bool Fires(PhoneFault::Kind kind, std::uint64_t count, const std::string& partition = {});
    bool HasFault(PhoneFault::Kind kind) const;
    std::uint16_t StartData(std::span<const std::uint8_t> p);
    std::uint16_t MidstData(std::span<const std::uint8_t> p);
    std::uint16_t EndData();
    std::uint16_t Erase(std::span<const std::uint8_t> p);
    std::uint16_t Repartition(std::span<const std::uint8_t> p);
    void ReadStart(std::span<const std::uint8_t> p, std::vector<PhoneAction>& out);
    void ReadMidst(std::span<const std::uint8_t> p, std::vector<PhoneAction>& out);
    std::vector<std::uint8_t> PartitionTable() const;
    Region* FindMutable(const std::string& name);
    void ApplyTable(const std::vector<PartitionSpec>& specs);
    void EraseRegion(Region& r);
    void Reboot();

    PhoneConfig config_;
    Stage stage_ = Stage::BOOT_ROM;
    bool synced_ = false;
    bool escaping_ = true;
    std::uint32_t missedTries_ = 0;
    FrameDecoder decoder_;
    std::vector<Region> partitions_;
    std::vector<Region> loads_;  // address-form downloads
    Download download_;
    Reading reading_;
    std::vector<FaultState> faults_;
    std::vector<std::string> fired_;
    std::uint64_t hostBytes_ = 0;
    std::uint64_t hostFrames_ = 0;
    std::uint64_t midstFrames_ = 0;
    std::uint64_t endFrames_ = 0;
    std::uint32_t resets_ = 0;
    bool gone_ = false;
    std::mt19937 rng_;
    WriteSink writeSink_;
    EraseSink eraseSink_;
};

}  // namespace quorvel::sprd
