// AnswerExpectation: whether the calling thread has sent a message since it
// last began to wait for one. A thread that sends and then waits is most
// likely waiting for an answer, which comes within microseconds: such a
// wait keeps the processor a little while before it sleeps. A thread that
// only consumes a stream sleeps at once, so that it leaves the processor to
// the receiver thread that feeds it. Per thread; nothing is shared.
#ifndef COMMSCHANNEL_ANSWER_EXPECTATION_H
#define COMMSCHANNEL_ANSWER_EXPECTATION_H

namespace answer_expectation {

// Called for every send of the thread that reaches a destination.
void noteSend();

// Called as a wait for a message begins: whether the thread sent since its
// previous wait. The note is spent.
bool beginWait();

}  // namespace answer_expectation

#endif
