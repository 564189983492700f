// Status files into the presence monitor and the TXT builder over several passes: the monitor's
// thread body run with a clock that is played.
#include <arpa/inet.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_printer.h"
#include "fuzz/fake_sender.h"
#include "fuzz/input.h"
#include "fuzz/registry_model.h"
#include "fuzz/txt_model.h"
#include "mdns/state.h"
#include "printer/monitor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kMaxPasses = 12;
// Longer than what is read of a file.
constexpr size_t kLongFile = 50000;
constexpr size_t kShortFile = 2000;
constexpr size_t kLongFileBytes = 60000;
constexpr int kPorts = 10;
constexpr int32_t kPdl = 1;
constexpr int32_t kIpp = 2;
constexpr size_t kTxtFieldSize = 513;

// What one pass of the monitor meets.
struct Pass {
  bool isUnreadable;     // the file can't be opened
  std::string seen;      // the file's content as the monitor reads it
  std::string built;     // the content as the TXT builder reads it a moment later
  bool isDeaf;           // the printers can't be asked for their device id
  std::string deviceId;  // what every printer answers
  bool hasBuild;         // the TXT builder is called by itself as well
  int32_t port;
  int32_t kind;
};

std::string Repeat(const std::string& text, unsigned count) {
  std::string repeated;
  for (unsigned i = 0; i < count && repeated.size() <= 40960; ++i) repeated += text;
  return repeated;
}

std::vector<Pass> ReadPasses(Input& script) {
  std::vector<Pass> passes;
  std::string content;
  std::string deviceId;
  size_t read = 0;
  while (!script.IsEmpty() && passes.size() < kMaxPasses) {
    const uint8_t what = script.Byte();
    Pass pass = {};
    pass.isUnreadable = what % 8 == 1;
    // A new file, the last one cut, or the last one and more.
    if (what % 8 == 2) {
      content = content.substr(0, script.Word());
    } else if (what % 8 == 3) {
      content += script.Block();
    } else if (what % 8 > 3) {
      content = script.Block();
    }
    if ((what & 8) != 0) content = Repeat(content, script.Byte());
    // A few whole files a run, then short ones: longer runs show nothing else.
    content = content.substr(0, read < kLongFileBytes ? kLongFile : kShortFile);
    read += content.size();
    if ((what & 16) != 0) deviceId = script.Block();
    pass.isDeaf = (what & 32) != 0;
    pass.seen = content;
    pass.built = (what & 64) != 0 ? content.substr(0, script.Word()) : content;
    pass.hasBuild = (what & 128) != 0;
    if (pass.hasBuild) {
      pass.port = script.Byte() % kPorts;
      pass.kind = script.Byte() % 6;
    }
    pass.deviceId = deviceId;
    passes.push_back(pass);
  }
  return passes;
}

// The last passes of every run: all printers go, also those that changed while they were there, so
// that nothing is left for the next run.
Pass PassOf(const std::string& content) {
  Pass pass = {};
  pass.seen = content;
  pass.built = content;
  return pass;
}

// One run: the passes and what the monitor should have made of them.
class Run {
 public:
  explicit Run(Input& script);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void Play();
  // What happens between two passes.
  void EndPass();

 private:
  void CheckScan(const std::string& content);
  void CheckBuild(const Pass& pass);
  void ApplyPass(const Pass& pass);
  void Insert(const Pass& pass, int port, int32_t kind, const PrinterTxt* txt);
  int32_t BuildTxt(const Pass& pass, int32_t port, int32_t kind, std::string& txt);
  bool IsUsed(const void* txt) const;
  void RequireState() const;

  std::vector<Pass> passes;
  size_t current = 0;
  size_t purgeAt;          // the pass after which the registry is emptied
  bool isBuilder = false;  // the next reader is the TXT builder
  unsigned idReads = 0;
  unsigned idReadsDue = 0;

  std::string deviceName;
  std::string suffix;
  RegistryModel registry;
  ModelPrinters present;
  std::vector<std::string> names = std::vector<std::string>(kPorts, std::string(129, '\0'));
};

