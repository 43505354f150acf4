#pragma once
// quorvel-history --collect: gathers the jobs stations publish to a broker into a folder
// of JSON Lines, one file per station and day, each job once.

#include <string>

struct CollectOptions {
    std::string broker;  // mqtt://host[:port] or mqtts://host[:port]
    std::string folder;
    std::string user;
    std::string passwordFile;
    std::string caFile;
    std::string clientId;  // empty: one fixed for this host and folder
};

// Runs until SIGINT or SIGTERM; the tool's exit status. Call from main before any other
// thread exists: it takes the two signals for itself.
int RunCollect(const CollectOptions& options);
