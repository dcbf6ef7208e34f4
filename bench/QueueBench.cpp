// Cost of the receive queue: one message queued and taken out, with and
// without a by-id waiter, and the insertion cost as the queue grows.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

CommsChannelDataContainerMessage message(int bytes, int msgType, long requestId)
{
    CommsChannelDataContainerMessage m;
    const std::string data(static_cast<std::size_t>(bytes), 'x');
    m.setData(data.data(), bytes);
    m.setMsgType(msgType);
    m.setRequestId(requestId);
    return m;
}

void QueueThenReceive(benchmark::State& state)
{
    CommsChannel channel("");
    CommsChannelDataContainerMessage in = message(static_cast<int>(state.range(0)), 0, 0);
    CommsChannelDataContainerMessage out;
    for (auto _ : state) {
        channel.addToMsgQ(in);
        channel.receiveMsg(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(QueueThenReceive)->Arg(64)->Arg(4096)->Arg(59750);

void QueueThenReceiveById(benchmark::State& state)
{
    CommsChannel channel("");
    CommsChannelDataContainerMessage in = message(64, 0, 7);
    CommsChannelDataContainerMessage out;
    for (auto _ : state) {
        channel.addToMsgQ(in);
        channel.receiveMsg(out, 7L);
    }
}
BENCHMARK(QueueThenReceiveById);

// Inserting behind a queue of n messages of mixed priority walks the list.
void InsertBehindQueue(benchmark::State& state)
{
    CommsChannel channel("");
    for (int i = 0; i < state.range(0); ++i) {
        CommsChannelDataContainerMessage filler = message(16, i % 7, 0);
        channel.addToMsgQ(filler);
    }
    CommsChannelDataContainerMessage in = message(16, 1, 99);
    CommsChannelDataContainerMessage out;
    for (auto _ : state) {
        channel.addToMsgQ(in);
        channel.receiveMsg(out, 99L);
    }
}
BENCHMARK(InsertBehindQueue)->Arg(0)->Arg(10)->Arg(49);

}  // namespace
