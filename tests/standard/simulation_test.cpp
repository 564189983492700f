// Scenarios drawn from seeds on a simulated link. BONJOUR_SIMULATION_SEEDS=N runs N of them,
// BONJOUR_SIMULATION_SEED=S the one alone, with each of its packets on standard error.
#include "tests/standard/simulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

using std::string;
using std::vector;

constexpr int64_t kMinute = 60000;
constexpr uint16_t kUnicastBit = 0x8000;

// How many seeds are run when nobody says.
constexpr size_t kSeeds = BONJOUR_SIMULATION_SEEDS;

// The seeds are dealt out to so many tests, which may run at the same time.
constexpr size_t kHands = 4;

const char* const kTypes[] = {"_ipp._tcp", "_pdl-datastream._tcp", "_printer._tcp"};

// A scenario: who is there, what happens, and what the link does to it.
class Scenario {
 public:
  Scenario(uint64_t seed, bool isTraced);
  // What went wrong; empty when nothing did.
  string Run();

 private:
  void DrawFaults();
  void DrawHosts();
  string DrawName();
  LinkState DrawLink();
  SimulatedService DrawService(size_t host);
  void AddServices(size_t host, size_t count);
  LinkAddress NewAddress(Family family, bool isGlobal);
  void Happen();
  void ChangeAddresses(size_t host);
  void AskAnything();
  PacketQuestion DrawQuestion();
  void Settle(int64_t limit);
  void CheckSettled();
  void CheckUnique();
  void CheckNoNeedlessNames();
  void CheckKnown(int64_t since, bool withNsec);
  void CheckNoneDead();
  bool WalkOnce();
  void Walk();
  void CheckSilenceAboutKnown();
  void CheckResolversAreAnswered();
  void CheckSetsStayWhole();
  void StopSome();

  Dice dice;
  Simulation link;
  bool isLossy = false;  // some packets do not reach a host
  bool hasEqualNames = false;
  bool isPartitioned = false;
  bool hasLongDelays = false;
  uint32_t nextAddress = 1;
  uint16_t nextPort = 9100;
};

Scenario::Scenario(uint64_t seed, bool isTraced)
    : dice(seed), link(dice.Next(), dice.Chance(20) ? dice.Between(1, 40) : 0, isTraced) {}

void Scenario::DrawFaults() {
  Faults faults = {};
  switch (dice.Below(8)) {
    case 0:
    case 1:
    case 2:
      break;
    case 3:
      faults.delayMax = dice.Between(1, 60);
      break;
    case 4:
      faults.doublePercent = static_cast<size_t>(dice.Between(1, 60));
      faults.delayMax = dice.Between(0, 20);
      break;
    case 5:
      faults.lossPercent = static_cast<size_t>(dice.Between(1, 50));
      isLossy = true;
      break;
    case 6:
      faults.delayMax = dice.Between(100, 1500);
      hasLongDelays = true;
      break;
    default:
      faults.lossPercent = static_cast<size_t>(dice.Between(0, 30));
      faults.doublePercent = static_cast<size_t>(dice.Between(0, 30));
      faults.delayMax = dice.Between(0, 300);
      isLossy = hasLongDelays = true;
      break;
  }
  isPartitioned = dice.Chance(15);
  link.Reflect(dice.Chance(10));
  link.SetFaults(faults);
}

string Scenario::DrawName() {
  if (!hasEqualNames) return "host" + std::to_string(link.Hosts().size());
  static const char* const kNames[] = {"T5140", "t5140", "T5140-1"};
  if (dice.Chance(10)) return string(63, 'a');
  return kNames[dice.Below(dice.Chance(70) ? 1 : 3)];
}

