// The simulated SPRD phone's cost per image byte, which bounds how many phones one PC can
// simulate at a given rate: the whole receive path (decode, check, hash) for 4 KiB and 64 KiB
// chunks, and the hash alone. At 40 MB/s a phone costs 40e6 / (bytes per second) of a core.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "RandomBytes.h"
#include "engines/sprd/PhoneCodes.h"
#include "engines/sprd/PhoneModel.h"

using namespace quorvel::sprd;

namespace {

std::vector<std::uint8_t> Data(std::size_t size) {
    return RandomBytes(size);
}

std::vector<std::uint8_t> Named(const char* name, std::uint32_t size) {
    std::vector<std::uint8_t> out(phone::kNameBytes, 0);
    for (std::size_t i = 0; name[i]; ++i) out[2 * i] = static_cast<std::uint8_t>(name[i]);
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(size >> (8 * i)));
    return out;
}

// A phone running its second loader, ready for images.
PhoneModel ReadyPhone() {
    PhoneModel p(PhoneConfig{});
    auto send = [&](std::uint16_t type, std::vector<std::uint8_t> payload, Check check) {
        p.Receive(EncodeFrame(type, payload, check, true));
    };
    p.Receive(std::vector<std::uint8_t>{kFlag});
    send(cmd::START_DATA, {0, 0, 0x50, 0, 0, 0, 0, 2}, Check::BOOT_ROM_CRC);
    send(cmd::MIDST_DATA, {1, 2}, Check::BOOT_ROM_CRC);
    send(cmd::END_DATA, {}, Check::BOOT_ROM_CRC);
    send(cmd::EXEC_DATA, {}, Check::BOOT_ROM_CRC);
    p.Receive(std::vector<std::uint8_t>(4, kFlag));
    send(cmd::START_DATA, {0x9e, 0, 0, 0, 0, 0, 0, 2}, Check::LOADER_SUM);
    send(cmd::MIDST_DATA, {1, 2}, Check::LOADER_SUM);
    send(cmd::END_DATA, {}, Check::LOADER_SUM);
    send(cmd::EXEC_DATA, {}, Check::LOADER_SUM);
    return p;
}

void BM_PhoneImageBytes(benchmark::State& state) {
    const std::size_t chunk = static_cast<std::size_t>(state.range(0));
    const bool escape = state.range(1) != 0;
    const std::size_t image = 64 << 20;
    PhoneModel p = ReadyPhone();
    if (!escape) p.Receive(EncodeFrame(cmd::DISABLE_TRANSCODE, {}, Check::LOADER_SUM, true));
    const auto frame = EncodeFrame(cmd::MIDST_DATA, Data(chunk), Check::LOADER_SUM, escape);
    std::size_t sent = image;
    for (auto _ : state) {
        if (sent + chunk > image) {
            p.Receive(EncodeFrame(cmd::START_DATA, Named("system", image), Check::LOADER_SUM, escape));
            sent = 0;
        }
        benchmark::DoNotOptimize(p.Receive(frame));
        sent += chunk;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk));
}
BENCHMARK(BM_PhoneImageBytes)->Args({4096, 1})->Args({65534, 1})->Args({65534, 0});

void BM_Sha256(benchmark::State& state) {
    const auto data = Data(1 << 20);
    Sha256 s;
    for (auto _ : state) s.Update(data);
    benchmark::DoNotOptimize(s.Digest());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) << 20);
}
BENCHMARK(BM_Sha256);

}  // namespace

BENCHMARK_MAIN();
