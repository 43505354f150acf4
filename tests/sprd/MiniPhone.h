#pragma once
// A small scripted SPRD phone for the engine's tests: listens on a Unix socket, answers
// the download protocol from memory, and lets a test replace any reply. Its own thread.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sprd/Codes.h"
#include "sprd/Frame.h"

namespace quorvel::test {

class MiniPhone {
public:
    using Bytes = std::vector<std::uint8_t>;
    // What a hook makes of one host frame: the usual reply, another reply type, or a fault.
    enum Act { NORMAL = -1, UNPLUG = -2, GARBAGE = -3, SILENT = -4 };
    struct Seen {
        std::uint16_t type;
        std::string partition;  // START_DATA / ERASE_FLASH / READ_START in the partition form
        std::size_t index;      // frames of this type so far
    };

    explicit MiniPhone(std::string path) : path_(std::move(path)) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ::listen(fd_, 4);
        partitions = {{"fixnv1", 1 << 20}, {"boot", 4 << 20}, {"system", 8 << 20}, {"userdata", 8 << 20}};
    }
    ~MiniPhone() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    void Start() {
        thread_ = std::thread([this] { Serve(); });
    }

    // Set before Start().
    std::map<std::string, std::size_t> partitions;  // name -> bytes
    std::function<int(const Seen&)> hook;
    bool reenumerateAfterFdl = false;
    bool answerCheckBaud = true;
    Bytes nv;  // the NV partition's content

    std::map<std::string, Bytes> Written() {
        std::lock_guard<std::mutex> lock(mutex_);
        return written_;
    }
    std::vector<std::uint16_t> Commands() {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }
    Bytes NvStartData() {
        std::lock_guard<std::mutex> lock(mutex_);
        return nvStart_;
    }

private:
    static std::string Name(const Bytes& p) {
        std::string s;
        for (std::size_t i = 0; i + 1 < p.size() && i < 72 && p[i]; i += 2) s += static_cast<char>(p[i]);
        return s;
    }
    static std::uint32_t Le32(const std::uint8_t* p) {
        return p[0] | p[1] << 8 | p[2] << 16 | std::uint32_t(p[3]) << 24;
    }

    void Reply(int client, std::uint16_t type, const Bytes& payload = {}) {
        const auto check = loader_ ? sprd::Check::LOADER_SUM : sprd::Check::BOOT_ROM_CRC;
        const Bytes wire = sprd::EncodeFrame(type, payload, check, escaping_);
        ::send(client, wire.data(), wire.size(), MSG_NOSIGNAL);
    }