LinkAddress Scenario::NewAddress(Family family, bool isGlobal) {
  LinkAddress address = {};
  address.address.family = family;
  uint8_t* bytes = address.address.bytes;
  const uint32_t number = nextAddress++;
  if (family == Family::kIpv4) {
    const uint8_t start[] = {192, 168, static_cast<uint8_t>(number / 250),
                             static_cast<uint8_t>(1 + number % 250)};
    memcpy(bytes, start, sizeof(start));
    address.prefixLength = 16;
    return address;
  }
  bytes[0] = isGlobal ? 0x20 : 0xFE;
  bytes[1] = isGlobal ? 0x01 : 0x80;
  bytes[14] = static_cast<uint8_t>(number >> 8);
  bytes[15] = static_cast<uint8_t>(number);
  address.prefixLength = 64;
  return address;
}

LinkState Scenario::DrawLink() {
  LinkState state = {};
  state.isUp = true;
  const uint16_t mtus[] = {1500, 1500, 1500, 1280, 576};
  state.mtu = mtus[dice.Below(5)];
  // Equal machines have equal hardware addresses, at times.
  state.mac[5] = static_cast<uint8_t>(dice.Chance(30) ? 1 : 1 + link.Hosts().size());
  const size_t which = dice.Below(10);
  const auto add = [&](Family family, bool isGlobal) {
    state.addresses[state.addressCount++] = NewAddress(family, isGlobal);
  };
  if (which != 0) add(Family::kIpv4, false);
  if (which != 1) add(Family::kIpv6, false);
  if (dice.Chance(20)) add(Family::kIpv4, false);
  if (dice.Chance(20)) add(Family::kIpv6, true);
  return state;
}

SimulatedService Scenario::DrawService(size_t host) {
  SimulatedService service = {};
  service.instance = "Printer " + std::to_string(dice.Below(3));
  if (!hasEqualNames) service.instance += " of " + std::to_string(host);
  // Longer than a label; cut, the last digit is not there.
  if (dice.Chance(5)) service.instance += string(62, 'x');
  if (hasEqualNames && dice.Chance(5)) service.instance += std::to_string(dice.Below(2));
  service.type = kTypes[dice.Below(3)];
  service.port = nextPort++;
  for (size_t lines = dice.Below(4); lines > 0; --lines) {
    service.txt += "key=" + string(dice.Below(100), 'v') + "\n";
  }
  return service;
}

void Scenario::AddServices(size_t host, size_t count) {
  for (; count > 0; --count) {
    const SimulatedService service = DrawService(host);
    const auto& services = link.Hosts()[host].services;
    const bool isThere = std::any_of(services.begin(), services.end(), [&](const auto& other) {
      return other.instance == service.instance && other.type == service.type;
    });
    if (!isThere) link.AddService(host, service);
  }
}

void Scenario::DrawHosts() {
  const size_t kinds[] = {2, 2, 3, 3, 4, 5};
  size_t count = kinds[dice.Below(6)];
  if (dice.Chance(2)) count = 6 + dice.Below(6);
  hasEqualNames = dice.Chance(60);
  for (size_t i = 0; i < count; ++i) {
    const size_t host = link.AddHost(DrawName(), DrawLink());
    AddServices(host, dice.Chance(5) ? 8 : dice.Below(4));
  }
}

void Scenario::ChangeAddresses(size_t host) {
  LinkState state = link.Hosts()[host].link;
  const size_t which = dice.Below(state.addressCount + size_t{1});
  switch (dice.Below(4)) {
    case 0:
      state.mac[4] = static_cast<uint8_t>(1 + dice.Below(100));
      break;
    case 1:
      if (state.addressCount == 0) break;
      state.addresses[which % state.addressCount] = state.addresses[state.addressCount - 1];
      --state.addressCount;
      break;
    case 2:
      if (state.addressCount != 0) {
        LinkAddress& address = state.addresses[which % state.addressCount];
        address = NewAddress(address.address.family, false);
      }
      break;
    default:
      if (state.addressCount < 5) {
        const Family family = dice.Chance(50) ? Family::kIpv4 : Family::kIpv6;
        state.addresses[state.addressCount++] = NewAddress(family, dice.Chance(50));
      }
  }
  link.SetLink(host, state);
}

