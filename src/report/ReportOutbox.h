#pragma once
// The job history as the reporter's outbox: the jobs after the broker's last
// acknowledged one, in history order. The mark (the day file and the byte just after
// the last acknowledged line) is kept in TestLog/report-acked.json, replaced atomically,
// so a restart publishes again exactly what the broker may not have.
// Reporter thread only; the history files may be appended to meanwhile.

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::report {

struct OutboxJob {
    app::JobRecord record;
    std::string line;  // the record as the file holds it, without "\n"
    std::uint64_t ticket = 0;
};

class ReportOutbox {
public:
    // Without a readable mark the outbox starts at `today`'s file (yyyymmdd): turning
    // reporting on does not send a station's whole past.
    ReportOutbox(std::string testLogDir, int today);

    // The next jobs not yet handed out since the last Rewind, at most `max`, in order.
    std::vector<OutboxJob> Next(std::size_t max);
    // Every job after the mark is handed out again (a new connection).
    void Rewind();
    // The broker acknowledged the job of `ticket`; the mark moves over the run of
    // acknowledged jobs that follows it, never past one still unacknowledged.
    void Acknowledge(std::uint64_t ticket);
    // Handed out and not yet acknowledged.
    std::size_t InFlight() const { return inFlight_.size(); }
    // Writes the mark when it moved since the last save; false when the write failed.
    bool Save();

    struct Position {
        int day = 0;
        std::uint64_t offset = 0;
        bool operator==(const Position&) const = default;
    };
    Position Mark() const { return mark_; }
    std::string MarkPath() const { return dir_ + "/report-acked.json"; }

private:
    std::vector<int> DaysFrom(int day) const;

    std::string dir_;
    Position mark_, saved_, read_;
    std::string lastAckedId_;
    struct Sent {
        std::uint64_t ticket;
        Position end;
        std::string id;
        bool acked = false;
    };
    std::deque<Sent> inFlight_;
    std::uint64_t nextTicket_ = 1;
};

}  // namespace quorvel::report
