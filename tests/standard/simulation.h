// A link in one process: many cores, virtual time, and packets that are lost, doubled, delayed and
// kept apart. Two listeners, one a family, hear every packet at once. All that happens follows from
// the seed. What must be true at any time is checked at any time; the first thing that is not true
// ends the run.
#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "standard/core.h"
#include "tests/standard/listener.h"
#include "tests/standard/sender_check.h"

/// Random numbers that are the same on every machine.
class Dice {
 public:
  explicit Dice(uint64_t seed) : state(seed) {}
  uint64_t Next();
  /// A number from 0 to before `count`.
  size_t Below(size_t count) { return static_cast<size_t>(Next() % count); }
  /// A number from `low` to `high`, both included.
  int64_t Between(int64_t low, int64_t high);
  /// True in `percent` of all cases.
  bool Chance(size_t percent) { return Below(100) < percent; }

 private:
  uint64_t state;
};

/// What the link does to packets on their way from one host to another.
struct Faults {
  size_t lossPercent;
  size_t doublePercent;
  int64_t delayMax;  ///< milliseconds; longer ones let packets overtake each other
};

struct SimulatedService {
  std::string instance;
  std::string type;
  std::string txt;
  uint16_t port;
};

/// A host, which may be switched on or not.
struct SimulatedHost {
  std::string name;
  LinkState link;  ///< as it is while the cable is in
  bool hasCable;
  std::vector<SimulatedService> services;
  size_t group;  ///< hosts of one group hear each other

  bool isOn;
  bool isStopping;
  int64_t stopBegan;
  int64_t turn;
  std::unique_ptr<Core> core;
  std::unique_ptr<SenderCheck> check;
};

/// A question of a host that is no responder.
struct Asking {
  std::vector<PacketQuestion> questions;
  std::vector<PacketRecord> known;
  bool isTruncated;
  uint16_t port;  ///< that it is asked from
  size_t asker;   ///< which of the hosts that only ask
};

class Simulation {
 public:
  /// `lateMax`: milliseconds by which a host's turn may be late. With `isTraced` each packet is
  /// written to standard error.
  Simulation(uint64_t seed, int64_t lateMax, bool isTraced);

  int64_t Now() const { return now; }
  const std::vector<SimulatedHost>& Hosts() const { return hosts; }
  const Listener& ListenerOf(Family family) const { return listeners[static_cast<size_t>(family)]; }
  /// What was not as it should be; empty while all is well.
  const std::string& Failure() const { return failure; }
  void Fail(const std::string& what);

  /// Adds a host that is switched off.
  size_t AddHost(const std::string& name, const LinkState& link);
  void SetFaults(const Faults& other) { faults = other; }
  /// Names are never held by two hosts that hear each other: the link is good enough for it.
  void HoldNamesUnique(bool isHeld) { areNamesUnique = isHeld; }
  /// Something on the link repeats what hosts send, from another address.
  void Reflect(bool doesReflect) { isReflecting = doesReflect; }
  void SetGroup(size_t host, size_t group) { hosts[host].group = group; }

  void SwitchOn(size_t host);
  /// Without a word.
  void Crash(size_t host);
  /// With goodbyes; the host is off when they are out.
  void Stop(size_t host);
  void Plug(size_t host, bool hasCable);
  void SetLink(size_t host, const LinkState& link);
  void AddService(size_t host, const SimulatedService& service);
  void RemoveService(size_t host, size_t service);
  void Ask(Family family, const Asking& asking);

  void RunUntil(int64_t until);
  /// Runs until nothing is under way and nobody has anything left to do. Fails after `limit`.
  void RunUntilSilent(int64_t limit);
  /// Packets that were sent so far.
  size_t Sent() const { return sent; }
  /// Unicast packets that askers received so far.
  size_t Told() const { return told; }

  /// The records that a host that is on should be known by on a family, from what it was given and
  /// the names that it has by now.
  std::vector<PacketRecord> LiveRecords(size_t host, Family family) const;
  /// The unique names among these.
  std::vector<std::string> HeldNames(size_t host, Family family) const;
  /// True when all that a host should hold is held on all its families.
  bool IsSettled(size_t host) const;
  /// True when a host or any of its services is not called as it was wanted.
  bool IsRenamed(size_t host) const;

 private:
  struct Transmission {
    std::string bytes;
    Packet packet;  // the same, read
    Endpoint source;
    bool isMulticast;
  };
  struct Arrival {
    int64_t time;
    uint64_t order;
    size_t host;
    std::shared_ptr<const Transmission> what;
  };
  struct IsLater {
    bool operator()(const Arrival& a, const Arrival& b) const {
      return a.time != b.time ? a.time > b.time : a.order > b.order;
    }
  };

  void Step();
  int64_t NextTime() const;
  void Settle(size_t host);
  void Transmit(size_t host, const OutgoingDatagram& out);
  void Spread(size_t sender, Family family, const std::shared_ptr<const Transmission>& what);
  void SendTo(const Address& address, const std::shared_ptr<const Transmission>& what);
  void Carry(size_t host, const std::shared_ptr<const Transmission>& what);
  void Deliver(const Arrival& arrival);
  void CheckHolder(size_t host, Family family, const Packet& packet);
  void CheckStopped(size_t host);
  void ExcuseAll(size_t host, Family family);
  void ExcuseLost(size_t host, const uint8_t* heldBefore);
  bool IsOnFamily(const SimulatedHost& host, Family family) const;
  void Trace(size_t host, const OutgoingDatagram& out, const Packet& packet) const;
  template <typename Call>
  void Do(size_t host, const Call& call);

  Dice dice;
  int64_t lateness;
  bool isTraced;
  bool areNamesUnique = false;
  bool isReflecting = false;
  int64_t now = 0;
  uint64_t order = 0;
  size_t sent = 0;
  size_t told = 0;
  Faults faults = {};
  std::string failure;
  std::vector<SimulatedHost> hosts;
  std::priority_queue<Arrival, std::vector<Arrival>, IsLater> arrivals;
  Listener listeners[kFamilies];
  std::unordered_map<std::string, size_t> holders[kFamilies];
  std::unique_ptr<OutgoingDatagram> out = std::make_unique<OutgoingDatagram>();
};
