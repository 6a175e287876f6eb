// SPDX-License-Identifier: MIT
// Parser throughput on a stream of mixed packets, fed in 64-byte (USB) and
// 4101-byte (one longest packet) chunks, beside a memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "DeviceCodec.h"
#include "LLC_XlnkMsgHandler.h"

namespace {

std::vector<uint8_t> MixedStream() {
    std::mt19937 rng(7);
    std::vector<uint8_t> stream;
    const size_t sizes[] = {1, 7, 11, 64, 200, 1000, 4095};
    while (stream.size() < (4u << 20)) {
        std::vector<uint8_t> payload(sizes[rng() % 7]);
        for (auto& b : payload) b = static_cast<uint8_t>(rng());
        auto packet = vyrix::sim::EncodeDevicePacket(2, 0, rng() & 1, payload);
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    return stream;
}

const std::vector<uint8_t>& Stream() {
    static const std::vector<uint8_t> stream = MixedStream();
    return stream;
}

void BM_Parse(benchmark::State& state) {
    const size_t chunk = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> buf(Stream());
    size_t packets = 0;
    for (auto _ : state) {
        CXlnkMsgHandler parser;
        for (size_t at = 0; at < buf.size(); at += chunk) {
            const size_t n = std::min(chunk, buf.size() - at);
            for (size_t offset = 0; offset < n;) {
                KtXlnkMsgS msg{};
                Vyrix_ReturnStatus r =
                    parser.ParsePacket(buf.data() + at + offset, static_cast<DWORD>(n - offset), &msg);
                if (r != 0) break;
                ++packets;
                delete[] msg.pPayload;
                offset += parser.ConsumedBytes();
            }
        }
    }
    benchmark::DoNotOptimize(packets);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
}
BENCHMARK(BM_Parse)->Arg(64)->Arg(4101)->Unit(benchmark::kMillisecond);

void BM_Memcpy(benchmark::State& state) {
    const size_t chunk = static_cast<size_t>(state.range(0));
    const std::vector<uint8_t>& src = Stream();
    std::vector<uint8_t> dst(chunk);
    for (auto _ : state) {
        for (size_t at = 0; at < src.size(); at += chunk) {
            memcpy(dst.data(), src.data() + at, std::min(chunk, src.size() - at));
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
}
BENCHMARK(BM_Memcpy)->Arg(64)->Arg(4101)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
