// The responder thread.
#include "mdns/responder.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "base/log.h"
#include "base/responder.h"
#include "base/text.h"
#include "base/thread.h"
#include "mdns/answer.h"
#include "mdns/probe.h"
#include "mdns/socket.h"
#include "mdns/state.h"
#include "records/registration.h"
#include "records/registry.h"
#include "records/sender.h"

namespace {

constexpr unsigned kRetrySeconds = 1;
constexpr unsigned kStopPollSeconds = 1;
// At the stop: the time for which anything under way is waited for, twice what a sender takes, in
// steps; and the pause before a service that could not be withdrawn is tried again.
constexpr unsigned kEndPollMicroseconds = 10000;
constexpr unsigned kEndPollsMax = 2 * kSendingMicroseconds / kEndPollMicroseconds;
constexpr unsigned kWithdrawalPauseMicroseconds = 100000;

// The answering thread and its argument, in the responder thread's frame.
struct Answering {
  JoinableThread thread;
  AnswerStartRecord start;
};

bool IsBridgeConnected() { return responderState.connected[kBridgeSlot].Get() != 0; }

// The time since boot: the wall clock of a router jumps when it first learns the time.
int64_t SecondsNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

void InitInterfaceTable() {
  CopyText(responderState.interfaceName[kBridgeSlot], kBridgeName);
  CopyText(responderState.interfaceName[kReservedSlot], kReservedName);
  for (SharedFlag& connected : responderState.connected) connected.Set(0);
  for (SharedWord<in_addr_t>& address : responderState.interfaceAddress) address.Set(INADDR_NONE);
  SetDeviceName("");
}

void InitDestination() {
  memset(&responderState.mdnsDestination, 0, sizeof(responderState.mdnsDestination));
  responderState.mdnsDestination.sin_family = AF_INET;
  responderState.mdnsDestination.sin_port = htons(kMdnsPort);
  responderState.mdnsDestination.sin_addr.s_addr = inet_addr(kMdnsGroup);
}

void SetupSocketWithRetry() {
  const int64_t start = SecondsNow();
  while (!IsTerminating()) {
    if (SocketSetup_For_Interface_N() != 0) return;
    if (SecondsNow() - start > kSetupLimitSeconds) {
      LogLine("MDNS_SocketSetup() MDNS_SELF_BIND1 error");
      return;
    }
    sleep(kRetrySeconds);
  }
}

void ProbeDeviceName() {
  ProbeRecord record;
  memset(&record, 0, sizeof(record));
  CopyText(record.name, CurrentDeviceName().text);
  while (!IsTerminating() && IsAnyInterfaceConnected() && IsBridgeConnected()) {
    record.retry = 0;
    record.socket = multicastSocket.Get();
    record.slot = kBridgeSlot;
    JoinableThread prober;
    const int error = StartThread(prober, MDNS_CheckName, &record);
    if (error != 0) {
      LogError(kNoPassingThread, error);
      break;
    }
    JoinThread(prober);
    if (record.retry == 0) break;
    sleep(kRetrySeconds);
  }
  SetDeviceName(FieldText(record.name));
  LogLine({"[Bonjour] default device name = ", record.name});
}

void StartAnsweringThread(Answering& answering) {
  answering.start = {multicastSocket.Get(), kBridgeSlot};
  const int error = StartThread(answering.thread, MDNS_Answer, &answering.start);
  if (error != 0) LogError(kNoLastingThread, error);
  LogLine({"[Bonjour] Answer Name Start (", GetInterfaceAddress(kBridgeSlot).text, ")"});
}

void ReportUpIfConnected() {
  if (IsAnyInterfaceConnected()) responderState.initStatus.Set(1);
}

// Waits for an interface that was not usable at start.
void SuperviseInterface(Answering& answering) {
  while (!IsTerminating()) {
    if (UpdateHostIP(kBridgeSlot) != 0 && !IsBridgeConnected()) {
      SocketSetup_For_Interface_N();
      if (IsBridgeConnected()) StartAnsweringThread(answering);
    }
    ReportUpIfConnected();
    if (IsBridgeConnected()) return;
    sleep(kSupervisionSeconds);
  }
}

// Answering goes on until a stop is asked for. When its thread could not be created the responder
// carries on without it: services are still announced, and withdrawn at the stop.
void WaitForAnsweringEnd(Answering& answering) {
  if (!answering.thread.running) {
    while (!IsTerminating()) sleep(kStopPollSeconds);
  }
  JoinThread(answering.thread);
}

// Waits until nothing of a kind is under way any more. What hangs is not waited for.
template <typename Condition>
void WaitWhile(Condition isUnderWay) {
  for (unsigned i = 0; isUnderWay() && i < kEndPollsMax; ++i) usleep(kEndPollMicroseconds);
}

// Works on a copy: the monitor may remove the entry itself at the same moment.
void WithdrawServices() {
  ServiceEntry first;
  while (!CloseRegistryIfEmpty(first)) {
    if (UnRegisterOneService(first.serviceName, first.serviceType, first.serviceDomain, first.txt,
                             first.txtLength, first.port) == 0) {
      usleep(kWithdrawalPauseMicroseconds);
    }
  }
}

// A host believes the packet that it heard last. So the goodbyes are handed over when nothing is
// answered or announced any more and every packet handed over before has been sent three times.
void Teardown(Answering& answering) {
  const bool connected = IsBridgeConnected();
  if (connected) WaitForAnsweringEnd(answering);
  CloseRegistration();
  WaitWhile(IsRegistrationUnderWay);
  WaitWhile(IsAnyoneSending);
  WithdrawServices();
  CloseSending();
  WaitWhile(IsAnyoneSending);
  if (connected) CloseMulticastSocket();
  DestroyRegistry();
  pthread_cond_destroy(&responderState.stateCond);
}

}  // namespace

void* BonjourServiceInit(void* argument) {
  const ResponderStartRecord& start = *static_cast<ResponderStartRecord*>(argument);
  InitInterfaceTable();
  if (!IsTerminating()) {
    InitDestination();
    SetupSocketWithRetry();
  }
  SetDeviceName(FieldText(start.deviceName));
  if (start.probeRequest != 0) ProbeDeviceName();

  Answering answering = {};
  if (IsBridgeConnected()) StartAnsweringThread(answering);
  ReportUpIfConnected();
  SuperviseInterface(answering);
  Teardown(answering);
  return nullptr;
}
