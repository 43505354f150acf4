#pragma once
// Where the simulated phone waits for its host: a Unix socket (one connection at a time,
// accepting again after each) or a pseudo-terminal whose slave name is linked at a path.
// Closing the endpoint is the phone leaving the bus; opening it again is its return.
// Threads: the program's one thread.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/UniqueFd.h"

namespace quorvel::sprdphone {

class Endpoint {
public:
    // `where` is unix:PATH or pty:PATH; `stopFd` becomes readable when the program must end.
    Endpoint(std::string where, int stopFd) : where_(std::move(where)), stopFd_(stopFd) {}
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    static bool Valid(const std::string& where);
    const std::string& Where() const { return where_; }

    // Appear on the path. False with `error` set.
    bool Open(std::string& error);
    // Leave: drop the connection and remove the path.
    void Close();
    // Waits for a host (unix) or returns at once (pty). False when stopped or `timeoutMs` (-1: none) passed.
    bool Accept(int timeoutMs = -1);
    // Drops the current host; a unix endpoint accepts again, a pty stays as it is.
    void Hangup();
    bool Connected() const { return conn_.valid(); }

    // Reads what is there, waiting up to `timeoutMs` (-1: none). >0 bytes, 0 host closed,
    // -1 stopped or timed out (see Stopped()).
    long Read(std::span<std::uint8_t> buf, int timeoutMs = -1);
    // Writes everything; false when the host went away or the program is stopping.
    bool Write(std::span<const std::uint8_t> bytes);
    // Waits `ms`, returning early (false) only when stopping.
    bool Pause(int ms);
    bool Stopped() const;

private:
    bool IsPty() const { return where_.rfind("pty:", 0) == 0; }
    std::string Path() const { return where_.substr(4); }

    std::string where_;
    int stopFd_;
    platform::UniqueFd listen_;     // unix: the listening socket
    platform::UniqueFd conn_;       // unix: the host's connection; pty: the master
    platform::UniqueFd heldSlave_;  // pty: kept open so a host closing the slave does not hang the master up
};

}  // namespace quorvel::sprdphone