PacketQuestion Scenario::DrawQuestion() {
  PacketQuestion question = {};
  question.classBits = dice.Chance(30) ? kUnicastBit | kClassIn : kClassIn;
  const size_t host = dice.Below(link.Hosts().size());
  const Family family = dice.Chance(50) ? Family::kIpv4 : Family::kIpv6;
  vector<PacketRecord> records;
  if (link.Hosts()[host].isOn) records = link.LiveRecords(host, family);
  const uint16_t types[] = {kTypeA, kTypeAaaa, kTypePtr, kTypeSrv, kTypeTxt, kTypeNsec, kTypeAny};
  if (records.empty()) {
    question.name = PacketName({"_services", "_dns-sd", "_udp", "local"});
    question.type = kTypePtr;
  } else {
    const PacketRecord& record = records[dice.Below(records.size())];
    question.name = record.name;
    question.type = dice.Chance(60) ? record.type : types[dice.Below(7)];
  }
  return question;
}

void Scenario::AskAnything() {
  const Family family = dice.Chance(50) ? Family::kIpv4 : Family::kIpv6;
  Asking asking = {};
  asking.port = dice.Chance(20) ? 40000 : kMdnsPort;
  asking.asker = dice.Below(3);
  asking.isTruncated = asking.port == kMdnsPort && dice.Chance(15);
  for (size_t count = 1 + dice.Below(dice.Chance(30) ? 5 : 1); count > 0; --count) {
    asking.questions.push_back(DrawQuestion());
  }
  if (dice.Chance(50)) {
    link.ListenerOf(family).ForEachAlive(link.Now(), [&](const HeardRecord& heard) {
      if (heard.record.name != asking.questions[0].name || asking.known.size() > 9 ||
          dice.Chance(30)) {
        return;
      }
      asking.known.push_back(heard.record);
      asking.known.back().classBits = kClassIn;
      if (dice.Chance(30)) asking.known.back().ttl /= 3;
    });
  }
  link.Ask(family, asking);
}

void Scenario::Happen() {
  const size_t host = dice.Below(link.Hosts().size());
  const SimulatedHost& state = link.Hosts()[host];
  if (!state.isOn) {
    link.SwitchOn(host);
    return;
  }
  if (state.isStopping) return;
  switch (dice.Below(12)) {
    case 0:
      link.Crash(host);
      break;
    case 1:
      link.Stop(host);
      break;
    case 2:
    case 3:
      AddServices(host, 1 + dice.Below(2));
      break;
    case 4:
    case 5:
      if (!state.services.empty()) link.RemoveService(host, dice.Below(state.services.size()));
      break;
    case 6:
      link.Plug(host, !state.hasCable);
      break;
    case 7:
    case 8:
      ChangeAddresses(host);
      break;
    case 9:
      if (isPartitioned) link.SetGroup(host, 1 - state.group);
      break;
    default:
      AskAnything();
  }
}

// Until the link is silent, and the listeners have forgotten what they were told to.
void Scenario::Settle(int64_t limit) {
  link.RunUntilSilent(limit);
  link.RunUntil(link.Now() + 1100);
}

void Scenario::CheckSettled() {
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (!link.IsSettled(i)) link.Fail("host " + std::to_string(i) + " has not settled");
  }
}

void Scenario::CheckUnique() {
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    vector<string> all;
    for (size_t i = 0; i < link.Hosts().size(); ++i) {
      if (!link.Hosts()[i].isOn) continue;
      for (const string& name : link.HeldNames(i, family)) all.push_back(name);
    }
    std::sort(all.begin(), all.end());
    const auto twice = std::adjacent_find(all.begin(), all.end());
    if (twice != all.end()) link.Fail("held by two: " + NameInWords(*twice));
  }
}

void Scenario::CheckNoNeedlessNames() {
  for (size_t i = 0; !hasEqualNames && i < link.Hosts().size(); ++i) {
    if (link.IsRenamed(i)) link.Fail("host " + std::to_string(i) + " took a name without need");
  }
}

