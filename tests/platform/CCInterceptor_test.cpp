// CCInterceptorContext and CCInterceptorDispatcher: the send flag, the
// message under inspection, and an interceptor's own intercept().
#include "CCInterceptorContext.h"
#include "CCInterceptorDispatcher.h"

#include "CommsChannelDataContainerMessage.h"
#include "PlatformTestSupport.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

// Drops every message whose protocol is "drop", and counts its calls.
class DroppingInterceptor : public CCInterceptorDispatcher {
public:
    int intercept(CCInterceptorContext* context) override
    {
        ++calls;
        if (context->getParams() != nullptr && context->getParams()->protocol() == "drop") {
            context->setSendFlag(0);
            return 0;
        }
        return 1;
    }
    int calls = 0;
};

TEST(CCInterceptorContext, SendFlagIsNonZeroByDefault)
{
    CCInterceptorContext sut;
    EXPECT_NE(0, sut.getSendFlag());
}

TEST(CCInterceptorContext, HasNoMessageByDefault)
{
    CCInterceptorContext sut;
    EXPECT_EQ(nullptr, sut.getParams());
}

TEST(CCInterceptorContext, SetSendFlagZeroAsksForADrop)
{
    CCInterceptorContext sut;
    sut.setSendFlag(0);
    EXPECT_EQ(0, sut.getSendFlag());
}

TEST(CCInterceptorContext, SetSendFlagNonZeroLetsTheMessageThroughAgain)
{
    CCInterceptorContext sut;
    sut.setSendFlag(0);
    sut.setSendFlag(7);
    EXPECT_NE(0, sut.getSendFlag());
}

TEST(CCInterceptorContext, GetParamsAnswersTheMessageGivenToSetParams)
{
    CommsChannelDataContainerMessage message;
    message.setData("payload", 7);
    CCInterceptorContext sut;
    sut.setParams(&message);
    ASSERT_EQ(&message, sut.getParams());
    EXPECT_EQ("payload", sut.getParams()->getData());
    sut.setParams(nullptr);
    EXPECT_EQ(nullptr, sut.getParams());
}

TEST(CCInterceptorContext, DeletedThroughItsBaseWithoutTouchingTheMessage)
{
    std::unique_ptr<CommsChannelDataContainerMessage> message(new CommsChannelDataContainerMessage());
    message->setData("kept", 4);
    CCInterceptorContext* sut = new CCInterceptorContext();
    sut->setParams(message.get());
    delete sut;
    EXPECT_EQ("kept", message->getData());
}

TEST(CCInterceptorDispatcher, DefaultInterceptLetsEveryMessageThrough)
{
    CommsChannelDataContainerMessage message;
    CCInterceptorContext context;
    context.setParams(&message);
    CCInterceptorDispatcher sut;
    EXPECT_EQ(1, sut.intercept(&context));
    EXPECT_NE(0, context.getSendFlag());
}

TEST(CCInterceptorDispatcher, InterceptIsInTheThirdVirtualSlot)
{
    EXPECT_EQ(2, pftest::vtableIndex(&CCInterceptorDispatcher::intercept));
}

TEST(CCInterceptorDispatcher, OverriddenInterceptIsCalledThroughTheBaseAndCanDrop)
{
    DroppingInterceptor interceptor;
    CCInterceptorDispatcher* sut = &interceptor;

    CommsChannelDataContainerMessage dropped;
    dropped.setProtocol("drop");
    CCInterceptorContext dropContext;
    dropContext.setParams(&dropped);
    sut->intercept(&dropContext);

    CommsChannelDataContainerMessage kept;
    kept.setProtocol("keep");
    CCInterceptorContext keepContext;
    keepContext.setParams(&kept);
    sut->intercept(&keepContext);

    EXPECT_EQ(2, interceptor.calls);
    EXPECT_EQ(0, dropContext.getSendFlag());
    EXPECT_NE(0, keepContext.getSendFlag());
}

TEST(CCInterceptorDispatcher, InterceptorMayReadEveryFieldOfTheMessage)
{
    CommsChannelDataContainerMessage message;
    message.setChannel("dest");
    message.setSourceChannel("src");
    message.setRequestId(99);
    message.setMsgType(3);
    message.setData("abc", 3);
    CCInterceptorContext context;
    context.setParams(&message);
    CommsChannelDataContainerMessage* seen = context.getParams();
    EXPECT_EQ("dest", seen->channel());
    EXPECT_EQ("src", seen->sourceChannel());
    EXPECT_EQ(99, seen->requestId());
    EXPECT_EQ(3, seen->msgType());
    EXPECT_EQ("abc", seen->getData());
}

}  // namespace
