#include "tests/support/fake_responder_threads.h"

std::function<void(ProbeRecord&)> onCheckName;
std::function<void(const AnswerStartRecord&)> onAnswer;

void* MDNS_CheckName(void* argument) {
  if (onCheckName) onCheckName(*static_cast<ProbeRecord*>(argument));
  return nullptr;
}

void* MDNS_Answer(void* argument) {
  if (onAnswer) onAnswer(*static_cast<AnswerStartRecord*>(argument));
  return nullptr;
}
