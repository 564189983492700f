// Sequences of datagrams into one answering state, while services come and go.
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "fuzz/fake_socket.h"
#include "fuzz/input.h"
#include "fuzz/registry_model.h"
#include "mdns/answer.h"
#include "mdns/question.h"
#include "records/registration.h"
#include "records/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxSteps = 64;
constexpr size_t kBufferSize = 1518;
constexpr int32_t kAnswerCapacity = 4554;
constexpr int32_t kSocket = 7;
constexpr uint32_t kOwnAddress = 0xC0A80101;
constexpr uint32_t kHostNetwork = 0xC0A80100;

const std::array<const char*, 8> kTypes = {
    "_ipp._tcp", "_pdl-datastream._tcp", "_printer._tcp", "_http._tcp",
    "_ipp._udp", "_ippx._tcp",           "_ip._tcp",      "_printer._tcp.x._ipp"};

std::string LowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  return text;
}

// The names that a message asks for, each as its literal labels, as far as the question count and
// the received bytes reach. A name that the end of the message cuts keeps its whole labels.
std::vector<Labels> QuestionNames(const std::string& message) {
  const auto byteAt = [&](size_t offset) { return static_cast<uint8_t>(message[offset]); };
  const size_t count = byteAt(4) * size_t{256} + byteAt(5);
  std::vector<Labels> names(1);
  size_t offset = 12;
  while (offset < message.size()) {
    const size_t length = byteAt(offset);
    if (length == 0 || length == 0xC0) {
      if (names.size() == count) break;
      offset += length == 0 ? 5 : 6;
      names.emplace_back();
    } else {
      if (length > message.size() - offset - 1) break;
      names.back().push_back(message.substr(offset + 1, length));
      offset += length + 1;
    }
  }
  return names;
}

bool NamesService(const Labels& name, const std::string& label, const std::string& service) {
  for (size_t i = 0; i < name.size(); ++i) {
    if (name[i] != label) continue;
    if (i == 0 || name[0] == service) return true;
    if (name[0] == "_universal" && label == "_ipp") return true;
  }
  return false;
}

// One run: the answering state and what it should be.
class Run {
 public:
  explicit Run(Input& input) : script(input) {}
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void Play();

 private:
  void Restart();
  void RegisterPrinters(unsigned count);
  void Step();
  void Receive(uint32_t sender, const std::string& bytes);
  std::string BuildQuestion();
  void RequireAnswers(uint32_t sender, const std::string& message);
  void RequireServiceAnswers(const std::string& message);
  void RequireAnswer(const ModelPacket& packet);
  bool RefreshAddress();
  void Register();
  void Unregister();
  void AddRaw();
  void ChangeSurroundings();
  std::string Type(uint8_t selector);
  const char* KeepText(const std::string& text);
  void FreeTexts();

  Input& script;
  RegistryModel registry;
  std::vector<ExactText> texts;

  std::unique_ptr<AnsweringState> state;
  std::string deviceName;                   // as the answering state has it
  std::array<uint8_t, kBufferSize> buffer;  // what the receive buffer should hold
  uint32_t ownAddress = 0;
  uint32_t address = 0;    // what the interface's address should be
  uint32_t refreshes = 0;  // how often it should have been read
};

void Run::Restart() {
  char name[65] = {};
  GetDeviceName(name, 64);
  deviceName = name;
  ownAddress = address;
  state = std::make_unique<AnsweringState>();
  StartAnswering(*state, 0);
  buffer.fill(0);
}

void Run::Play() {
  SetDestination();
  multicastSocket.Set(kSocket);
  fakeInterface = {kOwnAddress, 0, 0};
  address = kOwnAddress;
  responderState.interfaceAddress[0].Set(htonl(address));
  const uint8_t start = script.Byte();
  responderState.connected[0].Set(start >> 7);
  SetDeviceName(script.Text());
  Restart();
  RegisterPrinters(start & 15);
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) Step();
}

Run::~Run() {
  registry.Purge();
  responderState.connected[0].Set(0);
}

