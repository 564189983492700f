// Names, types, domains and TXT texts into validation, registration and the registry's operations,
// in sequences.
#include <arpa/inet.h>

#include <list>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "fuzz/input.h"
#include "fuzz/registry_model.h"
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
  void CheckFirst();
  void FreeTexts();

  Input& script;
  RegistryModel registry;
  std::list<ExactText> texts;
};

Run::Run(Input& input) : script(input) {
  SetDestination();
  multicastSocket.Set(9);
  responderState.connected[0].Set(script.Byte() % 2);
  responderState.interfaceAddress[0].Set(htonl(script.Long()));
  SetDeviceName(script.Text());
}

Run::~Run() {
  registry.Purge();
  responderState.connected[0].Set(0);
}

void Run::Play() {
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) {
    Step();
    FreeTexts();
    registry.RequireSame();
  }
}

// Parts of what is registered already are what matters: keys match by prefix.
Service Run::ReadService() {
  const uint8_t what = script.Byte();
  std::string name = script.Text();
  std::string type = (what & 1) != 0 ? script.Text() : kTypes[(what >> 1) % 4];
  std::string domain = (what & 8) != 0 ? script.Text() : ".local";
  if ((what & 16) != 0 && !registry.entries.empty()) {
    const ModelEntry& entry = registry.entries[script.Byte() % registry.entries.size()];
    name = entry.name.substr(0, script.Byte());
    if ((what & 1) != 0) type = entry.type.substr(0, script.Byte());
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

  REQUIRE(ValidateServiceParams(name, type, domain, txt, length, port) ==
              ModelValidate(name, type, domain, txt != nullptr, length, port),
          "parameters are valid when each of the rules holds");
  const bool isRegistered = registry.Find(name, type, domain) < registry.entries.size();
  REQUIRE(ServiceLookup(name, type, domain) == (isRegistered ? 1 : 0),
          "a key is found when an entry begins with it");
  uint32_t result = 0;
  switch (operation % 8) {
    case 0:
    case 1:
      result = RegisterOneService(name, type, domain, txt, length, port);
      REQUIRE(result == registry.Register(name, type, domain, txt, length, port),
              "a registration has the result that is due");
      break;
    case 2:
      result = UnRegisterOneService(name, type, domain, txt, length, port);
      REQUIRE(result == registry.Unregister(name, type, domain, txt, length, port),
              "a withdrawal has the result that is due");
      break;
    case 3:
      result = ServiceRegistryUpdate(SERVICE_ADD, name, type, domain, txt, length, port);
      REQUIRE(result == registry.Add(name, type, domain, txt, length, port),
              "an addition has the result that is due");
      break;
    case 4:
      result = ServiceRegistryUpdate(SERVICE_REMOVE, name, type, domain, txt, length, port);
      REQUIRE(result == registry.Remove(name, type, domain),
              "a removal has the result that is due");
      break;
    case 5:
      REQUIRE(ServiceRegistryUpdate(2 + script.Byte(), name, type, domain, txt, length, port) == 1,
              "an unknown operation succeeds");
      break;
    case 6:
      CheckFirst();
      break;
    default:
      responderState.connected[0].Set(script.Byte() % 2);
      SetDeviceName(script.Text());
  }
}

// An empty registry would be closed for good, which ends a process's life.
void Run::CheckFirst() {
  if (registry.entries.empty()) return;
  ServiceEntry first = {};
  const ModelEntry& model = registry.entries.front();
  REQUIRE(!CloseRegistryIfEmpty(first), "a registry that holds a service is not closed");
  REQUIRE(model.name == first.serviceName && model.type == first.serviceType &&
              model.domain == first.serviceDomain && model.txt == first.txt,
          "the first entry is the oldest");
}

// A text that nothing refers to is freed at once, so that a late look at it is seen.
void Run::FreeTexts() {
  std::erase_if(texts, [&](const ExactText& text) {
    bool isUsed = false;
    for (const ModelEntry& entry : registry.entries) isUsed = isUsed || entry.txt == text.Get();
    REQUIRE(IsTextRegistered(text.Get()) == isUsed, "a text is registered while an entry has it");
    return !isUsed;
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  Run run(script);
  run.Play();
  return 0;
}
