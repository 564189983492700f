// Status files into the presence monitor and the TXT builder over several passes: the monitor's
// thread body run with a clock that is played.
#include <arpa/inet.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/fake_printer.h"
#include "fuzz/fake_sender.h"
#include "fuzz/input.h"
#include "fuzz/registry_check.h"
#include "mdns/state.h"
#include "printer/monitor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kMaxPasses = 12;
// Longer than what is read of a file.
constexpr size_t kLongFile = 50000;
constexpr size_t kShortFile = 2000;
constexpr size_t kLongFileBytes = 60000;
constexpr size_t kPorts = 10;

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

// One run: the passes, and what is true after each.
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
  static void CheckScan(const std::string& content);
  void RequireSoundState() const;

  std::vector<Pass> passes;
  size_t current = 0;
  size_t purgeAt;          // the pass after which the registry is emptied
  bool isBuilder = false;  // the next reader is the TXT builder
};

Run* run = nullptr;
thread_local bool isMonitor = false;
// The TXT buffers that the monitor took and has not given back.
std::set<const void*> liveTexts;

Run::Run(Input& script) {
  for (int i = 3; i < 6; ++i) hw_addr[i] = script.Byte();
  responderState.connected[0].Set(script.Byte() % 2);
  SetDeviceName(script.Text());
  SetDestination();
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
    const Pass& pass = passes[current];
    if (pass.isDeaf) return std::nullopt;
    return pass.deviceId;
  };
}

Run::~Run() {
  EmptyRegistry();
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
  REQUIRE(RequireSoundRegistry().empty(), "printers that have gone are not published");
  REQUIRE(liveTexts.empty(), "the texts of printers that have gone are given back");
}

// The scan alone, over a block that ends with the text.
void Run::CheckScan(const std::string& content) {
  const ExactBytes text(content);
  PrinterPresence presence = {};
  memset(printerServiceNames, 'x', sizeof(printerServiceNames));
  ScanPrinters(text.Text(), presence);
  for (size_t port = 0; port < kPorts; ++port) {
    const std::string name(printerServiceNames[port], sizeof(printerServiceNames[port]));
    if (presence.present[port] == 0) {
      REQUIRE(name == std::string(name.size(), 'x'), "no port without a printer is named");
    } else {
      REQUIRE(name.find(") " + std::to_string(port) + '\0') != std::string::npos,
              "a printer's name ends in its port");
    }
  }
}

void Run::EndPass() {
  const Pass& pass = passes[current];
  RequireSoundState();
  isBuilder = true;
  if (pass.hasBuild) RequireSoundTxt(pass.port, pass.kind);
  if (current + 1 == purgeAt) EmptyRegistry();
  isBuilder = false;
  if (++current == passes.size()) bTerminate.Set(1);
}

void Run::RequireSoundState() const {
  std::set<const void*> used;
  for (size_t port = 0; port < kPorts; ++port) {
    REQUIRE((printerTxtPdl[port] != nullptr) == (printerTxtIpp[port] != nullptr),
            "a port has both of its TXT buffers or none");
    used.insert({printerTxtPdl[port], printerTxtIpp[port]});
  }
  for (const ServiceEntry& entry : RequireSoundRegistry()) {
    const bool isIpp = std::string_view(entry.serviceType) == "_ipp._tcp";
    REQUIRE(isIpp ? entry.port == 631 : entry.port >= 9100 && entry.port < 9100 + kPorts,
            "a service has the port of its kind");
    REQUIRE(entry.txt != nullptr && strlen(entry.txt) <= 512,
            "a service has a TXT text of at most 512 characters");
    used.insert(entry.txt);
  }
  // What the run's own emptying of the registry leaves over goes with the next printer.
  for (const void* txt : liveTexts) {
    REQUIRE(current >= purgeAt || used.contains(txt), "an unused text is given back");
  }
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