// As the monitor does it for that many printers.
void Run::RegisterPrinters(unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    const std::string name = "Office " + std::to_string(i) + " (aa:bb:cc) " + std::to_string(i);
    const char* txt = KeepText("txtvers=1\nqtotal=1\nty=Office");
    for (size_t type = 0; type < 2; ++type) {
      const uint32_t port = type == 0 ? 631 : 9100 + i;
      const auto length = static_cast<int32_t>(strlen(txt));
      const uint32_t result =
          RegisterOneService(name.c_str(), kTypes[type], ".local", txt, length, port);
      REQUIRE(result == registry.Register(name, kTypes[type], ".local", txt, length, port),
              "a registration has the result that is due");
    }
  }
}

void Run::Step() {
  const uint8_t operation = script.Byte();
  switch (operation % 8) {
    case 0:
    case 1: {
      const uint32_t sender = kHostNetwork + script.Byte();
      Receive(sender, script.Block());
      break;
    }
    case 2:
    case 3:
      Receive(kHostNetwork + 77, BuildQuestion());
      break;
    case 4:
      Register();
      break;
    case 5:
      Unregister();
      break;
    case 6:
      AddRaw();
      break;
    default:
      ChangeSurroundings();
  }
  FreeTexts();
  registry.RequireSame();
}

// A message of labels that mean something, so that the long ones need not be guessed.
std::string Run::BuildQuestion() {
  std::string message(12, '\0');
  message[5] = static_cast<char>(script.Byte());
  const auto addLabel = [&](const std::string& label) {
    message.push_back(static_cast<char>(label.size()));
    message += label;
  };
  for (unsigned parts = script.Byte() % 32; parts > 0; --parts) {
    const uint8_t part = script.Byte();
    switch (part % 16) {
      case 0:
        addLabel(deviceName);
        break;
      case 1:
        addLabel(LowerCase(deviceName));
        break;
      case 2:
      case 3:
        if (!registry.entries.empty()) {
          addLabel(registry.entries[script.Byte() % registry.entries.size()].name);
        }
        break;
      case 4:
        addLabel("_ipp");
        break;
      case 5:
        addLabel("_pdl-datastream");
        break;
      case 6:
        addLabel("_printer");
        break;
      case 7:
        addLabel("_universal");
        break;
      case 8:
        addLabel("_sub");
        break;
      case 9:
        addLabel("_tcp");
        break;
      case 10:
        addLabel("local");
        break;
      case 11:
        message += std::string("\0\0\x01\0\x01", 5);
        break;
      case 12:
        message += std::string("\xC0\x0C\0\x0C\x80\x01", 6);
        break;
      case 13:
        addLabel(script.Text());
        break;
      case 14:
        message.push_back(static_cast<char>(script.Byte()));
        break;
      default:
        message.resize(message.size() - std::min<size_t>(message.size(), script.Byte()));
    }
  }
  return message;
}

void Run::Receive(uint32_t sender, const std::string& bytes) {
  const std::string message = bytes.substr(0, kBufferSize);
  if (message.empty()) return;
  message.copy(reinterpret_cast<char*>(buffer.data()), message.size());
  message.copy(reinterpret_cast<char*>(state->receiveBuffer), message.size());

  sockaddr_in from = {};
  from.sin_family = AF_INET;
  from.sin_port = htons(5353);
  from.sin_addr.s_addr = htonl(sender);
  AnswerMessage(*state, message.size(), from, kSocket);

  RequireAnswers(sender, message);
  REQUIRE(fakeInterface.calls == refreshes, "the address is read once before each answer");
  REQUIRE(memcmp(state->receiveBuffer, buffer.data(), buffer.size()) == 0,
          "answering leaves the receive buffer as it was");
  REQUIRE(state->hostName.text == deviceName.substr(0, 57) + ".local",
          "the host name is the device name, cut, and the domain");
}

// The packets that the message should have caused. The host name's test looks at what is left over
// from earlier messages, too.
void Run::RequireAnswers(uint32_t sender, const std::string& message) {
  if (sender == ownAddress || buffer[2] != 0) return;

  const size_t length = buffer[12];
  const std::string label(reinterpret_cast<const char*>(&buffer[13]), length);
  const bool forHost = LowerCase(label.c_str()) == LowerCase(deviceName);
  const ExactBytes whole({reinterpret_cast<const char*>(buffer.data()), buffer.size()});
  REQUIRE(AsksForHostName(MessageReader(whole.Data(), whole.Size()), deviceName) == forHost,
          "a message asks for the host name when its first label says so");
  if (!forHost) {
    RequireServiceAnswers(message);
  } else if (buffer[21 + length] == 1 && RefreshAddress()) {
    RequireAnswer(HostAnswer(deviceName.substr(0, 57) + ".local", DottedText(address)));
  }
}