Run* run = nullptr;
thread_local bool isMonitor = false;
// The TXT buffers that the monitor took and has not given back.
std::set<const void*> liveTexts;

Run::Run(Input& script) {
  for (int i = 3; i < 6; ++i) hw_addr[i] = script.Byte();
  char text[32];
  snprintf(text, sizeof(text), "(%02x:%02x:%02x) ", hw_addr[3], hw_addr[4], hw_addr[5]);
  suffix = text;
  responderState.connected[0].Set(script.Byte() % 2);
  deviceName = script.Text().substr(0, 64);
  SetDeviceName(deviceName);
  SetDestination();
  multicastSocket.Set(3);
  responderState.interfaceAddress[0].Set(htonl(0xC0A80101));
  passes = ReadPasses(script);
  passes.push_back(PassOf(""));
  purgeAt = passes.size();
  passes.push_back(PassOf("usblp0\nA\nB\nC\n\n"));
  passes.push_back(PassOf(""));

  fakePrinters.statusFile = [this]() -> std::optional<std::string> {
    const Pass& pass = passes[current];
    if (pass.isUnreadable) return std::nullopt;
    const bool isBuilding = isBuilder;
    isBuilder = true;
    return isBuilding ? pass.built : pass.seen;
  };
  fakePrinters.deviceId = [this](int32_t) -> std::optional<std::string> {
    ++idReads;
    const Pass& pass = passes[current];
    if (pass.isDeaf) return std::nullopt;
    return pass.deviceId;
  };
}

Run::~Run() {
  registry.Purge();
  responderState.connected[0].Set(0);
  fakePrinters = {};
}

void Run::Play() {
  for (const Pass& pass : passes) CheckScan(pass.seen);
  bTerminate.Set(0);
  isMonitor = true;
  CheckUsbDevice(nullptr);
  isMonitor = false;
  REQUIRE(current == passes.size(), "the monitor goes on until it is stopped");
  REQUIRE(registry.entries.empty(), "printers that have gone are not published");
  REQUIRE(liveTexts.empty(), "the texts of printers that have gone are given back");
}

// The scan alone, over a block that ends with the text.
void Run::CheckScan(const std::string& content) {
  const ExactBytes text(content);
  PrinterPresence presence = {};
  memset(printerServiceNames, 'x', sizeof(printerServiceNames));
  ScanPrinters(text.Text(), presence);
  const ModelPrinters expected = ModelScan(content, suffix);
  for (size_t port = 0; port < kPorts; ++port) {
    REQUIRE(presence.present[port] == (expected[port] ? 1 : 0),
            "a port has a printer when its record is complete");
    REQUIRE(std::string(printerServiceNames[port], 129) ==
                (expected[port] ? *expected[port] : std::string(129, 'x')),
            "a printer is named after its lines, and no other port's name is touched");
  }
}

int32_t Run::BuildTxt(const Pass& pass, int32_t port, int32_t kind, std::string& txt) {
  if (pass.isUnreadable) return 0;
  return ModelTxt(
      VisibleStatus(pass.built), port, kind, deviceName,
      [&]() -> std::optional<std::string> {
        ++idReadsDue;
        if (pass.isDeaf) return std::nullopt;
        return VisibleId(pass.deviceId);
      },
      txt);
}

// The TXT builder alone, into a block of exactly the caller's size.
void Run::CheckBuild(const Pass& pass) {
  const ExactBytes field(std::string(kTxtFieldSize, '\0'));
  std::string expected;
  const int32_t due = BuildTxt(pass, pass.port, pass.kind, expected);
  const int32_t result = GetTXTData(reinterpret_cast<char*>(field.Data()), pass.port, pass.kind);
  REQUIRE(result == due, "a TXT text has the result that its printer's lines give");
  REQUIRE(field.Data()[kTxtFieldSize - 1] == 0, "a TXT text has at most 512 characters");
  if (result != 1) return;
  expected.resize(kTxtFieldSize);
  REQUIRE(field.Text() == expected, "a TXT text has the lines that its printer's lines give");
}