// The listeners know every record of every host, which they heard at `since` or later.
void Scenario::CheckKnown(int64_t since, bool withNsec) {
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    for (size_t i = 0; i < link.Hosts().size(); ++i) {
      if (!link.Hosts()[i].isOn) continue;
      for (const PacketRecord& record : link.LiveRecords(i, family)) {
        if (record.type == kTypeNsec && !withNsec) continue;
        const HeardRecord* heard = link.ListenerOf(family).Find(record);
        const bool isKnown =
            heard != nullptr && IsKept(*heard, link.Now()) && heard->heardAt >= since;
        if (isKnown) continue;
        Packet packet = {};
        packet.records.push_back(record);
        link.Fail("of host " + std::to_string(i) + " nobody knows on v" +
                  (family == Family::kIpv4 ? "4" : "6") + PacketInWords(packet));
      }
    }
  }
}

// What the listeners know is true.
void Scenario::CheckNoneDead() {
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    vector<string> live;
    for (size_t i = 0; i < link.Hosts().size(); ++i) {
      if (!link.Hosts()[i].isOn) continue;
      for (const PacketRecord& record : link.LiveRecords(i, family)) {
        live.push_back(RecordKeyOf(record));
      }
    }
    std::sort(live.begin(), live.end());
    link.ListenerOf(family).ForEachAlive(link.Now(), [&](const HeardRecord& heard) {
      if (heard.isExcused ||
          std::binary_search(live.begin(), live.end(), RecordKeyOf(heard.record))) {
        return;
      }
      Packet packet = {};
      packet.records.push_back(heard.record);
      link.Fail("of host " + std::to_string(heard.sender) + " is still known" +
                PacketInWords(packet));
    });
  }
}

// Asks for all that there is; every record is heard again. True when no name changed over it.
bool Scenario::WalkOnce() {
  vector<vector<string>> before;
  const int64_t began = link.Now();
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    vector<string> names;
    for (size_t i = 0; i < link.Hosts().size(); ++i) {
      if (!link.Hosts()[i].isOn) continue;
      for (const PacketRecord& record : link.LiveRecords(i, family)) names.push_back(record.name);
      before.push_back(link.HeldNames(i, family));
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (size_t first = 0; first < names.size(); first += 8) {
      Asking asking = {};
      asking.port = kMdnsPort;
      for (size_t i = first; i < std::min(first + 8, names.size()); ++i) {
        asking.questions.push_back({names[i], kTypeAny, kClassIn});
      }
      link.Ask(family, asking);
    }
  }
  Settle(20 * kMinute);
  CheckSettled();
  CheckNoneDead();
  vector<vector<string>> after;
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    for (size_t i = 0; i < link.Hosts().size(); ++i) {
      if (link.Hosts()[i].isOn) after.push_back(link.HeldNames(i, family));
    }
  }
  if (before != after) return false;
  CheckKnown(began, false);
  return true;
}

void Scenario::Walk() {
  for (int i = 0; i < 20; ++i) {
    if (WalkOnce() || !link.Failure().empty()) return;
  }
  link.Fail("names go on changing");
}

// Who knows all the answers hears none.
void Scenario::CheckSilenceAboutKnown() {
  const Family family = dice.Chance(50) ? Family::kIpv4 : Family::kIpv6;
  Asking asking = {};
  asking.port = kMdnsPort;
  asking.questions.push_back({PacketName({"_ipp", "_tcp", "local"}), kTypePtr, kClassIn});
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (!link.Hosts()[i].isOn) continue;
    for (PacketRecord record : link.LiveRecords(i, family)) {
      if (record.name != asking.questions[0].name) continue;
      record.ttl = 2250;
      asking.known.push_back(record);
    }
  }
  const size_t sent = link.Sent();
  link.Ask(family, asking);
  link.RunUntilSilent(kMinute);
  if (link.Sent() != sent) link.Fail("an answer that is known already");
}

