// What is measured.
#include "bench/micro/cases.h"

#include <arpa/inet.h>
#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "bench/micro/quiet_io.h"
#include "mdns/answer.h"
#include "mdns/probe.h"
#include "mdns/question.h"
#include "mdns/state.h"
#include "printer/monitor.h"
#include "printer/txt.h"
#include "records/compose.h"
#include "records/encode.h"
#include "records/packets.h"
#include "records/registration.h"
#include "records/registry.h"

namespace {

constexpr char kDevice[] = "T5140_00-11-22-AA-BB-CC";
constexpr char kHost[] = "T5140_00-11-22-AA-BB-CC.local";
constexpr char kAddress[] = "192.168.77.1";
constexpr char kIppTypeName[] = "_ipp._tcp.local";
constexpr char kInstance[] = "HP LaserJet 1020 (aa:bb:cc) 0._ipp._tcp.local";
constexpr char kPdlTypeName[] = "_pdl-datastream._tcp.local";
constexpr char kPdlInstance[] = "HP LaserJet 1020 (aa:bb:cc) 0._pdl-datastream._tcp.local";
constexpr char kTxt[] =
    "txtvers=1\nqtotal=1\npdl=application/PJL,application/PCL,application/POSTSCRIPT\n"
    "usb_CLS=PRINTER\nrp=USB1_LQ\nty=LaserJet 1020\nproduct=(HP LaserJet 1020)\nusb_MFG=HP\n"
    "usb_MDL=LaserJet 1020\nnote=T5140_00-11-22-AA-BB-CC\nusb_CMD=PJL,PCL,POSTSCRIPT\npriority=20";
constexpr char kQuestioner[] = "192.168.77.10";

// Encoding: one record into a zero-filled packet.

MdnsRecord record;
uint8_t packetBytes[kAnswerSize];
Packet packet = {packetBytes, kAnswerSize, 0, {}};

void PrepareRecord(int32_t type, const char* name, const char* rdata) {
  memset(packetBytes, 0, sizeof(packetBytes));
  record = {};
  record.type = type;
  record.cacheFlush = 1;
  record.ttl = kHostTtl;
  record.port = 631;
  record.nsecNextOffset = kHeaderSize;
  record.bitmapLength = 5;
  memcpy(record.name, name, strlen(name));
  memcpy(record.rdata, rdata, strlen(rdata));
}

void PrepareA(size_t) { PrepareRecord(kTypeA, kHost, kAddress); }
void PreparePtr(size_t) { PrepareRecord(kTypePtr, kIppTypeName, kInstance); }
void PrepareSrv(size_t) { PrepareRecord(kTypeSrv, kInstance, kHost); }
void PrepareTxt(size_t) { PrepareRecord(kTypeTxt, kInstance, kTxt); }
void PrepareNsec(size_t) { PrepareRecord(kTypeNsec, kHost, ""); }

size_t RunEncode() {
  const int32_t end = EncodeRecord(packetBytes, kAnswerSize, kHeaderSize, record, 0);
  return static_cast<size_t>(end - kHeaderSize);
}

size_t RunEncodeQuestion() {
  const int32_t end = EncodeRecord(packetBytes, kAnswerSize, kHeaderSize, record, 1);
  return static_cast<size_t>(end - kHeaderSize);
}

// Composing whole packets.

constexpr ServiceRecords kOfficeService = {kHost, kAddress, kIppTypeName, kInstance,
                                           kTxt,  631,      true};
constexpr ServiceRecords kPdlService = {kHost, kAddress, kPdlTypeName, kPdlInstance,
                                        kTxt,  9100,     false};

void PrepareAnswerPacket(size_t) { packet.capacity = kAnswerSize; }
void PrepareOtherPacket(size_t) { packet.capacity = kPacketSize; }
size_t PacketLength() { return static_cast<size_t>(packet.length); }

size_t RunHostAnswer() {
  BeginPacket(packet, {kFlagsResponse, 0, 1, 0});
  AddAddress(packet, kHost, false, kAddress);
  return PacketLength();
}

size_t RunIppResponse() {
  ComposeServiceResponse(packet, kOfficeService);
  return PacketLength();
}

size_t RunPdlResponse() {
  ComposeServiceResponse(packet, kPdlService);
  return PacketLength();
}

size_t RunHostProbe() {
  ComposeHostProbe(packet, kDevice);
  return PacketLength();
}

size_t RunServiceProbe() {
  ComposeServiceProbe(packet, kOfficeService);
  return PacketLength();
}

size_t RunGoodbye() {
  ComposeServiceGoodbye(packet, kOfficeService);
  return PacketLength();
}

// Messages as they are received, and the answering state.

AnsweringState answering;
sockaddr_in questioner;
size_t received = 0;

void BeginMessage(size_t questions) {
  memset(answering.receiveBuffer, 0, sizeof(answering.receiveBuffer));
  answering.receiveBuffer[kQuestionCountOffset + 1] = static_cast<uint8_t>(questions);
  received = kHeaderSize;
}

void AddMessageQuestion(const char* name) {
  const int32_t end =
      EncodeLabels(answering.receiveBuffer, kReceiveSize, static_cast<int32_t>(received),
                   kNameSeparator, name, kNameLabelMax);
  received = static_cast<size_t>(end) + 4;
  answering.receiveBuffer[received - 3] = kTypePtr;
  answering.receiveBuffer[received - 1] = 1;
}

void AskFor(const char* name) {
  BeginMessage(1);
  AddMessageQuestion(name);
}

void AskForHost(const char* name) {
  AskFor(name);
  answering.receiveBuffer[received - 3] = kTypeA;
}

const char* ServiceName(size_t index) {
  static char name[64];
  snprintf(name, sizeof(name), "HP LaserJet 1020 %04zu", index);
  return name;
}

const char* ServiceType(size_t index) {
  return index % 2 == 0 ? "_pdl-datastream._tcp" : kIppService.type;
}

void RegisterServices(size_t count) {
  for (size_t i = 0; i < count; ++i) {
    RegisterOneService(ServiceName(i), ServiceType(i), kLocalDomain, kTxt, sizeof(kTxt) - 1, 631);
  }
}

bool FirstService(ServiceEntry& copy) {
  const RegistryLock lock;
  if (responderState.registryHead == nullptr) return false;
  copy = *responderState.registryHead;
  return true;
}

void UnregisterServices() {
  ServiceEntry first;
  while (FirstService(first)) {
    UnRegisterOneService(first.serviceName, first.serviceType, first.serviceDomain, first.txt,
                         first.txtLength, first.port);
  }
}

void PrepareAnswering(size_t services) {
  SetDeviceName(kDevice);
  responderState.interfaceAddress[kBridgeSlot].Set(inet_addr(kAddress));
  responderState.connected[kBridgeSlot].Set(1);
  questioner.sin_addr.s_addr = inet_addr(kQuestioner);
  StartAnswering(answering, kBridgeSlot);
  UnregisterServices();
  RegisterServices(services);
}

void AskForService(size_t index) {
  char name[128];
  snprintf(name, sizeof(name), "%s.%s.local", ServiceName(index), ServiceType(index));
  AskFor(name);
}

void PrepareHostQuestion(size_t) {
  PrepareAnswering(0);
  AskForHost(kHost);
}

void PrepareOtherHostQuestion(size_t) {
  PrepareAnswering(0);
  AskForHost("T5140_00-11-22-AA-BB-CD.local");
}

void PrepareQuestionForFirst(size_t services) {
  PrepareAnswering(services);
  AskForService(0);
}

void PrepareQuestionForLast(size_t services) {
  PrepareAnswering(services);
  AskForService(services - 1);
}

void PrepareQuestionForNone(size_t services) {
  PrepareAnswering(services);
  AskFor("_http._tcp.local");
}

void PrepareBrowse(size_t services) {
  PrepareAnswering(services);
  AskFor(kIppTypeName);
}

constexpr size_t kServicesForQuestions = 20;

void PrepareQuestions(size_t questions) {
  PrepareAnswering(kServicesForQuestions);
  BeginMessage(questions);
  for (size_t i = 0; i < questions; ++i) AddMessageQuestion("_http._tcp.local");
}

size_t RunHostTest() {
  const MessageReader buffer(answering.receiveBuffer, sizeof(answering.receiveBuffer));
  AsksForHostName(buffer, kDevice);
  return sizeof(kDevice) - 1;
}

size_t RunMessage() {
  const size_t before = BytesHandedOver();
  AnswerMessage(answering, received, questioner, 0);
  return received + BytesHandedOver() - before;
}

// The status file.

char statusText[kStatusBufferSize];
size_t statusLength = 0;

void AddPrinter(size_t port) {
  statusLength +=
      static_cast<size_t>(snprintf(statusText + statusLength, sizeof(statusText) - statusLength,
                                   "usblp%zu\nHP\nLaserJet 1020\nPJL,PCL,POSTSCRIPT\n\n", port));
}

void PreparePrinters(size_t printers) {
  memset(statusText, 0, sizeof(statusText));
  statusLength = 0;
  for (size_t port = 0; port < printers; ++port) AddPrinter(port);
}

// Ten printers, then records of a port that does not exist, until the file is full.
void PrepareFullFile(size_t) {
  PreparePrinters(kPrinterPorts);
  constexpr char kRecord[] = "usblpx\nHP\nLaserJet 1020\nPJL,PCL,POSTSCRIPT\n\n";
  while (statusLength + sizeof(kRecord) <= kStatusFileMax) {
    memcpy(statusText + statusLength, kRecord, sizeof(kRecord) - 1);
    statusLength += sizeof(kRecord) - 1;
  }
  memset(statusText + statusLength, '\n', kStatusFileMax - statusLength);
  statusLength = kStatusFileMax;
}

size_t RunScan() {
  PrinterPresence presence = {};
  ScanPrinters(statusText, presence);
  return statusLength;
}

PrinterStatusRecord printer;
char txtText[kTxtSize];

void PreparePrinter(size_t) {
  printer = {"HP", "LaserJet 1020", "PJL,PCL,POSTSCRIPT"};
  memset(txtText, 0, sizeof(txtText));
}

size_t RunTxt() {
  BuildTxtText(txtText, 0, PRINTER_KIND_IPP, printer, kDevice);
  return strlen(kTxt);
}

}  // namespace