void Run::RequireServiceAnswers(const std::string& message) {
  if (message.size() < 13) return;
  const ExactBytes exact(message);
  const std::vector<Labels> names = QuestionNames(message);
  for (const ModelEntry& entry : registry.entries) {
    const size_t dot = entry.type.find('.');
    if (dot == std::string::npos) continue;
    const std::string label = entry.type.substr(0, dot);
    bool isNamed = false;
    for (const Labels& name : names) isNamed = isNamed || NamesService(name, label, entry.name);
    REQUIRE(AsksForService(MessageReader(exact.Data(), exact.Size()), label, entry.name) == isNamed,
            "a message asks for a service when a question names it");

    const bool isPrinter = label == "_ipp" || label == "_printer" || label == "_pdl-datastream";
    if (!isNamed || !isPrinter || !RefreshAddress()) continue;
    RequireAnswer(ServiceResponse({deviceName.substr(0, 57) + ".local", DottedText(address),
                                   entry.name, entry.type, entry.domain, entry.text, entry.port},
                                  label == "_ipp"));
  }
}

void Run::RequireAnswer(const ModelPacket& packet) {
  RequireNextPacket(packet, kAnswerCapacity, kSocket);
}

bool Run::RefreshAddress() {
  const bool found = (fakeInterface.failures >> refreshes % 8 & 1) == 0;
  ++refreshes;
  if (found) address = fakeInterface.address;
  return found;
}

void Run::Register() {
  const uint8_t selector = script.Byte();
  const ExactText name(script.Text());
  const ExactText type(Type(selector));
  const std::string text = script.LongText();
  const char* txt = nullptr;
  auto length = static_cast<int32_t>(text.size());
  switch (selector / 16 % 5) {
    case 0:
      txt = KeepText(text);
      break;
    case 1:
      txt = KeepText(text);
      length /= 2;
      break;
    case 2:
      txt = KeepText(text);
      length += 7;
      break;
    case 3:
      break;
    default:
      length = 0;
  }
  const uint32_t port = script.Word();
  const uint32_t result = RegisterOneService(name.Get(), type.Get(), ".local", txt, length, port);
  REQUIRE(result == registry.Register(name.Get(), type.Get(), ".local", txt, length, port),
          "a registration has the result that is due");
}

void Run::Unregister() {
  const uint8_t selector = script.Byte();
  const ExactText name(script.Text());
  const ExactText type(Type(selector));
  const uint32_t result = UnRegisterOneService(name.Get(), type.Get(), ".local", nullptr, 0, 0);
  REQUIRE(result == registry.Unregister(name.Get(), type.Get(), ".local", nullptr, 0, 0),
          "a withdrawal has the result that is due");
}

// Past the validation: texts that are cut, types without a dot, domains of any kind.
void Run::AddRaw() {
  const ExactText name(script.Text());
  const ExactText type(script.Text());
  const ExactText domain(script.Text());
  const uint32_t port = script.Long();
  const uint32_t result =
      ServiceRegistryUpdate(SERVICE_ADD, name.Get(), type.Get(), domain.Get(), nullptr, 0, port);
  REQUIRE(result == registry.Add(name.Get(), type.Get(), domain.Get(), nullptr, 0, port),
          "an addition has the result that is due");
}

void Run::ChangeSurroundings() {
  const uint8_t what = script.Byte();
  if ((what & 1) != 0) fakeInterface.address = script.Long();
  if ((what & 2) != 0) fakeInterface.failures = script.Byte();
  // Reaches the answering state only when that starts again.
  if ((what & 4) != 0) SetDeviceName(script.Text());
  if ((what & 8) != 0) Restart();
}

std::string Run::Type(uint8_t selector) {
  const size_t index = selector % 16;
  return index < kTypes.size() ? kTypes[index] : script.Text();
}

const char* Run::KeepText(const std::string& text) {
  texts.emplace_back(text);
  return texts.back().Get();
}

// At the earliest moment, so that a late look at one is seen.
void Run::FreeTexts() {
  std::erase_if(texts, [&](const ExactText& text) {
    for (const ModelEntry& entry : registry.entries) {
      if (entry.txt == text.Get()) return false;
    }
    return true;
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  Run run(input);
  run.Play();
  return 0;
}
