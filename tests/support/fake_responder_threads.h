// Takes the place of the threads that the responder starts: probing and answering.
#pragma once

#include <functional>

#include "mdns/answer.h"
#include "mdns/probe.h"

/// Bodies of MDNS_CheckName and MDNS_Answer; nothing happens without one. Set while none runs.
extern std::function<void(ProbeRecord&)> onCheckName;
extern std::function<void(const AnswerStartRecord&)> onAnswer;
