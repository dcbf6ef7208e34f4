#include "AnswerExpectation.h"

namespace answer_expectation {

namespace {

thread_local bool sentSinceWait = false;

}  // namespace

void noteSend() { sentSinceWait = true; }

bool beginWait()
{
    const bool sent = sentSinceWait;
    sentSinceWait = false;
    return sent;
}

}  // namespace answer_expectation
