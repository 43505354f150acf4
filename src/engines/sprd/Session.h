#pragma once
// One phone's flash over a transport: boot ROM, first loader, second loader, partition
// table, NV backup, repartition, erase entries and images in the plan's order, NV merged
// and written, reset. Every wait is bounded; every fault ends the session with an error
// that names the step and what the phone said.
// Threads: Run() on one thread, which also receives every observer call.

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "engines/sprd/Frame.h"
#include "engines/sprd/Plan.h"
#include "engines/sprd/Transport.h"

namespace quorvel::sprd {

// The SPRD step numbers of the engine line protocol.
namespace step {
inline constexpr int CHECK_BAUD = 1;
inline constexpr int CONNECT = 2;
inline constexpr int ERASE = 3;
inline constexpr int DOWNLOAD = 4;
inline constexpr int READ_FLASH = 5;
inline constexpr int RESET = 6;
inline constexpr int READ_NV = 8;
inline constexpr int FINISH = 10;
}  // namespace step

class SessionObserver {
public:
    virtual ~SessionObserver() = default;
    virtual void Step(int number) = 0;
    virtual void Status(const std::string& text) = 0;
    // Bytes of the current file.
    virtual void Progress(std::uint64_t done, std::uint64_t total) = 0;
    virtual void Log(const std::string& text) = 0;
};

struct SessionOptions {
    enum Phase { PHASE1, PHASE2, ALL };
    Phase phase = ALL;
    int replyMs = 15000;        // a reply
    int eraseMs = 60000;        // ERASE_FLASH and REPARTITION: erasing everything takes long
    int baudTries = 10;         // check baud to a loader
    int baudIntervalMs = 1000;  // between check-baud tries
    int reenumerateMs = 30000;  // a phone gone after a loader runs comes back within this
    std::size_t chunk = 4096;   // image bytes per MIDST_DATA (even)
    bool disableTranscode = true;
};

struct PhonePartition {
    std::string name;
    std::uint64_t bytes = 0;
};

class Session {
public:
    Session(Transport& transport, const Plan& plan, SessionOptions options, SessionObserver& observer);
    bool Run();
    const std::string& Error() const { return error_; }

private:
    struct Failure {
        std::string text;
    };
    enum class Wait { FRAME, TIMEOUT, GONE };

    void PhaseOne();
    void PhaseTwo(bool sameProcess);
    void CheckBaud(bool bootRom);
    void ConnectLoader();
    void LoadLoader(const Loader& loader, const char* name, std::size_t chunk, bool second);
    void ReadPartitionTable();
    std::vector<std::uint8_t> BackUpNv(const PlanStep& nv);
    void Repartition();
    void Erase(const PlanStep& s);
    void Download(const PlanStep& s, const std::vector<std::uint8_t>* content);
    void Reset();

    void Send(std::uint16_t type, std::span<const std::uint8_t> payload);
    Wait Receive(Frame& out, int timeoutMs, bool tolerateGarbage);
    Frame Command(std::uint16_t type, std::span<const std::uint8_t> payload, int timeoutMs);
    void Ack(std::uint16_t type, std::span<const std::uint8_t> payload, int timeoutMs);
    void Reconnect();
    // Drops whatever arrives until the line is quiet for `quietMs`.
    void Drain(int quietMs);
    [[noreturn]] void Fail(const std::string& why) const;
    void Begin(int stepNumber, const std::string& what);
    const PhonePartition* PhonePart(const std::string& name) const;

    Transport& transport_;
    const Plan& plan_;
    SessionOptions options_;
    SessionObserver& observer_;
    FrameDecoder decoder_{Check::DETECT};
    Check sendCheck_ = Check::BOOT_ROM_CRC;
    bool escape_ = true;
    std::string what_;  // the step in words: "Downloading system"
    std::string error_;
    std::vector<std::uint8_t> out_, in_, chunk_;
    bool lateVer_ = false;  // VER frames may still come after check baud
    bool haveTable_ = false;
    std::vector<PhonePartition> table_;
};

// The 76-byte partition form: name in UTF-16LE, 36 code units, zero-padded, then u32 LE.
void PutPartitionName(const std::string& name, std::vector<std::uint8_t>& out);

}  // namespace quorvel::sprd