    void Serve() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            const int client = ::accept(fd_, nullptr, nullptr);
            if (client < 0) continue;
            escaping_ = true;
            decoder_ = sprd::FrameDecoder(sprd::Check::DETECT);
            const bool reenumerate = Talk(client);
            ::close(client);
            if (reenumerate) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    // True when the phone closed the line to re-enumerate.
    bool Talk(int client) {
        std::uint8_t buf[70000];
        while (!stop_) {
            pollfd p{client, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = ::read(client, buf, sizeof buf);
            if (n <= 0) return false;
            const bool flagsOnly = std::all_of(buf, buf + n, [](std::uint8_t b) { return b == sprd::kFlag; });
            if (flagsOnly && !synced_ && !decoder_.InFrame() && answerCheckBaud) {
                const char* ver = loader_ ? "SPRD4 loader" : "SPRD3";
                Reply(client, sprd::rep::VER, Bytes(ver, ver + std::strlen(ver) + 1));
            }
            decoder_.Feed(std::span<const std::uint8_t>(buf, static_cast<std::size_t>(n)));
            while (auto d = decoder_.Next()) {
                if (d->kind != sprd::Decoded::FRAME) {
                    Reply(client, sprd::rep::VERIFY_ERROR);
                    continue;
                }
                const int r = Handle(client, d->frame);
                if (r == UNPLUG) return false;
                if (r == 1) return true;
            }
        }
        return false;
    }

    int Handle(int client, const sprd::Frame& f) {
        using namespace sprd;
        const Bytes& p = f.payload;
        Seen seen{f.type, "", counts_[f.type]++};
        if ((f.type == cmd::START_DATA || f.type == cmd::ERASE_FLASH || f.type == cmd::READ_START) && p.size() >= 76)
            seen.partition = Name(p);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_.push_back(f.type);
        }
        const int act = hook ? hook(seen) : NORMAL;
        if (act == UNPLUG) return UNPLUG;
        if (act == SILENT) return 0;
        if (act == GARBAGE) {
            const std::uint8_t junk[] = {1, 2, 3, 0x7e, 0x00, 0x80, 0x7e};
            ::send(client, junk, sizeof junk, MSG_NOSIGNAL);
            return 0;
        }
        if (act >= 0) {
            Reply(client, static_cast<std::uint16_t>(act));
            return 0;
        }
        switch (f.type) {
            case cmd::START_DATA:
                target_ = p.size() >= 76
                              ? Name(p)
                              : "@" + std::to_string(std::uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]);
                announced_ =
                    p.size() >= 76 ? Le32(&p[72]) : (std::uint32_t(p[4]) << 24 | p[5] << 16 | p[6] << 8 | p[7]);
                if (p.size() >= 76 && partitions.count(target_) && announced_ > partitions[target_])
                    return Reply(client, rep::DOWN_SIZE_ERROR), 0;
                if (p.size() == 80) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    nvStart_ = p;
                }
                data_.clear();
                break;
            case cmd::MIDST_DATA:
                if (data_.size() + p.size() > announced_) return Reply(client, rep::DOWN_SIZE_ERROR), 0;
                data_.insert(data_.end(), p.begin(), p.end());
                break;
            case cmd::END_DATA: {
                if (data_.size() != announced_) return Reply(client, rep::DOWN_EARLY_END), 0;
                std::lock_guard<std::mutex> lock(mutex_);
                written_[target_] = data_;
                if (target_ == "fixnv1") nv = data_;
                break;
            }
            case cmd::CONNECT: synced_ = true; break;
            case cmd::EXEC_DATA:
                Reply(client, rep::ACK);
                loader_ = true;
                synced_ = false;
                return reenumerateAfterFdl ? 1 : 0;
            case cmd::READ_PARTITION: {
                Bytes t;
                for (const auto& [name, size] : partitions) {
                    for (std::size_t i = 0; i < 36; ++i) {
                        t.push_back(i < name.size() ? static_cast<std::uint8_t>(name[i]) : 0);
                        t.push_back(0);
                    }
                    const std::uint32_t mib = static_cast<std::uint32_t>(size >> 20);
                    for (int i = 0; i < 4; ++i) t.push_back(static_cast<std::uint8_t>(mib >> (8 * i)));
                }
                return Reply(client, rep::PARTITION_TABLE, t), 0;
            }
            case cmd::READ_MIDST: {
                const std::uint32_t len = Le32(&p[0]), off = Le32(&p[4]);
                Bytes out(len, 0xFF);
                for (std::uint32_t i = 0; i < len && off + i < nv.size(); ++i) out[i] = nv[off + i];
                return Reply(client, rep::READ_DATA, out), 0;
            }
            case cmd::ERASE_FLASH: {
                std::lock_guard<std::mutex> lock(mutex_);
                written_.erase(seen.partition);
                break;
            }
            case cmd::DISABLE_TRANSCODE:
                Reply(client, rep::ACK);
                escaping_ = false;
                decoder_.SetEscaping(false);
                return 0;
            default: break;
        }
        Reply(client, rep::ACK);
        return 0;
    }

    std::string path_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::map<std::string, Bytes> written_;
    std::vector<std::uint16_t> commands_;
    Bytes nvStart_;
    // The serving thread's own state.
    sprd::FrameDecoder decoder_{sprd::Check::DETECT};
    bool loader_ = false, escaping_ = true, synced_ = false;
    std::map<std::uint16_t, std::size_t> counts_;
    std::string target_;
    std::uint32_t announced_ = 0;
    Bytes data_;
};

}  // namespace quorvel::test
