// Cost of encoding and decoding a data message.
#include "CommsChannelDataContainerMessage.h"
#include "CommsChannelMessageCreator.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

void EncodeDataMessage(benchmark::State& state)
{
    CommsChannelDataContainerMessage m;
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    m.setData(data.data(), static_cast<int>(data.size()));
    m.setChannel("destination");
    m.setSourceChannel("source");
    for (auto _ : state) {
        int length = 0;
        benchmark::DoNotOptimize(m.encode(&length));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(EncodeDataMessage)->Arg(64)->Arg(4096)->Arg(59750);

void DecodeDataMessage(benchmark::State& state)
{
    CommsChannelDataContainerMessage m;
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    m.setData(data.data(), static_cast<int>(data.size()));
    int length = 0;
    const char* bytes = m.encode(&length);
    const std::string encoding(bytes, static_cast<std::size_t>(length));
    CommsChannelMessageCreator creator;
    for (auto _ : state) {
        std::unique_ptr<CommsChannelMessage> decoded(creator.decodeMessage(encoding.data()));
        benchmark::DoNotOptimize(decoded.get());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DecodeDataMessage)->Arg(64)->Arg(4096)->Arg(59750);

}  // namespace