void Run::EndPass() {
  const Pass& pass = passes[current];
  ApplyPass(pass);
  RequireState();
  isBuilder = true;
  if (pass.hasBuild) CheckBuild(pass);
  REQUIRE(idReads == idReadsDue, "a printer is asked only when its model line is empty");
  if (current + 1 == purgeAt) registry.Purge();
  isBuilder = false;
  if (++current == passes.size()) bTerminate.Set(1);
}

void Run::ApplyPass(const Pass& pass) {
  if (pass.isUnreadable) return;
  const ModelPrinters now = ModelScan(VisibleStatus(pass.seen), suffix);
  for (size_t port = 0; port < kPorts; ++port) {
    if (now[port]) names[port] = *now[port];
  }
  for (int port = 0; port < kPorts; ++port) {
    const auto index = static_cast<size_t>(port);
    const bool was = present[index].has_value();
    const bool is = now[index].has_value();
    if (is && !was) {
      Insert(pass, port, kPdl, printerTxtPdl[port]);
      Insert(pass, port, kIpp, printerTxtIpp[port]);
    } else if (was && !is) {
      const std::string name = names[index].c_str();
      registry.Unregister(name, "_pdl-datastream._tcp", ".local", nullptr, 0,
                          static_cast<uint32_t>(9100 + port));
      registry.Unregister(name, "_ipp._tcp", ".local", nullptr, 0, 631);
    }
  }
  present = now;
}

void Run::Insert(const Pass& pass, int port, int32_t kind, const PrinterTxt* txt) {
  REQUIRE(txt != nullptr, "a printer that is there has its TXT buffers");
  std::string expected;
  if (BuildTxt(pass, port, kind, expected) != 1) return;
  REQUIRE(expected == txt->text, "a service has the TXT text that its printer's lines give");
  REQUIRE(strlen(txt->text) <= 512, "a TXT text has at most 512 characters");
  registry.Register(names[static_cast<size_t>(port)].c_str(),
                    kind == kPdl ? "_pdl-datastream._tcp" : "_ipp._tcp", ".local", txt->text,
                    static_cast<int32_t>(expected.size()),
                    kind == kPdl ? static_cast<uint32_t>(9100 + port) : 631);
}

bool Run::IsUsed(const void* txt) const {
  for (size_t port = 0; port < kPorts; ++port) {
    if (txt == printerTxtPdl[port] || txt == printerTxtIpp[port]) return true;
  }
  for (const ModelEntry& entry : registry.entries) {
    if (txt == entry.txt) return true;
  }
  return false;
}

void Run::RequireState() const {
  registry.RequireSame();
  for (size_t port = 0; port < kPorts; ++port) {
    const bool is = present[port].has_value();
    REQUIRE((printerTxtPdl[port] != nullptr) == is && (printerTxtIpp[port] != nullptr) == is,
            "a port has TXT buffers while it has a printer");
    REQUIRE(std::string(printerServiceNames[port], 129) == names[port],
            "a port is named after the printer that was there last");
  }
  // What the run's own emptying of the registry leaves over goes with the next printer.
  for (const void* txt : liveTexts)
    REQUIRE(current >= purgeAt || IsUsed(txt), "an unused text is given back");
}

}  // namespace

// Stands before the C library's: the pause between two passes, for the monitor; a real pause for
// the fuzzer's own threads.
extern "C" unsigned sleep(unsigned seconds) {
  if (isMonitor) {
    REQUIRE(seconds == 1, "the monitor looks once a second");
    run->EndPass();
    return 0;
  }
  const timespec pause = {static_cast<time_t>(seconds), 0};
  nanosleep(&pause, nullptr);
  return 0;
}

// The linker leads the code under test through these: the monitor's own blocks are followed.
extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void __real_free(void* block);
void __wrap_free(void* block);

void* __wrap_calloc(size_t count, size_t size) {
  void* block = __real_calloc(count, size);
  if (isMonitor && size == sizeof(PrinterTxt)) liveTexts.insert(block);
  return block;
}

void __wrap_free(void* block) {
  liveTexts.erase(block);
  __real_free(block);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  Run one(script);
  run = &one;
  one.Play();
  run = nullptr;
  return 0;
}