// A conventional resolver is told every host's address, once.
void Scenario::CheckResolversAreAnswered() {
  const Family family = dice.Chance(50) ? Family::kIpv4 : Family::kIpv6;
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (!link.Hosts()[i].isOn || link.LiveRecords(i, family).empty()) continue;
    Asking asking = {};
    asking.port = 40000;
    const uint16_t type = family == Family::kIpv4 ? kTypeA : kTypeAaaa;
    asking.questions.push_back({link.LiveRecords(i, family)[0].name, type, kClassIn});
    const size_t told = link.Told();
    link.Ask(family, asking);
    link.RunUntilSilent(kMinute);
    if (link.Told() != told + 1) link.Fail("a resolver is told nothing, or too much");
  }
}

// Who knows the first of several addresses is told all of them: the cache-flush bit says so.
void Scenario::CheckSetsStayWhole() {
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (!link.Hosts()[i].isOn) continue;
    const vector<PacketRecord> records = link.LiveRecords(i, Family::kIpv4);
    const auto isAddress = [](const auto& record) { return record.type == kTypeA; };
    if (std::count_if(records.begin(), records.end(), isAddress) < 2) continue;
    Asking asking = {};
    asking.port = kMdnsPort;
    PacketRecord known = *std::find_if(records.begin(), records.end(), isAddress);
    asking.questions.push_back({known.name, kTypeA, kClassIn});
    known.ttl = 120;
    asking.known.push_back(known);
    link.Ask(Family::kIpv4, asking);
    Settle(kMinute);
    CheckKnown(0, false);
  }
}

void Scenario::StopSome() {
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (link.Hosts()[i].isOn && dice.Chance(60)) link.Stop(i);
  }
  Settle(kMinute);
  CheckKnown(0, false);
  CheckNoneDead();
}

string Scenario::Run() {
  DrawFaults();
  link.HoldNamesUnique(!isLossy && !isPartitioned && !hasLongDelays);
  DrawHosts();
  const bool isAtOnce = dice.Chance(50);
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    if (!isAtOnce) link.RunUntil(link.Now() + dice.Between(0, dice.Chance(50) ? 500 : 5000));
    if (dice.Chance(90)) link.SwitchOn(i);
    if (isPartitioned) link.SetGroup(i, dice.Below(2));
  }
  for (size_t left = dice.Below(14); left > 0 && link.Failure().empty(); --left) {
    link.RunUntil(link.Now() + dice.Between(0, dice.Chance(60) ? 1500 : 8000));
    Happen();
  }
  for (size_t i = 0; i < link.Hosts().size(); ++i) link.SetGroup(i, 0);
  link.SetFaults({});
  Settle(20 * kMinute);
  CheckSettled();
  CheckNoneDead();
  if (!isLossy && !isPartitioned && !hasLongDelays) {
    CheckUnique();
    CheckKnown(0, true);
  }
  CheckNoNeedlessNames();
  if (!link.Failure().empty()) return link.Failure();
  Walk();
  CheckUnique();
  CheckNoNeedlessNames();
  CheckSilenceAboutKnown();
  CheckResolversAreAnswered();
  CheckSetsStayWhole();
  StopSome();
  return link.Failure();
}

size_t SeedsWanted() {
  const char* wanted = getenv("BONJOUR_SIMULATION_SEEDS");
  return wanted != nullptr ? strtoul(wanted, nullptr, 10) : kSeeds;
}

// More would say no more.
constexpr size_t kFailuresShown = 5;

bool RunSeed(uint64_t seed, bool isTraced) {
  const string failure = Scenario(seed, isTraced).Run();
  EXPECT_EQ(failure, "") << "to repeat it: BONJOUR_SIMULATION_SEED=" << seed;
  return failure.empty();
}

class SimulationSeeds : public testing::TestWithParam<size_t> {};

TEST_P(SimulationSeeds, HoldWhatIsTrueAtAnyTime) {
  if (const char* seed = getenv("BONJOUR_SIMULATION_SEED")) {
    if (GetParam() == 0) RunSeed(strtoull(seed, nullptr, 10), true);
    return;
  }
  const size_t seeds = SeedsWanted();
  size_t failures = 0;
  for (size_t seed = GetParam(); seed < seeds && failures < kFailuresShown; seed += kHands) {
    if (!RunSeed(seed, false)) ++failures;
  }
}