std::vector<Case> AllCases() {
  std::vector<Case> cases = {
      {"encode/question", PrepareA, RunEncodeQuestion, 0, 0},
      {"encode/A", PrepareA, RunEncode, 0, 0},
      {"encode/PTR", PreparePtr, RunEncode, 0, 0},
      {"encode/SRV", PrepareSrv, RunEncode, 0, 0},
      {"encode/TXT", PrepareTxt, RunEncode, 0, 0},
      {"encode/NSEC", PrepareNsec, RunEncode, 0, 0},
      {"compose/host-name answer", PrepareAnswerPacket, RunHostAnswer, 0, kAnswerSize},
      {"compose/service answer, 4 records", PrepareAnswerPacket, RunPdlResponse, 0, kAnswerSize},
      {"compose/service answer, 5 records", PrepareAnswerPacket, RunIppResponse, 0, kAnswerSize},
      {"compose/host-name probe", PrepareOtherPacket, RunHostProbe, 0, kPacketSize},
      {"compose/service probe", PrepareOtherPacket, RunServiceProbe, 0, kPacketSize},
      {"compose/announcement", PrepareOtherPacket, RunIppResponse, 0, kPacketSize},
      {"compose/goodbye", PrepareOtherPacket, RunGoodbye, 0, kPacketSize},
      {"host-name test/same name", PrepareHostQuestion, RunHostTest, 0, 0},
      {"host-name test/other name", PrepareOtherHostQuestion, RunHostTest, 0, 0},
      {"message/host-name question", PrepareHostQuestion, RunMessage, 0, kAnswerSize},
      {"message/other host's question", PrepareOtherHostQuestion, RunMessage, 0, 0},
      {"message/browse, 20 services", PrepareBrowse, RunMessage, 20, size_t{10} * kAnswerSize},
  };
  for (const size_t services : {1U, 20U, 200U}) {
    const std::string group = "walk over " + std::to_string(services) + "/";
    cases.push_back(
        {group + "first matches", PrepareQuestionForFirst, RunMessage, services, kAnswerSize});
    cases.push_back(
        {group + "last matches", PrepareQuestionForLast, RunMessage, services, kAnswerSize});
    cases.push_back({group + "none matches", PrepareQuestionForNone, RunMessage, services, 0});
  }
  cases.push_back({"status file/1 printer", PreparePrinters, RunScan, 1, 0});
  cases.push_back({"status file/10 printers", PreparePrinters, RunScan, 10, 0});
  cases.push_back({"status file/40960 bytes", PrepareFullFile, RunScan, 0, 0});
  cases.push_back({"TXT/build", PreparePrinter, RunTxt, 0, 0});
  for (const size_t services : {1U, 2U, 5U, 10U, 20U, 50U, 100U, 200U, 500U, 1000U}) {
    cases.push_back({"growth by services/" + std::to_string(services), PrepareQuestionForNone,
                     RunMessage, services, 0});
  }
  for (const size_t questions : {1U, 2U, 5U, 10U, 20U, 40U, 68U}) {
    cases.push_back({"growth by questions/" + std::to_string(questions), PrepareQuestions,
                     RunMessage, questions, 0});
  }
  return cases;
}

void RunFloor(size_t zeroed, size_t moved) {
  static uint8_t source[size_t{64} * 1024];
  static uint8_t target[size_t{64} * 1024];
  for (size_t left = zeroed; left > 0;) {
    const size_t part = left < sizeof(target) ? left : sizeof(target);
    memset(target, 0, part);
    left -= part;
  }
  memcpy(target, source, moved < sizeof(target) ? moved : sizeof(target));
}

size_t HeapBytesPerService() {
  constexpr size_t kServices = 1000;
  PrepareAnswering(0);
  malloc_trim(0);
  const size_t before = mallinfo2().uordblks;
  RegisterServices(kServices);
  return (mallinfo2().uordblks - before) / kServices;
}
