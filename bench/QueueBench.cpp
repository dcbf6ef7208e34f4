// Cost of the receive queue: one message queued and taken out, with and
// without a by-id waiter, and the insertion cost as the queue grows.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"

#include <benchmark/benchmark.h>

#include <string>
#include <thread>

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

// One message queued behind n others of the same priority (so it lands at
// the back) while the oldest one is taken from the front: the queue keeps
// its length, and the cost shows how insertion scales with it.
void InsertBehindQueue(benchmark::State& state)
{
    CommsChannel channel("");
    for (int i = 0; i < state.range(0); ++i) {
        CommsChannelDataContainerMessage filler = message(16, 2, 0);
        channel.addToMsgQ(filler);
    }
    CommsChannelDataContainerMessage in = message(16, 2, 0);
    CommsChannelDataContainerMessage out;
    for (auto _ : state) {
        channel.addToMsgQ(in);
        channel.receiveMsg(out);
    }
}
BENCHMARK(InsertBehindQueue)->Arg(0)->Arg(10)->Arg(49)->Arg(1000)->Arg(10000);

// One sending and one receiving thread on a channel of this process: the
// queue's locking and wake-ups under contention.
void SendAndReceiveOnTwoThreads(benchmark::State& state)
{
    CommsChannel channel("");
    const CommsChannelDataContainerMessage in = message(64, 0, 0);
    const int batch = 10000;
    for (auto _ : state) {
        std::thread producer([&channel, &in, batch] {
            CommsChannelDataContainerMessage copy = in;
            for (int i = 0; i < batch; ++i) {
                channel.addToMsgQ(copy);
            }
        });
        std::string data;
        for (int i = 0; i < batch; ++i) {
            channel.receiveMsg(data);
        }
        producer.join();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(SendAndReceiveOnTwoThreads)->UseRealTime();

}  // namespace
