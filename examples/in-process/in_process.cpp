// Queues messages into a channel and takes them out again: priority order,
// a receive by request id, and a receive that times out.
#include "CommsChannel.h"
#include "CommsChannelDataContainerMessage.h"
#include "CommsException.h"

#include <cstdio>
#include <string>

namespace {

CommsChannelDataContainerMessage makeMessage(const std::string& text, int msgType, long requestId)
{
    CommsChannelDataContainerMessage message;
    message.setData(text.data(), static_cast<int>(text.size()));
    message.setMsgType(msgType);
    message.setRequestId(requestId);
    return message;
}

}  // namespace

int main()
{
    // No name: the channel is never registered, so no resolver is needed.
    CommsChannel inbox("");

    CommsChannelDataContainerMessage low = makeMessage("low priority (type 1)", 1, 0);
    CommsChannelDataContainerMessage high = makeMessage("high priority (type 2)", 2, 0);
    CommsChannelDataContainerMessage answer = makeMessage("the answer to request 42", 0, 42);
    inbox.addToMsgQ(low);
    inbox.addToMsgQ(answer);
    inbox.addToMsgQ(high);

    CommsChannelDataContainerMessage received;
    inbox.receiveMsg(received, 42L);
    std::printf("by id 42: %s\n", received.getData().c_str());
    std::string text;
    inbox.receiveMsg(text);
    std::printf("first:    %s\n", text.c_str());
    inbox.receiveMsg(text);
    std::printf("second:   %s\n", text.c_str());

    try {
        inbox.receiveMsg_ByID_Timed(received, 0, 100);
        std::printf("unexpected message\n");
        return 1;
    } catch (const CommsException& timeout) {
        std::printf("empty:    %s\n", timeout.what());
    }
    return 0;
}
