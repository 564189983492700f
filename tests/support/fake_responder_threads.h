// In place of the threads that the responder starts: probing and answering. Included once in a
// program.
#pragma once

#include <functional>

#include "mdns/answer.h"
#include "mdns/probe.h"

/// Bodies of MDNS_CheckName and MDNS_Answer; nothing happens without one. Set while none runs.
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