INSTANTIATE_TEST_SUITE_P(Hand, SimulationSeeds, testing::Range<size_t>(0, kHands));

// What failed once. Another way of drawing scenarios makes others of them.
TEST(Simulation, SeedsThatFailedOnceHold) {
  struct Row {
    uint64_t seed;
    const char* why;
  };
  const Row rows[] = {
      {836, "a stop reserved the flagship's name again and probed for it behind the goodbyes"},
      {2053, "a stop did not withdraw a reserved name that an LPD service had just taken"},
      {0, "printers that each lost one name against the other gave way to each other for ever"},
      {2340, "a type stayed on the list of types after a printer that was between two names"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    RunSeed(row.seed, false);
  }
}

LinkState LinkOf(size_t host) {
  LinkState state = {};
  state.isUp = true;
  state.mtu = 1500;
  state.mac[4] = static_cast<uint8_t>(host >> 8);
  state.mac[5] = static_cast<uint8_t>(host);
  const auto high = static_cast<uint8_t>(host >> 8);
  const auto low = static_cast<uint8_t>(host);
  state.addressCount = 2;
  state.addresses[0] = {{Family::kIpv4, {192, 168, high, low}}, 16};
  state.addresses[1] = {
      {Family::kIpv6, {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, high, low}}, 64};
  return state;
}

// The power comes back for all at once.
void PowerUp(Simulation& link, size_t count, bool areEqual) {
  for (size_t i = 0; i < count; ++i) {
    const string number = areEqual ? "" : std::to_string(i);
    const size_t host = link.AddHost("T5140" + number, LinkOf(i + 1));
    link.AddService(host, {"Printer" + number, "_ipp._tcp", "txtvers=1", 631});
    link.SwitchOn(host);
  }
}

TEST(Simulation, HundredsOfHostsThatComeUpAtOnceHaveTheirNamesWithinTwoSeconds) {
  Simulation link(1, 0, false);
  link.HoldNamesUnique(true);
  PowerUp(link, kSeeds < 1000 ? 50 : 200, false);
  link.RunUntil(2000);
  for (size_t i = 0; i < link.Hosts().size(); ++i) EXPECT_TRUE(link.IsSettled(i)) << i;
  link.RunUntilSilent(kMinute);
  EXPECT_EQ(link.Failure(), "");
  EXPECT_LT(link.Now(), 5000);
}

TEST(Simulation, ManyEqualHostsThatComeUpAtOnceAllFindNames) {
  Simulation link(1, 0, false);
  link.HoldNamesUnique(true);
  PowerUp(link, 40, true);
  link.RunUntilSilent(10 * kMinute);
  EXPECT_EQ(link.Failure(), "");
  vector<string> names;
  for (size_t i = 0; i < link.Hosts().size(); ++i) {
    EXPECT_TRUE(link.IsSettled(i)) << i;
    for (const string& name : link.HeldNames(i, Family::kIpv4)) names.push_back(name);
  }
  EXPECT_EQ(names.size(), 120u) << "of the host, IPP and the reserved one of each";
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

// RFC 6762, section 8.1: fifteen conflicts within ten seconds, then five seconds for each attempt.
TEST(Simulation, AHostThatFindsManyNamesTakenTriesThemSlowly) {
  Simulation link(1, 0, false);
  for (size_t i = 0; i < 30; ++i) {
    const string suffix = i == 0 ? "" : "-" + std::to_string(i);
    link.SwitchOn(link.AddHost("T5140" + suffix, LinkOf(i + 1)));
  }
  link.RunUntilSilent(kMinute);
  const size_t late = link.AddHost("T5140", LinkOf(100));
  link.SwitchOn(late);
  link.RunUntil(link.Now() + 10000);
  EXPECT_STREQ(HostName(*link.Hosts()[late].core), "T5140-16");
  link.RunUntilSilent(5 * kMinute);
  EXPECT_STREQ(HostName(*link.Hosts()[late].core), "T5140-30");
  EXPECT_EQ(link.Failure(), "");
}

}  // namespace
