#pragma once
// The binding of USB sockets to the 16 download slots. Written by the station
// thread (binding, commands, Stop) and by each slot's own worker; each entry is
// read and written whole, so no reader ever sees a half-changed location.

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "station/BindState.h"

namespace quorvel::app {

inline constexpr int kSlotCount = 16;
inline constexpr const char* kUnbound = "NA";
inline constexpr std::size_t kLocationMax = 259;

class BindingTable {
public:
    std::string HsLocation(int slot) const;
    std::string LsLocation(int slot) const;
    std::string ComName(int slot) const;
    void SetHsLocation(int slot, std::string text);
    void SetLsLocation(int slot, std::string text);
    void SetComName(int slot, std::string text);

    BindState State(int slot) const { return state_.at(Index(slot)).load(); }
    void SetState(int slot, BindState state) { state_.at(Index(slot)).store(state); }
    // Atomically replaces `expected` by `state`; false when the state was something else.
    bool ChangeState(int slot, BindState expected, BindState state) {
        return state_.at(Index(slot)).compare_exchange_strong(expected, state);
    }

    // All three texts of a slot, read together.
    struct Entry {
        std::string hs, ls, com;
        BindState state = BindState::Idle;
    };
    Entry Get(int slot) const;

private:
    static std::size_t Index(int slot);

    mutable std::mutex mutex_;  // guards the texts
    std::array<std::string, kSlotCount> hs_{}, ls_{}, com_{};
    std::array<std::atomic<BindState>, kSlotCount> state_{};
};

// Where a slot's CFG job stands in this run.
enum class FpJobState : std::int32_t { None = 0, Running = 1, Finished = 2 };

// Further per-slot tables, all zero at start.
struct SlotTables {
    std::array<std::atomic<bool>, kSlotCount> rowShown{};  // SlotRowShown
    std::array<std::atomic<FpJobState>, kSlotCount> fpJob{};
    std::array<std::atomic<std::int64_t>, kSlotCount> startTime{};  // SlotStartTime, UTC seconds
    // An engine job runs on the slot now (a CFG slot stays BUSY after its job).
    std::array<std::atomic<bool>, kSlotCount> jobRunning{};
};

}  // namespace quorvel::app
