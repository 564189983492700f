// Sequences of datagrams into one answering state, while services come and go.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_sender.h"
#include "fuzz/fake_socket.h"
#include "fuzz/input.h"
#include "fuzz/registry_check.h"
#include "mdns/answer.h"
#include "mdns/question.h"
#include "records/registration.h"
#include "records/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxSteps = 64;
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

// One run: the answering state and the link around it.
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
  void RequireSoundAnswers(uint32_t sender, uint32_t refreshes) const;
  void Register();
  void Unregister();
  void AddRaw();
  void ChangeSurroundings();
  std::string Type(uint8_t selector);
  const char* KeepText(const std::string& text);
  void FreeTexts();

  Input& script;
  std::vector<ServiceEntry> services;
  std::vector<ExactText> texts;
  std::unique_ptr<AnsweringState> state;
  std::string deviceName;  // as the answering state has it
};

void Run::Restart() {
  char name[65] = {};
  GetDeviceName(name, 64);
  deviceName = name;
  state = std::make_unique<AnsweringState>();
  StartAnswering(*state, 0);
}

void Run::Play() {
  SetDestination();
  fakeInterface = {kOwnAddress, 0, 0};
  responderState.interfaceAddress[0].Set(htonl(kOwnAddress));
  const uint8_t start = script.Byte();
  responderState.connected[0].Set(start >> 7);
  SetDeviceName(script.Text());
  Restart();
  RegisterPrinters(start & 15);
  services = RequireSoundRegistry();
  for (int i = 0; i < kMaxSteps && !script.IsEmpty(); ++i) Step();
}

Run::~Run() {
  EmptyRegistry();
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
      RegisterOneService(name.c_str(), kTypes[type], ".local", txt, length, port);
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
  services = RequireSoundRegistry();
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
        if (!services.empty()) addLabel(services[script.Byte() % services.size()].serviceName);
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
  const std::string message = bytes.substr(0, kReceiveSize);
  if (message.empty()) return;
  message.copy(reinterpret_cast<char*>(state->receiveBuffer), message.size());
  const std::vector<uint8_t> before(std::begin(state->receiveBuffer),
                                    std::end(state->receiveBuffer));
  const uint32_t refreshes = fakeInterface.calls;
  sentPackets.clear();

  sockaddr_in from = {};
  from.sin_family = AF_INET;
  from.sin_port = htons(5353);
  from.sin_addr.s_addr = htonl(sender);
  AnswerMessage(*state, message.size(), from, multicastSocket.Get());

  REQUIRE(std::equal(before.begin(), before.end(), state->receiveBuffer),
          "answering leaves the receive buffer as it was");
  RequireSoundAnswers(sender, fakeInterface.calls - refreshes);

  // The same looks, where a byte too far is seen: of the service scan at the message, of the
  // host-name test at the whole buffer.
  const ExactBytes exact(message);
  const MessageReader reader(exact.Data(), exact.Size());
  const std::string service = services.empty() ? "" : services.front().serviceName;
  if (message.size() > kHeaderSize) AsksForService(reader, "_ipp", service);
  const ExactBytes whole({reinterpret_cast<const char*>(before.data()), before.size()});
  AsksForHostName(MessageReader(whole.Data(), whole.Size()), deviceName);
}

void Run::RequireSoundAnswers(uint32_t sender, uint32_t refreshes) const {
  REQUIRE(sentPackets.empty() ||
              (htonl(sender) != state->ownAddress && state->receiveBuffer[kFlagsOffset] == 0),
          "only queries from other hosts are answered");
  REQUIRE(sentPackets.size() <= std::max<size_t>(services.size(), 1),
          "a service is answered once a message");
  REQUIRE(sentPackets.size() <= refreshes, "the address is read before each answer");
  for (const SentPacket& sent : sentPackets) {
    if (!sent.message) continue;
    const std::vector<WireRecord>& answers = sent.message->answers;
    REQUIRE(answers.size() == 1 || answers.size() == 4 || answers.size() == 5,
            "an answer has the records of the host or of a service");
    REQUIRE(sent.message->questions.empty() && sent.message->authorities.empty(),
            "a response has answers only");
    REQUIRE(answers[0].type == kTypeA, "an answer begins with the host's address");
  }
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
  RegisterOneService(name.Get(), type.Get(), ".local", txt, length, port);
}

void Run::Unregister() {
  const uint8_t selector = script.Byte();
  const ExactText name(script.Text());
  const ExactText type(Type(selector));
  UnRegisterOneService(name.Get(), type.Get(), ".local", nullptr, 0, 0);
}

// Past the validation: texts that are cut, types without a dot, domains of any kind.
void Run::AddRaw() {
  const ExactText name(script.Text());
  const ExactText type(script.Text());
  const ExactText domain(script.Text());
  const uint32_t port = script.Long();
  ServiceRegistryUpdate(SERVICE_ADD, name.Get(), type.Get(), domain.Get(), nullptr, 0, port);
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
  std::erase_if(texts, [](const ExactText& text) { return !IsTextRegistered(text.Get()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  Run run(input);
  run.Play();
  return 0;
}
