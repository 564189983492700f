// Names, types, domains and TXT texts into validation, registration and the registry's operations,
// in sequences.
#include <arpa/inet.h>

#include <list>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "fuzz/input.h"
#include "fuzz/registry_check.h"
#include "records/registration.h"
#include "records/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxSteps = 96;
const char* const kTypes[] = {"_ipp._tcp", "_pdl-datastream._tcp", "_printer._tcp", "_a._b"};

// The parameters of one call, in blocks of exactly their size.
struct Service {
  ExactText name;
  ExactText type;
  ExactText domain;
  const char* txt;
  int32_t txtLength;
  uint32_t port;
};

class Run {
 public:
  explicit Run(Input& input);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void Play();

 private:
  void Step();
  Service ReadService();
  void FreeTexts();

  Input& script;
  std::vector<ServiceEntry> services;
  std::list<ExactText> texts;
};

Run::Run(Input& input) : script(input) {
  SetDestination();
  responderState.connected[0].Set(script.Byte() % 2);
  responderState.interfaceAddress[0].Set(htonl(script.Long()));
  SetDeviceName(script.Text());
}

Run::~Run() {
  EmptyRegistry();
  responderState.connected[0].Set(0);
}

void Run::Play() {
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) {
    Step();
    FreeTexts();
  }
}

// Parts of what is registered already are what matters: keys match by prefix.
Service Run::ReadService() {
  const uint8_t what = script.Byte();
  std::string name = script.Text();
  std::string type = (what & 1) != 0 ? script.Text() : kTypes[(what >> 1) % 4];
  std::string domain = (what & 8) != 0 ? script.Text() : ".local";
  if ((what & 16) != 0 && !services.empty()) {
    const ServiceEntry& entry = services[script.Byte() % services.size()];
    name = std::string(entry.serviceName).substr(0, script.Byte());
    if ((what & 1) != 0) type = std::string(entry.serviceType).substr(0, script.Byte());
  }
  const char* txt = nullptr;
  int32_t length = 0;
  if ((what & 32) != 0) {
    const std::string text = script.LongText();
    texts.emplace_back(text);
    txt = texts.back().Get();
    length = static_cast<int32_t>(text.size());
  } else if ((what & 64) != 0 && !texts.empty()) {
    // One text may serve several services.
    txt = texts.front().Get();
    length = static_cast<int32_t>(std::string(txt).size());
  }
  const uint32_t number = script.Long();
  // Mostly a port, at times any number; and a length that need not be the text's.
  if ((what & 128) != 0) length = static_cast<int32_t>(script.Long());
  const uint32_t port = (number >> 31) != 0 ? number : number & 0x1FFFF;
  return {ExactText(name), ExactText(type), ExactText(domain), txt, length, port};
}

void Run::Step() {
  const uint8_t operation = script.Byte();
  const Service service = ReadService();
  const char* name = service.name.Get();
  const char* type = service.type.Get();
  const char* domain = service.domain.Get();
  const char* txt = service.txt;
  const int32_t length = service.txtLength;
  const uint32_t port = service.port;

  const bool isValid = ValidateServiceParams(name, type, domain, txt, length, port) != 0;
  const bool isRegistered = ServiceLookup(name, type, domain) != 0;
  const size_t before = services.size();
  size_t due = before;
  size_t packetsDue = 0;
  sentPackets.clear();
  switch (operation % 8) {
    case 0:
    case 1:
      due += RegisterOneService(name, type, domain, txt, length, port);
      REQUIRE((due > before) == (isValid && !isRegistered),
              "a service is registered when it is valid and new");
      packetsDue = due > before ? 2 : 0;
      break;
    case 2:
      due -= UnRegisterOneService(name, type, domain, txt, length, port);
      REQUIRE((due < before) == (isValid && isRegistered),
              "a service is withdrawn when it is valid and known");
      packetsDue = isValid ? 1 : 0;
      break;
    case 3:
      due += ServiceRegistryUpdate(SERVICE_ADD, name, type, domain, txt, length, port);
      REQUIRE((due > before) == !isRegistered, "an entry is added when it is new");
      break;
    case 4:
      due -= ServiceRegistryUpdate(SERVICE_REMOVE, name, type, domain, txt, length, port);
      REQUIRE((due < before) == isRegistered, "an entry is removed when it is known");
      break;
    case 5:
      REQUIRE(ServiceRegistryUpdate(2 + script.Byte(), name, type, domain, txt, length, port) == 1,
              "an unknown operation succeeds");
      break;
    case 6:
      // An empty registry would be closed for good, which ends a process's life.
      if (ServiceEntry first; !services.empty()) {
        REQUIRE(!CloseRegistryIfEmpty(first), "a registry that holds a service is not closed");
      }
      break;
    default:
      responderState.connected[0].Set(script.Byte() % 2);
      SetDeviceName(script.Text());
  }
  const bool isConnected = responderState.connected[0].Get() != 0;
  REQUIRE(sentPackets.size() == (isConnected ? packetsDue : 0),
          "probe and announcement, or a goodbye, are sent while the bridge is connected");
  services = RequireSoundRegistry();
  REQUIRE(services.size() == due, "the registry grows and shrinks as the results say");
}

// A text that nothing refers to is freed at once, so that a late look at it is seen.
void Run::FreeTexts() {
  std::erase_if(texts, [](const ExactText& text) { return !IsTextRegistered(text.Get()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  Run run(script);
  run.Play();
  return 0;
}
